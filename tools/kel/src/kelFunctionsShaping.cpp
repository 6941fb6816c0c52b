// The shaping functions: clamp, mix, smoothstep, step, fract and saturate. One family,
// KelShapingFunction<Op>: evaluate the arguments first to last, then compute Op::apply, in single
// precision, at every column of the mask's active span (the operators' rule: outside the span no
// value can reach a variable). A colour overload applies the same formula to each channel, a
// float argument standing for all four, so that a colour form can never disagree with the float
// form.
#include <array>
#include <cmath>
#include <utility>

#include "kelFunctions.h"

namespace Zt {

namespace KelShapingOps {

namespace {

constexpr int F = KelValueTypes::Float;
constexpr int C = KelValueTypes::Color;

// min and max as KEL writes them, one comparison each: a NaN falls to the second argument.
float lower(float a, float b) { return b > a ? a : b; }
float upper(float a, float b) { return a > b ? a : b; }

// The largest float below 1.
constexpr float kBelowOne = 0x1.fffffep-1f;

}  // namespace

// Each operation: the formula, then its overloads, one row each: the result's type and the
// parameters' types. The float form comes first; check takes the first row that fits.
// clang-format off

// lower(upper(v, lo), hi): a NaN v gives lo, and with lo > hi every v gives hi.
struct Clamp {
    static float apply(float v, float lo, float hi) { return lower(upper(v, lo), hi); }
    static constexpr int overloads[][4] = {{F, F, F, F}, {C, C, F, F}, {C, C, C, C}};
};
// a * (1 - t) + b * t, which gives a at t = 0 and b at t = 1 exactly.
struct Mix {
    static float apply(float a, float b, float t) { return a * (1.0f - t) + b * t; }
    static constexpr int overloads[][4] = {{F, F, F, F}, {C, C, C, F}, {C, C, C, C}};
};
// The cubic 3s^2 - 2s^3 of s = saturate((v - e0) / (e1 - e0)); equal edges make it step(e0, v),
// where the division has no value. e0 > e1 gives the falling curve.
struct SmoothStep {
    static float apply(float e0, float e1, float v) {
        if (e0 == e1) return v < e0 ? 0.0f : 1.0f;
        const float s = lower(upper((v - e0) / (e1 - e0), 0.0f), 1.0f);
        return s * s * (3.0f - 2.0f * s);
    }
    static constexpr int overloads[][4] = {{F, F, F, F}};
};
// 0 below the edge, 1 from it on; a NaN v is not below it.
struct Step {
    static float apply(float edge, float v) { return v < edge ? 0.0f : 1.0f; }
    static constexpr int overloads[][3] = {{F, F, F}};
};
// v - floor(v), in [0, 1) also for negatives: a tiny negative v would round to 1.0, and gives the
// largest float below 1 instead.
struct Fract {
    static float apply(float v) {
        const float f = v - floorf(v);
        return f == 1.0f ? kBelowOne : f;
    }
    static constexpr int overloads[][2] = {{F, F}, {C, C}};
};
// clamp(v, 0, 1): a NaN gives 0.
struct Saturate {
    static float apply(float v) { return lower(upper(v, 0.0f), 1.0f); }
    static constexpr int overloads[][2] = {{F, F}, {C, C}};
};
// clang-format on

}  // namespace KelShapingOps

namespace {

template <class Op>
constexpr std::size_t arityOf() {
    return std::size(Op::overloads[0]) - 1;
}

// An argument row as floats: a float row steps one float per column and repeats for each
// channel; a colour row steps four floats per column and one per channel.
struct Lane {
    const float* p;
    int perColumn;
    int perChannel;
    float at(int x, int c) const { return p[perColumn * x + perChannel * c]; }
};

Lane laneOf(const KelValuePtr& value) {
    if (value->isType(KelValueTypes::Color))
        return {reinterpret_cast<const float*>(rcStaticCast<KelColor>(value)->getScanline().data()), 4, 1};
    return {rcStaticCast<KelFloat>(value)->getScanline().data(), 1, 0};
}

// Every argument a float row (each overload with a float result takes floats only): contiguous
// rows, one formula per column.
template <class Op, std::size_t N, std::size_t... I>
void floatRows(float* d, const std::array<Lane, N>& a, int lo, int hi, std::index_sequence<I...>) {
    for (int x = lo; x < hi; ++x) d[x] = Op::apply(a[I].p[x]...);
}

// A colour result: the formula per channel, d interleaved like a colour row.
template <class Op, std::size_t N, std::size_t... I>
void colorRows(float* d, const std::array<Lane, N>& a, int lo, int hi, std::index_sequence<I...>) {
    for (int x = lo; x < hi; ++x)
        for (int c = 0; c < 4; ++c) d[4 * x + c] = Op::apply(a[I].at(x, c)...);
}

}  // namespace

template <class Op>
void KelShapingFunction<Op>::declare(FunctionCallNode& node) {
    int k = 0;
    for (const auto& row : Op::overloads) {
        for (std::size_t i = 1; i < std::size(row); ++i) node.addOverloadParameter(row[i], k, 0);
        node.setReturnType(k++, row[0]);
    }
}

template <class Op>
RCShdPtr<KelValue> KelShapingFunction<Op>::eval(const FunctionCallNode& node, KelContext& context) {
    constexpr std::size_t N = arityOf<Op>();
    // Held until the end, so that the result is always another object of the pool.
    std::array<KelValuePtr, N> args;
    std::array<Lane, N> lanes;
    for (std::size_t i = 0; i < N; ++i) {
        args[i] = node.argument(i)->eval(context);
        lanes[i] = laneOf(args[i]);
    }
    const GeInterval<int> columns = kelComputedColumns(context);
    if (node.returnTypes()[std::size_t(node.overload())] == KelValueTypes::Color) {
        KelColorPtr result = context.newColor(0);
        colorRows<Op>(reinterpret_cast<float*>(result->getScanline().data()), lanes, columns.min, columns.max,
                      std::make_index_sequence<N>());
        return result;
    }
    KelFloatPtr result = context.newFloat(0);
    floatRows<Op>(result->getScanline().data(), lanes, columns.min, columns.max, std::make_index_sequence<N>());
    return result;
}

template struct KelShapingFunction<KelShapingOps::Clamp>;
template struct KelShapingFunction<KelShapingOps::Mix>;
template struct KelShapingFunction<KelShapingOps::SmoothStep>;
template struct KelShapingFunction<KelShapingOps::Step>;
template struct KelShapingFunction<KelShapingOps::Fract>;
template struct KelShapingFunction<KelShapingOps::Saturate>;

}  // namespace Zt
