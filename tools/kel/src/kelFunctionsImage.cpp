// Image queries (all but `sample`, which is in kelFunctionsSample.cpp). An image value is a row
// of ids; a query reads each column's entry of the context's image table, at all columns, with
// a short way (one `set`) for a uniform value where the quantity allows it.
#include "kelFunctions.h"

namespace Zt {

namespace KelImageQuantities {

// clang-format off
struct Width            { static constexpr bool shortWay = true;  static float of(const KelImageEntry& e) { return e.nominalRect.xMax - e.nominalRect.xMin; } };
struct Height           { static constexpr bool shortWay = true;  static float of(const KelImageEntry& e) { return e.nominalRect.yMax - e.nominalRect.yMin; } };
struct XMin             { static constexpr bool shortWay = true;  static float of(const KelImageEntry& e) { return e.nominalRect.xMin; } };
struct XMax             { static constexpr bool shortWay = true;  static float of(const KelImageEntry& e) { return e.nominalRect.xMax; } };
struct YMin             { static constexpr bool shortWay = true;  static float of(const KelImageEntry& e) { return e.nominalRect.yMin; } };
struct YMax             { static constexpr bool shortWay = true;  static float of(const KelImageEntry& e) { return e.nominalRect.yMax; } };
struct PixelAspectRatio { static constexpr bool shortWay = false; static float of(const KelImageEntry& e) { return e.pixelAspectRatio; } };
// clang-format on

}  // namespace KelImageQuantities

namespace {

// An id is the truncation of the float; nothing compares it with the table's size.
int imageId(float id) { return static_cast<int>(id); }

KelImagePtr evalImage(const FunctionCallNode& node, std::size_t i, KelContext& context) {
    return rcStaticCast<KelImage>(node.argument(i)->eval(context));
}

}  // namespace

template <class Q>
void KelImageQuery<Q>::declare(FunctionCallNode& node) {
    kelDeclareOverload(node, 0, KelValueTypes::Float, {KelValueTypes::Image});
}

// The mask plays no part. The result is never flagged uniform, even by the short way.
template <class Q>
RCShdPtr<KelValue> KelImageQuery<Q>::eval(const FunctionCallNode& node, KelContext& context) {
    KelImagePtr image = evalImage(node, 0, context);
    KelFloatPtr result = context.newFloat(0);
    IxScanline<float>& out = result->getScanline();
    const IxScanline<float>& ids = image->getScanline();
    if (out.minimum() >= out.maximum()) return result;
    if (Q::shortWay && image->isUniform()) {
        IxScanlineUtil::set(out, Q::of(context.getImage(imageId(ids.data()[ids.minimum()]))), nullptr);
        return result;
    }
    float* d = out.data();
    const float* id = ids.data();
    for (int x = out.minimum(); x < out.maximum(); ++x) d[x] = Q::of(context.getImage(imageId(id[x])));
    return result;
}

template struct KelImageQuery<KelImageQuantities::Width>;
template struct KelImageQuery<KelImageQuantities::Height>;
template struct KelImageQuery<KelImageQuantities::XMin>;
template struct KelImageQuery<KelImageQuantities::XMax>;
template struct KelImageQuery<KelImageQuantities::YMin>;
template struct KelImageQuery<KelImageQuantities::YMax>;
template struct KelImageQuery<KelImageQuantities::PixelAspectRatio>;

void FunctionGetOutputImage::declare(FunctionCallNode& node) { kelDeclareOverload(node, 0, KelValueTypes::Image, {}); }

// A fresh value at each call; id 1 is the output image.
RCShdPtr<KelValue> FunctionGetOutputImage::eval(const FunctionCallNode& node, KelContext& context) {
    return context.newImage(1.0f, 0);
}

void FunctionIsSame::declare(FunctionCallNode& node) {
    kelDeclareOverload(node, 0, KelValueTypes::Float, {KelValueTypes::Image, KelValueTypes::Image});
}

// The floats are compared, not the truncated ids; all columns, active or not.
RCShdPtr<KelValue> FunctionIsSame::eval(const FunctionCallNode& node, KelContext& context) {
    KelImagePtr first = evalImage(node, 0, context);
    KelImagePtr second = evalImage(node, 1, context);
    KelFloatPtr result = context.newFloat(0);
    IxScanline<float>& out = result->getScanline();
    float* d = out.data();
    const float* a = first->getScanline().data();
    const float* b = second->getScanline().data();
    for (int x = out.minimum(); x < out.maximum(); ++x) d[x] = a[x] == b[x] ? 1.0f : 0.0f;
    return result;
}

}  // namespace Zt
