// Colour and channel functions. The readers and setters go through the host's
// whole-row channel operations (extractChannel, replaceChannelIf); `color`, `dot`, `luminance`
// and `length` are plain loops over the raw rows.
#include <cmath>

#include "kelFunctions.h"

#if defined(__SSE2__)
#include <xmmintrin.h>
#endif

namespace Zt {

namespace {

KelColorPtr evalColor(const FunctionCallNode& node, std::size_t i, KelContext& context) {
    return rcStaticCast<KelColor>(node.argument(i)->eval(context));
}

KelFloatPtr evalFloat(const FunctionCallNode& node, std::size_t i, KelContext& context) {
    return rcStaticCast<KelFloat>(node.argument(i)->eval(context));
}

float dot4(const Color& p, const Color& q) { return p.r * q.r + p.g * q.g + p.b * q.b + p.a * q.a; }

// d[x] = (r[x], g[x], b[x], a[x]) for x in [lo, hi). Four columns at a time by a 4x4 transpose
// (issue 8: the per-column loop was an eighth of E2); only moves, so the same bits.
void interleave(Color* d, const float* r, const float* g, const float* b, const float* a, int lo, int hi) {
    int x = lo;
#if defined(__SSE2__)
    for (; x + 4 <= hi; x += 4) {
        __m128 c0 = _mm_loadu_ps(r + x), c1 = _mm_loadu_ps(g + x), c2 = _mm_loadu_ps(b + x), c3 = _mm_loadu_ps(a + x);
        _MM_TRANSPOSE4_PS(c0, c1, c2, c3);
        float* out = &d[x].r;
        _mm_storeu_ps(out, c0);
        _mm_storeu_ps(out + 4, c1);
        _mm_storeu_ps(out + 8, c2);
        _mm_storeu_ps(out + 12, c3);
    }
#endif
    for (; x < hi; ++x) d[x] = Color(r[x], g[x], b[x], a[x]);
}

}  // namespace

template <int Channel>
void KelChannelReader<Channel>::declare(FunctionCallNode& node) {
    kelDeclareOverload(node, 0, KelValueTypes::Float, {KelValueTypes::Color});
}

// All columns are written, active or not.
template <int Channel>
void KelChannelReader<Channel>::rows(const KelRowCall& call) {
    IxScanlineUtil::extractChannel(*static_cast<IxScanline<float>*>(call.result), Channel,
                                   *static_cast<const IxScanline<Color>*>(call.arguments[0]), IxScanlineUtilTypes::NoInvert,
                                   &call.columns);
}

template <int Channel>
RCShdPtr<KelValue> KelChannelReader<Channel>::eval(const FunctionCallNode& node, KelContext& context) {
    KelColorPtr colour = evalColor(node, 0, context);
    KelFloatPtr result = context.newFloat(0);
    KelRowCall call;
    call.result = &result->getScanline();
    call.arguments[0] = &colour->getScanline();
    call.columns = context.getInterval();
    rows(call);
    return result;
}

template <int Channel>
int KelChannelReader<Channel>::compile(const FunctionCallNode& node, KelProgramBuilder& program) {
    if (node.argumentCount() != 1) return KelProgramBuilder::kFails;
    return program.channel(node.argument(0)->compile(program), Channel);
}

template <int Channel>
void KelChannelSetter<Channel>::declare(FunctionCallNode& node) {
    kelDeclareOverload(node, 0, KelValueTypes::Void, {KelValueTypes::Color, KelValueTypes::Float}, 0);
}

// The first argument is the variable's own value object: it changes in place at the active
// columns, and its `_uniform` flag is left as it was.
template <int Channel>
RCShdPtr<KelValue> KelChannelSetter<Channel>::eval(const FunctionCallNode& node, KelContext& context) {
    KelColorPtr target = evalColor(node, 0, context);
    KelFloatPtr value = evalFloat(node, 1, context);
    IxScanlineUtil::replaceChannelIf(target->getScanline(), value->getScanline(), context.getMask().activeScanline(),
                                     Channel, nullptr);
    return nullptr;
}

template struct KelChannelReader<0>;
template struct KelChannelReader<1>;
template struct KelChannelReader<2>;
template struct KelChannelReader<3>;
template struct KelChannelSetter<0>;
template struct KelChannelSetter<1>;
template struct KelChannelSetter<2>;
template struct KelChannelSetter<3>;

void FunctionNewColor::declare(FunctionCallNode& node) {
    kelDeclareOverload(node, 0, KelValueTypes::Color,
                       {KelValueTypes::Float, KelValueTypes::Float, KelValueTypes::Float, KelValueTypes::Float});
}

// All columns, active or not.
void FunctionNewColor::rows(const KelRowCall& call) {
    auto channel = [&](int i) { return static_cast<const IxScanline<float>*>(call.arguments[i])->data(); };
    interleave(static_cast<IxScanline<Color>*>(call.result)->data(), channel(0), channel(1), channel(2), channel(3),
               call.columns.min, call.columns.max);
}

RCShdPtr<KelValue> FunctionNewColor::eval(const FunctionCallNode& node, KelContext& context) {
    KelFloatPtr channels[4];
    KelRowCall call;
    for (int i = 0; i < 4; ++i) {
        channels[i] = evalFloat(node, std::size_t(i), context);
        call.arguments[i] = &channels[i]->getScanline();
    }
    KelColorPtr result = context.newColor(0);
    call.result = &result->getScanline();
    call.columns = context.getInterval();
    rows(call);
    return result;
}

int FunctionNewColor::compile(const FunctionCallNode& node, KelProgramBuilder& program) {
    return kelCompileCall(node, program, &rows, KelValueTypes::Color);
}

void FunctionDot::declare(FunctionCallNode& node) {
    kelDeclareOverload(node, 0, KelValueTypes::Float, {KelValueTypes::Color, KelValueTypes::Color});
}

// At the active columns.
void FunctionDot::rows(const KelRowCall& call) {
    float* d = static_cast<IxScanline<float>*>(call.result)->data();
    const Color* p = static_cast<const IxScanline<Color>*>(call.arguments[0])->data();
    const Color* q = static_cast<const IxScanline<Color>*>(call.arguments[1])->data();
    if (!call.active) {
        for (int x = call.columns.min; x < call.columns.max; ++x) d[x] = dot4(p[x], q[x]);
    } else {
        const float* m = call.active->data();
        for (int x = call.columns.min; x < call.columns.max; ++x)
            if (m[x] != 0.0f) d[x] = dot4(p[x], q[x]);
    }
}

// From newConstantFloat(0.0, 0), so that inactive columns hold 0.0; the result keeps the
// uniform flag although it varies, which nothing reads for a float.
RCShdPtr<KelValue> FunctionDot::eval(const FunctionCallNode& node, KelContext& context) {
    KelColorPtr left = evalColor(node, 0, context);
    KelColorPtr right = evalColor(node, 1, context);
    KelFloatPtr result = context.newConstantFloat(0.0f, 0);
    KelRowCall call;
    call.result = &result->getScanline();
    call.arguments[0] = &left->getScanline();
    call.arguments[1] = &right->getScanline();
    call.active = context.getMask().activeScanline();
    call.columns = context.getInterval();
    rows(call);
    return result;
}

int FunctionDot::compile(const FunctionCallNode& node, KelProgramBuilder& program) {
    return kelCompileCall(node, program, &rows, KelValueTypes::Float);
}


// ---- Measures of a colour's red, green and blue ------------------------------------------------

namespace KelColorMeasures {
// Rec. 709 luminance: alpha plays no part.
struct Luminance {
    static float apply(const Color& c) { return 0.2126f * c.r + 0.7152f * c.g + 0.0722f * c.b; }
};
// The plain formula, like hypot: it overflows for very large channels.
struct Length {
    static float apply(const Color& c) { return sqrtf(c.r * c.r + c.g * c.g + c.b * c.b); }
};
}  // namespace KelColorMeasures

template <class Q>
void KelColorMeasure<Q>::declare(FunctionCallNode& node) {
    kelDeclareOverload(node, 0, KelValueTypes::Float, {KelValueTypes::Color});
}

// Over the active span, like the operators.
template <class Q>
RCShdPtr<KelValue> KelColorMeasure<Q>::eval(const FunctionCallNode& node, KelContext& context) {
    KelColorPtr colour = evalColor(node, 0, context);
    KelFloatPtr result = context.newFloat(0);
    const GeInterval<int> columns = kelComputedColumns(context);
    float* d = result->getScanline().data();
    const Color* p = colour->getScanline().data();
    for (int x = columns.min; x < columns.max; ++x) d[x] = Q::apply(p[x]);
    return result;
}

template struct KelColorMeasure<KelColorMeasures::Luminance>;
template struct KelColorMeasure<KelColorMeasures::Length>;

}  // namespace Zt
