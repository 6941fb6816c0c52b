// The image side of the host: validity, tiles, results, geometry conversions, request manager.
#include "PxImage.h"

#include <atomic>
#include <cmath>

namespace Zt {

PxValidityInterval::PxValidityInterval(double b, int beginKind, double e, int endKind) : begin(b), end(e) {
    if (b == e && beginKind == 0 && endKind == 0) return;
    if (b != kMinTime && b != kMaxTime) {
        if (beginKind == 0) begin = b + kEpsilon;
        else if (beginKind == 2) begin = b - kEpsilon;
    }
    if (e != kMinTime && e != kMaxTime) {
        if (endKind == 0) end = e - kEpsilon;
        else if (endKind == 2) end = e + kEpsilon;
    }
}

IxTile::IxTile(const IxPixelFormat& format, const GeRectangle<int>& rect, const Color& fill)
    : _format(format), _rect(rect), _fill(fill),
      _pixels(rect.isEmpty() ? 0 : std::size_t(rect.width()) * std::size_t(rect.height()), fill) {}

void PxImageResult::reduceVI(PxValidityInterval& vi) const {
    vi.begin = std::max(vi.begin, _validity.begin);
    vi.end = std::min(vi.end, _validity.end);
}

GeRectangle<int> PxImageProtocol::convertTilesToPixels(const GeRectangle<int>& tiles, const PxImageContext& context) {
    return {tiles.xMin * context.tileWidth, tiles.xMax * context.tileWidth, tiles.yMin * context.tileHeight,
            tiles.yMax * context.tileHeight};
}

GeRectangle<int> PxImageProtocol::nominalToPixelized(const GeRectangle<float>& nominal, float aspect, float scale) {
    // host.md: nominal x = px / scale * aspect, y = py / scale; inverted rounding outward.
    auto toPx = [&](float x) { return double(x) * double(scale) / double(aspect); };
    auto toPy = [&](float y) { return double(y) * double(scale); };
    return {int(std::floor(toPx(nominal.xMin))), int(std::ceil(toPx(nominal.xMax))), int(std::floor(toPy(nominal.yMin))),
            int(std::ceil(toPy(nominal.yMax)))};
}

namespace {
std::atomic<bool> gCancelled{false};
}

PxRequestMgr& PxRequestMgr::getInstance() {
    static PxRequestMgr instance;
    return instance;
}
void PxRequestMgr::checkRequest() {
    if (gCancelled.load(std::memory_order_relaxed)) throw ExCancelled("host/PxImage", 0, "Render cancelled");
}
void PxRequestMgr::cancel() { gCancelled.store(true); }
void PxRequestMgr::reset() { gCancelled.store(false); }
bool PxRequestMgr::isCancelled() const { return gCancelled.load(); }

}  // namespace Zt
