// The built-in function catalogue: one list of every name a script can call with the class that
// implements it, from which the table from name to factory is filled once at package
// initialisation; and the shared helper by which each FunctionX declares its signature. What
// each function computes is in the family files (kelFunctionsMath.cpp and its neighbours).
#include <algorithm>
#include <iterator>

#include "kelFunctions.h"

namespace Zt {

std::map<std::string, KelFunctionTable::Factory> KelFunctionTable::functions;

void kelDeclareOverload(FunctionCallNode& node, int overload, int returnType, std::initializer_list<int> parameterTypes,
                        int writtenParameter) {
    int i = 0;
    for (int type : parameterTypes) node.addOverloadParameter(type, overload, i++ == writtenParameter ? 1 : 0);
    node.setReturnType(overload, returnType);
}

int kelCompileCall(const FunctionCallNode& node, KelProgramBuilder& program, KelRowKernel kernel, int resultType) {
    std::vector<int> arguments;
    for (std::size_t i = 0; i < node.argumentCount(); ++i) {
        arguments.push_back(node.argument(i)->compile(program));
        if (arguments.back() < 0) return KelProgramBuilder::kFails;
    }
    return program.call(kernel, resultType, arguments);
}

namespace {

// A script name as a template argument, so that each name gets a factory of its own even when
// two names share a class (`x` and `r`): the node prints under the name that the script used.
template <std::size_t N>
struct KelName {
    char text[N];
    constexpr KelName(const char (&name)[N]) { std::copy_n(name, N, text); }
};

template <class F, KelName Name>
RCShdPtr<FunctionCallNode> makeNode(int line) {
    return RCShdPtr<FunctionCallNode>(new FunctionNode<F>(std::string(Name.text), line));
}

struct CatalogueEntry {
    const char* name;
    KelFunctionTable::Factory factory;
};

template <class F, KelName Name>
constexpr CatalogueEntry entry() {
    return {Name.text, &makeNode<F, Name>};
}

// Every built-in, in the order of registration; a name may share a class with another.
constexpr CatalogueEntry kCatalogue[] = {
    entry<FunctionSin,                 "sin">(),
    entry<FunctionCos,                 "cos">(),
    entry<FunctionTan,                 "tan">(),
    entry<FunctionASin,                "asin">(),
    entry<FunctionACos,                "acos">(),
    entry<FunctionATan,                "atan">(),
    entry<FunctionATan2,               "atan2">(),
    entry<FunctionSinh,                "sinh">(),
    entry<FunctionCosh,                "cosh">(),
    entry<FunctionTanh,                "tanh">(),
    entry<FunctionDegrees,             "degrees">(),
    entry<FunctionRadians,             "radians">(),
    entry<FunctionExp,                 "exp">(),
    entry<FunctionLog,                 "log">(),
    entry<FunctionLog10,               "log10">(),
    entry<FunctionPow,                 "pow">(),
    entry<FunctionPow10,               "pow10">(),
    entry<FunctionFloor,               "floor">(),
    entry<FunctionCeil,                "ceil">(),
    entry<FunctionRound,               "round">(),
    entry<FunctionMod,                 "mod">(),
    entry<FunctionMin,                 "min">(),
    entry<FunctionMax,                 "max">(),
    entry<FunctionHypot,               "hypot">(),
    entry<FunctionRand,                "rand">(),
    entry<FunctionR,                   "r">(),
    entry<FunctionG,                   "g">(),
    entry<FunctionB,                   "b">(),
    entry<FunctionA,                   "a">(),
    entry<FunctionR,                   "x">(),
    entry<FunctionG,                   "y">(),
    entry<FunctionB,                   "z">(),
    entry<FunctionA,                   "w">(),
    entry<FunctionSetR,                "setR">(),
    entry<FunctionSetG,                "setG">(),
    entry<FunctionSetB,                "setB">(),
    entry<FunctionSetA,                "setA">(),
    entry<FunctionSetR,                "setX">(),
    entry<FunctionSetG,                "setY">(),
    entry<FunctionSetB,                "setZ">(),
    entry<FunctionSetA,                "setW">(),
    entry<FunctionNewColor,            "color">(),
    entry<FunctionSample,              "sample">(),
    entry<FunctionWidth,               "width">(),
    entry<FunctionHeight,              "height">(),
    entry<FunctionAbs,                 "abs">(),
    entry<FunctionSqrt,                "sqrt">(),
    entry<FunctionXMin,                "xmin">(),
    entry<FunctionXMax,                "xmax">(),
    entry<FunctionYMin,                "ymin">(),
    entry<FunctionYMax,                "ymax">(),
    entry<FunctionDot,                 "dot">(),
    entry<FunctionGetOutputImage,      "getOutputImage">(),
    entry<FunctionGetPixelAspectRatio, "getPixelAspectRatio">(),
    entry<FunctionIsSame,              "isSame">(),
    entry<FunctionNoise3D,             "noise3D">(),
    entry<FunctionClamp,               "clamp">(),
    entry<FunctionMix,                 "mix">(),
    entry<FunctionSmoothStep,          "smoothstep">(),
    entry<FunctionStep,                "step">(),
    entry<FunctionFract,               "fract">(),
    entry<FunctionSaturate,            "saturate">(),
    entry<FunctionLuminance,           "luminance">(),
    entry<FunctionLength,              "length">(),
    entry<FunctionSampleClamp,         "sampleClamp">(),
    entry<FunctionSampleWrap,          "sampleWrap">(),
    entry<FunctionSampleMirror,        "sampleMirror">(),
};
constexpr bool sameName(const char* a, const char* b) {
    while (*a != 0 && *a == *b) ++a, ++b;
    return *a == *b;
}

// A second row of one name would be dropped by the map without a word.
constexpr bool namesAreUnique() {
    for (std::size_t i = 0; i < std::size(kCatalogue); ++i)
        for (std::size_t j = i + 1; j < std::size(kCatalogue); ++j)
            if (sameName(kCatalogue[i].name, kCatalogue[j].name)) return false;
    return true;
}
static_assert(namesAreUnique(), "each built-in name appears once");

}  // namespace

void KelFunctionTable::build() {
    for (const CatalogueEntry& e : kCatalogue) functions.emplace(e.name, e.factory);
}

KelFunctionTable::Factory KelFunctionTable::lookup(const std::string& name) {
    auto it = functions.find(name);
    return it == functions.end() ? nullptr : it->second;
}

const std::vector<std::string>& KelFunctionTable::namesInOrder() {
    static const std::vector<std::string> names = [] {
        std::vector<std::string> result;
        for (const CatalogueEntry& e : kCatalogue) result.emplace_back(e.name);
        return result;
    }();
    return names;
}

}  // namespace Zt
