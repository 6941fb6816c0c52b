// The node's parameter list that check, print and render compile with, made from the -i, -f and
// -c flags and the script's own declarations: first the flags in command-line order (a flag
// overrides the declaration of its name), then the declared parameters that no flag names, in
// the script's order, and the output last, named by --out, else by the script's @output, else
// `out`. So a script without declarations gets exactly the list of its flags.
#pragma once

#include <string>
#include <vector>

#include "kelCommands.h"
#include "kelDeclarations.h"

namespace Zt::KelApp {

struct ParameterList {
    // For render every float holds a value (the flag's, else the declared default, else 0) and
    // every declared image input a file; check and print take the names only.
    std::vector<ParameterOption> parameters;
    std::string outputName;
    // What render should tell the user: a float that gets 0 for want of a value, a value outside
    // its declared range.
    std::vector<std::string> warnings;
};

// UsageError when a flag gives a declared parameter another kind, or when render lacks the file
// of a declared image input (the message names the flag to add).
ParameterList buildParameterList(const ScriptDeclarations& declarations, const Invocation& in);

}  // namespace Zt::KelApp
