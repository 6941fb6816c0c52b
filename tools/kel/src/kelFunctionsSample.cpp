// `sample` and its edge forms. Overload 0 reads an image through its sampler at given
// coordinates, for the active columns; overload 1 copies the current pixel from the image's row,
// and is the node that the implicit wrap (wrapInSample) builds wherever an image stands for a
// colour. `sampleClamp`, `sampleWrap` and `sampleMirror` read at coordinates like overload 0,
// through the image's sampler of their edge mode, which the tile made for them.
#include "kelFunctions.h"

namespace Zt {

namespace {

// One constant object of the library, built by setIdentity when the library loads.
const GeLinearMatrix2<double> kIdentity = [] {
    GeLinearMatrix2<double> m;
    m.setIdentity();
    return m;
}();

const Zt::Color kOpaqueBlack{0.0f, 0.0f, 0.0f, 1.0f};

int imageId(float id) { return static_cast<int>(id); }

// Overload 0: inactive columns aren't written; an entry without sampler gives opaque black.
RCShdPtr<KelValue> sampleAtCoordinates(const FunctionCallNode& node, KelContext& context, KelEdgeMode edge) {
    KelImagePtr image = rcStaticCast<KelImage>(node.argument(0)->eval(context));
    KelFloatPtr xs = rcStaticCast<KelFloat>(node.argument(1)->eval(context));
    KelFloatPtr ys = rcStaticCast<KelFloat>(node.argument(2)->eval(context));
    KelColorPtr result = context.newColor(0);
    IxScanline<Zt::Color>& out = result->getScanline();
    const KelMask& mask = context.getMask();
    const float* ids = image->getScanline().data();
    if (image->isUniform() && out.minimum() < out.maximum()) {
        // One image for the whole row: its sampler takes the row at once.
        const KelImageEntry& entry = context.getImage(imageId(ids[out.minimum()]));
        const IxScanline<float>* active = mask.activeScanline();
        if (const auto& sampler = entry.samplerFor(edge)) {
            sampler->sampleRow(out.data(), xs->getScanline().data(), ys->getScanline().data(),
                               active ? active->data() : nullptr, out.minimum(), out.maximum());
        } else {
            for (int x = out.minimum(); x < out.maximum(); ++x)
                if (!active || active->data()[x] != 0.0f) out.data()[x] = kOpaqueBlack;
        }
        return result;
    }
    for (int x = out.minimum(); x < out.maximum(); ++x) {
        if (mask.isActive(x) == 0.0f) continue;
        const auto& sampler = context.getImage(imageId(ids[x])).samplerFor(edge);
        if (!sampler) {
            out.data()[x] = kOpaqueBlack;
            continue;
        }
        const double coords[2] = {double(xs->getScanline().data()[x]), double(ys->getScanline().data()[x])};
        sampler->sampleAt(out.data()[x], coords, kIdentity);
    }
    return result;
}

// Overload 1: all columns. A uniform image value is its entry's row itself, lent to the result
// (a temporary, which nothing writes) instead of copied.
RCShdPtr<KelValue> sampleCurrentPixel(const FunctionCallNode& node, KelContext& context) {
    KelImagePtr image = rcStaticCast<KelImage>(node.argument(0)->eval(context));
    KelColorPtr result = context.newColor(0);
    IxScanline<Zt::Color>& out = result->getScanline();
    if (out.minimum() >= out.maximum()) return result;
    const float* ids = image->getScanline().data();
    if (image->isUniform()) {
        out.lend(context.getImage(imageId(ids[out.minimum()])).scanline->begin());
        return result;
    }
    for (int x = out.minimum(); x < out.maximum(); ++x) out.data()[x] = context.getImage(imageId(ids[x])).scanline->data()[x];
    return result;
}

}  // namespace

namespace {

// Sampling of one image at coordinates, over the call's columns; inactive columns are not
// written. An entry without sampler gives opaque black. Add: the samples are added to the
// result row's colours (`sum += sample(...)`) instead.
template <bool Add>
void sampleRows(const KelRowCall& call) {
    Zt::Color* out = static_cast<IxScanline<Zt::Color>*>(call.result)->data();
    const float* active = call.active ? call.active->data() : nullptr;
    const float* xs = static_cast<const IxScanline<float>*>(call.arguments[0])->data();
    const float* ys = static_cast<const IxScanline<float>*>(call.arguments[1])->data();
    if (const auto& sampler = call.image->sampler) {
        if constexpr (Add) sampler->addRow(out, xs, ys, active, call.columns.min, call.columns.max);
        else sampler->sampleRow(out, xs, ys, active, call.columns.min, call.columns.max);
        return;
    }
    for (int x = call.columns.min; x < call.columns.max; ++x)
        if (!active || active[x] != 0.0f) out[x] = Add ? out[x] + kOpaqueBlack : kOpaqueBlack;
}

}  // namespace

void FunctionSample::rows(const KelRowCall& call) { sampleRows<false>(call); }
void FunctionSample::addRows(const KelRowCall& call) { sampleRows<true>(call); }

int FunctionSample::compile(const FunctionCallNode& node, KelProgramBuilder& program) {
    const int image = node.argument(0)->compile(program);
    if (image < 0) return KelProgramBuilder::kFails;
    if (node.overload() == 1) return program.currentPixel(image);
    const int xs = node.argument(1)->compile(program);
    const int ys = xs < 0 ? xs : node.argument(2)->compile(program);
    if (ys < 0) return KelProgramBuilder::kFails;
    return program.call(&rows, KelValueTypes::Color, {xs, ys}, image, &addRows);
}

// (image, float, float) and (image), both colour; the wrap finds the second.
void FunctionSample::declare(FunctionCallNode& node) {
    kelDeclareOverload(node, 0, KelValueTypes::Color, {KelValueTypes::Image, KelValueTypes::Float, KelValueTypes::Float});
    kelDeclareOverload(node, 1, KelValueTypes::Color, {KelValueTypes::Image});
}

RCShdPtr<KelValue> FunctionSample::eval(const FunctionCallNode& node, KelContext& context) {
    return node.overload() == 0 ? sampleAtCoordinates(node, context, KelEdgeMode::Transparent)
                                : sampleCurrentPixel(node, context);
}

template <KelEdgeMode Edge>
void KelEdgeSample<Edge>::declare(FunctionCallNode& node) {
    kelDeclareOverload(node, 0, KelValueTypes::Color, {KelValueTypes::Image, KelValueTypes::Float, KelValueTypes::Float});
}

template <KelEdgeMode Edge>
RCShdPtr<KelValue> KelEdgeSample<Edge>::eval(const FunctionCallNode& node, KelContext& context) {
    return sampleAtCoordinates(node, context, Edge);
}

template struct KelEdgeSample<KelEdgeMode::Clamp>;
template struct KelEdgeSample<KelEdgeMode::Wrap>;
template struct KelEdgeSample<KelEdgeMode::Mirror>;

}  // namespace Zt
