// The math functions. One family, KelMathFunction<Op>: evaluate the float arguments first to
// last, take newFloat(0), and store Op::apply at each active column. The operations below are
// the per-pixel formulas, in single precision, so that a pixel is the same on every platform.
#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <type_traits>
#include <vector>

#include "IxVectorMath.h"
#include "kelFunctions.h"

namespace Zt {

namespace KelMathOps {

// clang-format off
struct Sin     { static float apply(float a) { return sinf(a); } };
struct Cos     { static float apply(float a) { return cosf(a); } };
struct Tan     { static float apply(float a) { return tanf(a); } };
struct ASin    { static float apply(float a) { return asinf(a); } };
struct ACos    { static float apply(float a) { return acosf(a); } };
struct ATan    { static float apply(float a) { return atanf(a); } };
struct ATan2   { static float apply(float a, float b) { return atan2f(a, b); } };
struct Sinh    { static float apply(float a) { return sinhf(a); } };
struct Cosh    { static float apply(float a) { return coshf(a); } };
struct Tanh    { static float apply(float a) { return tanhf(a); } };
struct Degrees { static float apply(float a) { return a * 57.29578f; } };
struct Radians { static float apply(float a) { return a * 0.017453292f; } };
struct Exp     { static float apply(float a) { return expf(a); } };
struct Log     { static float apply(float a) { return logf(a); } };
struct Log10   { static float apply(float a) { return log10f(a); } };
struct Pow     { static float apply(float a, float b) { return powf(a, b); } };
struct Pow10   { static float apply(float a) { return powf(10.0f, a); } };
struct Sqrt    { static float apply(float a) { return sqrtf(a); } };
// On the bits, so that the sign of NaN and of -0.0 is cleared too.
struct Abs     { static float apply(float a) { return std::bit_cast<float>(std::bit_cast<uint32_t>(a) & 0x7fffffffu); } };
struct Floor   { static float apply(float a) { return floorf(a); } };
struct Ceil    { static float apply(float a) { return ceilf(a); } };
// Halves round upward: round(-2.5) is -2.0.
struct Round   { static float apply(float a) { return floorf(a + 0.5f); } };
struct Mod     { static float apply(float a, float b) { return fmodf(a, b); } };
// One comparison each, falling to b when it is false: a NaN in either argument gives b.
struct Min     { static float apply(float a, float b) { return b > a ? a : b; } };
struct Max     { static float apply(float a, float b) { return a > b ? a : b; } };
// The plain formula, not the C library's hypotf: it overflows for large arguments.
struct Hypot   { static float apply(float a, float b) { return sqrtf(a * a + b * b); } };
// clang-format on

}  // namespace KelMathOps

namespace {

template <class Op>
constexpr int arityOf() {
    if constexpr (requires { Op::apply(0.0f, 0.0f); })
        return 2;
    else
        return 1;
}

// The plain loop: active columns only; an inactive column keeps what the pool's
// object held.
template <class Op, std::size_t N>
void applyMasked(float* d, const std::array<const float*, N>& a, const float* mask, int lo, int hi) {
    for (int x = lo; x < hi; ++x) {
        if (mask[x] == 0.0f) continue;
        if constexpr (N == 1)
            d[x] = Op::apply(a[0][x]);
        else
            d[x] = Op::apply(a[0][x], a[1][x]);
    }
}

// Every column active: the same formula without reading the mask.
template <class Op, std::size_t N>
void applyAll(float* d, const std::array<const float*, N>& a, int lo, int hi) {
    for (int x = lo; x < hi; ++x) {
        if constexpr (N == 1)
            d[x] = Op::apply(a[0][x]);
        else
            d[x] = Op::apply(a[0][x], a[1][x]);
    }
}

template <class Op>
constexpr bool hasRowFunction() {
    return std::is_same_v<Op, KelMathOps::Sin> || std::is_same_v<Op, KelMathOps::Cos> || std::is_same_v<Op, KelMathOps::ATan2>;
}

// Op's row function of the C library's vector math (issue 8), to the C library's accuracy.
// Every column of a row goes through it, active or not, so that a pixel's value does not depend
// on the mask of its row (nor on the tiling, IxVectorMath.h).
template <class Op, std::size_t N>
void applyRow(float* d, const std::array<const float*, N>& a, int lo, int hi) {
    const int n = hi - lo;
    if constexpr (std::is_same_v<Op, KelMathOps::Sin>) IxVectorMath::sin(d + lo, a[0] + lo, n);
    else if constexpr (std::is_same_v<Op, KelMathOps::Cos>) IxVectorMath::cos(d + lo, a[0] + lo, n);
    else IxVectorMath::atan2(d + lo, a[0] + lo, a[1] + lo, n);
}

// A partial mask: the row function into a scratch row of this thread, kept from call to call,
// then stored at the active columns only.
template <class Op, std::size_t N>
void applyRowMasked(float* d, const std::array<const float*, N>& a, const float* mask, int lo, int hi) {
    thread_local std::vector<float> scratch;
    if (scratch.size() < std::size_t(hi - lo)) scratch.resize(std::size_t(hi - lo));
    float* s = scratch.data() - lo;
    applyRow<Op>(s, a, lo, hi);
    for (int x = lo; x < hi; ++x)
        if (mask[x] != 0.0f) d[x] = s[x];
}

}  // namespace

template <class Op>
void KelMathFunction<Op>::declare(FunctionCallNode& node) {
    if constexpr (arityOf<Op>() == 1)
        kelDeclareOverload(node, 0, KelValueTypes::Float, {KelValueTypes::Float});
    else
        kelDeclareOverload(node, 0, KelValueTypes::Float, {KelValueTypes::Float, KelValueTypes::Float});
}

// Over the call's columns, at its active columns (a row function computes them all).
template <class Op>
void KelMathFunction<Op>::rows(const KelRowCall& call) {
    constexpr std::size_t N = arityOf<Op>();
    std::array<const float*, N> arguments;
    for (std::size_t i = 0; i < N; ++i) arguments[i] = static_cast<const IxScanline<float>*>(call.arguments[i])->data();
    float* d = static_cast<IxScanline<float>*>(call.result)->data();
    const int lo = call.columns.min, hi = call.columns.max;
    if constexpr (hasRowFunction<Op>()) {
        if (!call.active) applyRow<Op>(d, arguments, lo, hi);
        else applyRowMasked<Op>(d, arguments, call.active->data(), lo, hi);
    } else {
        if (!call.active) applyAll<Op>(d, arguments, lo, hi);
        else applyMasked<Op>(d, arguments, call.active->data(), lo, hi);
    }
}

template <class Op>
RCShdPtr<KelValue> KelMathFunction<Op>::eval(const FunctionCallNode& node, KelContext& context) {
    constexpr std::size_t N = arityOf<Op>();
    // Held until the end, so that the result is always another object of the pool.
    std::array<KelFloatPtr, N> args;
    KelRowCall call;
    for (std::size_t i = 0; i < N; ++i) {
        args[i] = rcStaticCast<KelFloat>(node.argument(i)->eval(context));
        call.arguments[i] = &args[i]->getScanline();
    }
    KelFloatPtr result = context.newFloat(0);
    call.result = &result->getScanline();
    call.active = context.getMask().activeScanline();
    call.columns = context.getInterval();
    rows(call);
    return result;
}

template <class Op>
int KelMathFunction<Op>::compile(const FunctionCallNode& node, KelProgramBuilder& program) {
    return kelCompileCall(node, program, &rows, KelValueTypes::Float);
}

template struct KelMathFunction<KelMathOps::Sin>;
template struct KelMathFunction<KelMathOps::Cos>;
template struct KelMathFunction<KelMathOps::Tan>;
template struct KelMathFunction<KelMathOps::ASin>;
template struct KelMathFunction<KelMathOps::ACos>;
template struct KelMathFunction<KelMathOps::ATan>;
template struct KelMathFunction<KelMathOps::ATan2>;
template struct KelMathFunction<KelMathOps::Sinh>;
template struct KelMathFunction<KelMathOps::Cosh>;
template struct KelMathFunction<KelMathOps::Tanh>;
template struct KelMathFunction<KelMathOps::Degrees>;
template struct KelMathFunction<KelMathOps::Radians>;
template struct KelMathFunction<KelMathOps::Exp>;
template struct KelMathFunction<KelMathOps::Log>;
template struct KelMathFunction<KelMathOps::Log10>;
template struct KelMathFunction<KelMathOps::Pow>;
template struct KelMathFunction<KelMathOps::Pow10>;
template struct KelMathFunction<KelMathOps::Sqrt>;
template struct KelMathFunction<KelMathOps::Abs>;
template struct KelMathFunction<KelMathOps::Floor>;
template struct KelMathFunction<KelMathOps::Ceil>;
template struct KelMathFunction<KelMathOps::Round>;
template struct KelMathFunction<KelMathOps::Mod>;
template struct KelMathFunction<KelMathOps::Min>;
template struct KelMathFunction<KelMathOps::Max>;
template struct KelMathFunction<KelMathOps::Hypot>;

}  // namespace Zt
