// The image side of the host: validity, tiles, results, geometry conversions, request manager.
#include "PxImage.h"

#include <algorithm>
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
    : _format(format), _rect(rect), _fill(fill) {
    const std::size_t count = rect.isEmpty() ? 0 : std::size_t(rect.width()) * std::size_t(rect.height());
    _storage = IxTileStorage::acquire(count, _capacity);
    std::fill(_storage.get(), _storage.get() + count, fill);
    _rows = _storage.get();
    _stride = rect.isEmpty() ? 0 : rect.width();
}

IxTile::IxTile(const IxPixelFormat& format, const GeRectangle<int>& rect, const Color& fill, const Color* rows,
               std::ptrdiff_t stride, RCShdPtr<const RCBase<LkCounter<int>>> owner)
    : _format(format), _rect(rect), _fill(fill), _rows(rows), _stride(stride), _owner(std::move(owner)) {
    if (!_owner) Assertions::throwAssertionFailed("host/PxImage", __LINE__, "owner");
}

IxTile::IxTile(const IxPixelFormat& format, const GeRectangle<int>& rect, const Color& fill,
               const PxTileDestination* destination)
    : _format(format), _rect(rect), _fill(fill) {
    if (!rect.isEmpty() && destination && destination->holds(rect)) {
        _rows = destination->at(rect.xMin, rect.yMin);
        _stride = destination->stride;
        return;
    }
    const std::size_t count = rect.isEmpty() ? 0 : std::size_t(rect.width()) * std::size_t(rect.height());
    _storage = IxTileStorage::acquire(count, _capacity);
    _rows = _storage.get();
    _stride = rect.isEmpty() ? 0 : rect.width();
}

IxTile::~IxTile() { IxTileStorage::release(std::move(_storage), _capacity); }

void PxImageResult::reduceVI(PxValidityInterval& vi) const {
    vi.begin = std::max(vi.begin, _validity.begin);
    vi.end = std::min(vi.end, _validity.end);
}

GeRectangle<int> PxImageProtocol::convertTilesToPixels(const GeRectangle<int>& tiles, const PxImageContext& context) {
    return {tiles.xMin * context.tileWidth, tiles.xMax * context.tileWidth, tiles.yMin * context.tileHeight,
            tiles.yMax * context.tileHeight};
}

namespace {

// Outward rounding that forgives the float round trip: W * a / a may come back a hair above W,
// and must not grow the rectangle by a pixel. Within a relative 1e-6 an integer is taken as is.
// Clamped so that the conversion to int is defined for any input, NaN giving 0.
int roundOutward(double v, bool up) {
    constexpr double kLimit = 1073741824.0;  // 2^30
    if (std::isnan(v)) return 0;
    v = std::min(std::max(v, -kLimit), kLimit);
    const double nearest = std::round(v);
    if (std::abs(v - nearest) <= 1e-6 * std::max(1.0, std::abs(v))) return int(nearest);
    return int(up ? std::ceil(v) : std::floor(v));
}

}  // namespace

GeRectangle<int> PxImageProtocol::nominalToPixelized(const GeRectangle<float>& nominal, float aspect, float scale) {
    // Nominal x = px / scale * aspect, y = py / scale; inverted, rounded outward.
    const double sx = double(scale) / double(aspect), sy = double(scale);
    return {roundOutward(nominal.xMin * sx, false), roundOutward(nominal.xMax * sx, true),
            roundOutward(nominal.yMin * sy, false), roundOutward(nominal.yMax * sy, true)};
}

namespace {
std::atomic<bool> gCancelled{false};
std::atomic<bool> gBudgeted{false};
std::atomic<long long> gBudget{0};
}  // namespace

PxRequestMgr& PxRequestMgr::getInstance() {
    static PxRequestMgr instance;
    return instance;
}
void PxRequestMgr::checkRequest() {
    if (gCancelled.load(std::memory_order_relaxed)) throw ExCancelled("host/PxImage", __LINE__, "Render cancelled");
    if (gBudgeted.load(std::memory_order_relaxed) && gBudget.fetch_sub(1, std::memory_order_relaxed) <= 0)
        throw ExCancelled("host/PxImage", __LINE__, "Render cancelled: check budget spent");
}
void PxRequestMgr::cancel() { gCancelled.store(true); }
void PxRequestMgr::reset() { gCancelled.store(false); }
bool PxRequestMgr::isCancelled() const { return gCancelled.load(); }
void PxRequestMgr::setCheckBudget(long long checks) {
    gBudget.store(checks);
    gBudgeted.store(checks >= 0);
}

}  // namespace Zt
