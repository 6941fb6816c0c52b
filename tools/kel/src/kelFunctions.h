// Subsystem 5, the built-in functions (Parts 5.1 to 5.4), and the catalogue of Part 3.4.
// Each built-in is a class FunctionX with a static `declare` (its signature, Part 3.4) and a
// static `eval` (what it computes); FunctionNode<FunctionX> (kelGraph.h) wraps it as a node.
#pragma once

#include <map>
#include <string>

#include "kelGraph.h"

namespace Zt {

// Part 5.3: `sample(i, x, y)` (overload 0) and `sample(i)` (overload 1). Also the node that the
// implicit wrap of Part 4.6 builds.
struct FunctionSample {
    static void declare(FunctionCallNode& node);
    static RCShdPtr<KelValue> eval(const FunctionCallNode& node, KelContext& context);
};

// Part 3.4: the static table from name to factory, filled once at package initialisation.
struct KelFunctionTable {
    using Factory = RCShdPtr<FunctionCallNode> (*)(int line);
    static std::map<std::string, Factory> functions;
    // Registers the 56 names in the order of the catalogue (Part 6.1 step 3).
    static void build();
    // Exact, case-sensitive; null when the name is unknown.
    static Factory lookup(const std::string& name);
};

// Part 5.4: the three constant tables of noise3D, built once (Part 6.1 step 5).
struct KelNoise {
    static float cornerOffsets[8][3];
    static float gradients[16][3];
    static int permutation[512];
    static void buildTables();
    static float noise(float x, float y, float z);
};

}  // namespace Zt
