// The built-in functions and their catalogue. Each built-in is a class FunctionX with a static
// `declare` (its signature) and a static `eval` (what it computes); FunctionNode<FunctionX>
// (kelGraph.h) wraps it as a node. Where functions differ only in a per-pixel formula, a channel
// or an image quantity, FunctionX is one instance of a family template whose operation is
// defined in the family's .cpp file: kelFunctionsMath.cpp (math), kelFunctionsColor.cpp
// (colours and channels), kelFunctionsImage.cpp and kelFunctionsSample.cpp (images),
// kelFunctionsNoise.cpp (noise and `rand`), kelFunctionsShaping.cpp (clamp, mix and their
// like); kelFunctionsCatalogue.cpp names them all.
#pragma once

#include <initializer_list>
#include <map>
#include <string>
#include <vector>

#include "kelGraph.h"
#include "kelProgram.h"

namespace Zt {

// Fills one overload's row of the signature tables, all parameters of mode 0 except
// `writtenParameter` (mode 1, the function writes to that argument).
void kelDeclareOverload(FunctionCallNode& node, int overload, int returnType, std::initializer_list<int> parameterTypes,
                        int writtenParameter = -1);

// The columns that a function computing like the operators computes: the mask's active span, or
// the whole row when every column is active. Outside the span no value can reach a variable.
inline GeInterval<int> kelComputedColumns(KelContext& context) {
    const GeInterval<int>* span = context.getMask().activeSpan();
    return span ? *span : context.getInterval();
}
// The strip form of a built-in whose arguments are all values: the arguments first to last,
// then `kernel` over them (KelFunction::rows, the same code that its `eval` runs over the row).
int kelCompileCall(const FunctionCallNode& node, KelProgramBuilder& program, KelRowKernel kernel, int resultType);

// ---- Math ---------------------------------------------------------------------------------------

// The math family: `Op::arity` float arguments, evaluated first to last, a result from
// newFloat(0) written at the active columns only, by the single-precision formula `Op::apply`.
template <class Op>
struct KelMathFunction {
    static void declare(FunctionCallNode& node);
    static RCShdPtr<KelValue> eval(const FunctionCallNode& node, KelContext& context);
    static int compile(const FunctionCallNode& node, KelProgramBuilder& program);
    static void rows(const KelRowCall& call);
};

// The per-pixel formulas, defined in kelFunctionsMath.cpp.
namespace KelMathOps {
struct Sin; struct Cos; struct Tan; struct ASin; struct ACos; struct ATan; struct ATan2;
struct Sinh; struct Cosh; struct Tanh; struct Degrees; struct Radians; struct Exp; struct Log;
struct Log10; struct Pow; struct Pow10; struct Sqrt; struct Abs; struct Floor; struct Ceil;
struct Round; struct Mod; struct Min; struct Max; struct Hypot;
}  // namespace KelMathOps

using FunctionSin = KelMathFunction<KelMathOps::Sin>;
using FunctionCos = KelMathFunction<KelMathOps::Cos>;
using FunctionTan = KelMathFunction<KelMathOps::Tan>;
using FunctionASin = KelMathFunction<KelMathOps::ASin>;
using FunctionACos = KelMathFunction<KelMathOps::ACos>;
using FunctionATan = KelMathFunction<KelMathOps::ATan>;
using FunctionATan2 = KelMathFunction<KelMathOps::ATan2>;
using FunctionSinh = KelMathFunction<KelMathOps::Sinh>;
using FunctionCosh = KelMathFunction<KelMathOps::Cosh>;
using FunctionTanh = KelMathFunction<KelMathOps::Tanh>;
using FunctionDegrees = KelMathFunction<KelMathOps::Degrees>;
using FunctionRadians = KelMathFunction<KelMathOps::Radians>;
using FunctionExp = KelMathFunction<KelMathOps::Exp>;
using FunctionLog = KelMathFunction<KelMathOps::Log>;
using FunctionLog10 = KelMathFunction<KelMathOps::Log10>;
using FunctionPow = KelMathFunction<KelMathOps::Pow>;
using FunctionPow10 = KelMathFunction<KelMathOps::Pow10>;
using FunctionSqrt = KelMathFunction<KelMathOps::Sqrt>;
using FunctionAbs = KelMathFunction<KelMathOps::Abs>;
using FunctionFloor = KelMathFunction<KelMathOps::Floor>;
using FunctionCeil = KelMathFunction<KelMathOps::Ceil>;
using FunctionRound = KelMathFunction<KelMathOps::Round>;
using FunctionMod = KelMathFunction<KelMathOps::Mod>;
using FunctionMin = KelMathFunction<KelMathOps::Min>;
using FunctionMax = KelMathFunction<KelMathOps::Max>;
using FunctionHypot = KelMathFunction<KelMathOps::Hypot>;

// ---- Colours and channels -----------------------------------------------------------------------

// `r`, `g`, `b`, `a` (and `x`, `y`, `z`, `w`): channel `Channel` of a colour, at all columns.
template <int Channel>
struct KelChannelReader {
    static void declare(FunctionCallNode& node);
    static RCShdPtr<KelValue> eval(const FunctionCallNode& node, KelContext& context);
    static int compile(const FunctionCallNode& node, KelProgramBuilder& program);
    static void rows(const KelRowCall& call);
};
// `setR` .. `setA` (and `setX` .. `setW`): writes the channel of its first argument in place at
// the active columns, and returns nothing (void, type 5).
template <int Channel>
struct KelChannelSetter {
    static void declare(FunctionCallNode& node);
    static RCShdPtr<KelValue> eval(const FunctionCallNode& node, KelContext& context);
};

using FunctionR = KelChannelReader<0>;
using FunctionG = KelChannelReader<1>;
using FunctionB = KelChannelReader<2>;
using FunctionA = KelChannelReader<3>;
using FunctionSetR = KelChannelSetter<0>;
using FunctionSetG = KelChannelSetter<1>;
using FunctionSetB = KelChannelSetter<2>;
using FunctionSetA = KelChannelSetter<3>;

// `color(r, g, b, a)`: all columns, varying.
struct FunctionNewColor {
    static void declare(FunctionCallNode& node);
    static RCShdPtr<KelValue> eval(const FunctionCallNode& node, KelContext& context);
    static int compile(const FunctionCallNode& node, KelProgramBuilder& program);
    static void rows(const KelRowCall& call);
};

// `dot(p, q)`: four-channel dot product at the active columns; inactive columns stay 0.0.
struct FunctionDot {
    static void declare(FunctionCallNode& node);
    static RCShdPtr<KelValue> eval(const FunctionCallNode& node, KelContext& context);
    static int compile(const FunctionCallNode& node, KelProgramBuilder& program);
    static void rows(const KelRowCall& call);
};

// A float of a colour's red, green and blue (`Q::apply`), over the active span of the mask:
// `luminance` and `length`.
template <class Q>
struct KelColorMeasure {
    static void declare(FunctionCallNode& node);
    static RCShdPtr<KelValue> eval(const FunctionCallNode& node, KelContext& context);
};

namespace KelColorMeasures {
struct Luminance; struct Length;
}  // namespace KelColorMeasures

using FunctionLuminance = KelColorMeasure<KelColorMeasures::Luminance>;
using FunctionLength = KelColorMeasure<KelColorMeasures::Length>;

// ---- Image queries and sampling -----------------------------------------------------------------

// A quantity of a KelImageEntry read for each column's image id, at all columns. `Q::shortWay`
// says whether a uniform image value is answered by one `set` from its first column.
template <class Q>
struct KelImageQuery {
    static void declare(FunctionCallNode& node);
    static RCShdPtr<KelValue> eval(const FunctionCallNode& node, KelContext& context);
};

// The quantities, defined in kelFunctionsImage.cpp.
namespace KelImageQuantities {
struct Width; struct Height; struct XMin; struct XMax; struct YMin; struct YMax; struct PixelAspectRatio;
}  // namespace KelImageQuantities

using FunctionWidth = KelImageQuery<KelImageQuantities::Width>;
using FunctionHeight = KelImageQuery<KelImageQuantities::Height>;
using FunctionXMin = KelImageQuery<KelImageQuantities::XMin>;
using FunctionXMax = KelImageQuery<KelImageQuantities::XMax>;
using FunctionYMin = KelImageQuery<KelImageQuantities::YMin>;
using FunctionYMax = KelImageQuery<KelImageQuantities::YMax>;
using FunctionGetPixelAspectRatio = KelImageQuery<KelImageQuantities::PixelAspectRatio>;

// `getOutputImage()`: a fresh constant image value holding id 1.
struct FunctionGetOutputImage {
    static void declare(FunctionCallNode& node);
    static RCShdPtr<KelValue> eval(const FunctionCallNode& node, KelContext& context);
};

// `isSame(i, j)`: 1.0 where the two id floats are equal, at all columns.
struct FunctionIsSame {
    static void declare(FunctionCallNode& node);
    static RCShdPtr<KelValue> eval(const FunctionCallNode& node, KelContext& context);
};

// `sample(i, x, y)` (overload 0) and `sample(i)` (overload 1). Also the node that the implicit
// wrap (wrapInSample) builds.
struct FunctionSample {
    static void declare(FunctionCallNode& node);
    static RCShdPtr<KelValue> eval(const FunctionCallNode& node, KelContext& context);
    // An input image's current pixel is its row; sampling at coordinates goes through its sampler.
    static int compile(const FunctionCallNode& node, KelProgramBuilder& program);
    static void rows(const KelRowCall& call);
    static void addRows(const KelRowCall& call);
};

// `sampleClamp`, `sampleWrap`, `sampleMirror` (image, x, y): overload 0 of `sample` through the
// image's sampler of edge mode `Edge`.
template <KelEdgeMode Edge>
struct KelEdgeSample {
    static void declare(FunctionCallNode& node);
    static RCShdPtr<KelValue> eval(const FunctionCallNode& node, KelContext& context);
};

using FunctionSampleClamp = KelEdgeSample<KelEdgeMode::Clamp>;
using FunctionSampleWrap = KelEdgeSample<KelEdgeMode::Wrap>;
using FunctionSampleMirror = KelEdgeSample<KelEdgeMode::Mirror>;

// ---- Shaping: clamp, mix, smoothstep, step, fract, saturate -------------------------------------

// The shaping family: `Op::apply` of float arguments, evaluated first to last, computed over the
// active span of the mask. Op lists its overloads; in a colour overload the formula runs on each
// of the four channels, a float argument standing for all four. Defined in kelFunctionsShaping.cpp.
template <class Op>
struct KelShapingFunction {
    static void declare(FunctionCallNode& node);
    static RCShdPtr<KelValue> eval(const FunctionCallNode& node, KelContext& context);
};

namespace KelShapingOps {
struct Clamp; struct Mix; struct SmoothStep; struct Step; struct Fract; struct Saturate;
}  // namespace KelShapingOps

using FunctionClamp = KelShapingFunction<KelShapingOps::Clamp>;
using FunctionMix = KelShapingFunction<KelShapingOps::Mix>;
using FunctionSmoothStep = KelShapingFunction<KelShapingOps::SmoothStep>;
using FunctionStep = KelShapingFunction<KelShapingOps::Step>;
using FunctionFract = KelShapingFunction<KelShapingOps::Fract>;
using FunctionSaturate = KelShapingFunction<KelShapingOps::Saturate>;

// ---- Noise and random numbers -------------------------------------------------------------------

// `noise3D(x, y, z)`: at all columns, the mask plays no part.
struct FunctionNoise3D {
    static void declare(FunctionCallNode& node);
    static RCShdPtr<KelValue> eval(const FunctionCallNode& node, KelContext& context);
    static int compile(const FunctionCallNode& node, KelProgramBuilder& program);
    static void rows(const KelRowCall& call);
};

// `rand()`: at each active column a number from 0 to 32767 that depends only on the seed, the
// time, the pixel, the call (its ordinal) and the call's earlier draws at that pixel in this row
// (context.random()), as a float in [0, 1].
struct FunctionRand {
    static void declare(FunctionCallNode& node);
    static RCShdPtr<KelValue> eval(const FunctionCallNode& node, KelContext& context);
    // A number as a pixel: n / 32767, so that 0 gives 0.0 and 32767 exactly 1.0.
    static float toUnit(int number) { return float(number) / 32767.0f; }
};

// The three constant tables of noise3D, copied into place once at package initialisation.
struct KelNoise {
    static float cornerOffsets[8][3];
    static float gradients[16][3];
    static int permutation[512];
    static void buildTables();
    static float noise(float x, float y, float z);
};

// ---- The catalogue ------------------------------------------------------------------------------

// The static table from name to factory, filled once at package initialisation.
struct KelFunctionTable {
    using Factory = RCShdPtr<FunctionCallNode> (*)(int line);
    static std::map<std::string, Factory> functions;
    // Registers every name of the catalogue, in its order.
    static void build();
    // Exact, case-sensitive; null when the name is unknown.
    static Factory lookup(const std::string& name);
    // The names in the order of registration (the catalogue's order), for tests and listings.
    static const std::vector<std::string>& namesInOrder();
};

}  // namespace Zt
