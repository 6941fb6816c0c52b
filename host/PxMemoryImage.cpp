// The in-memory image node; geometry and downsampling are told in PxMemoryImage.h.
#include "PxMemoryImage.h"

#include <algorithm>
#include <string>

namespace Zt {

namespace {

void checkLevel(int scaleLevel) {
    // 1 << 30 is the last shift that stays an int.
    if (scaleLevel < 0 || scaleLevel > 30)
        Assertions::throwAssertionFailed("host/PxMemoryImage", __LINE__, "scaleLevel >= 0 && scaleLevel <= 30");
}

}  // namespace

PxMemoryImage::PxMemoryImage(int width, int height, std::vector<Color> pixels, const IxPixelFormat& format,
                             const PxValidityInterval& validity)
    : _rect(0, std::max(width, 0), 0, std::max(height, 0)), _pixels(new Pixels), _format(format), _validity(validity) {
    _pixels->colors = std::move(pixels);
    _pixels->data = _pixels->colors.data();
    if (_pixels->colors.size() != std::size_t(_rect.width()) * std::size_t(_rect.height()))
        Assertions::throwAssertionFailed("host/PxMemoryImage", __LINE__, "pixels.size() == width * height");
}

PxMemoryImage::PxMemoryImage(const GeRectangle<int>& rect, IxTileStorage::Buffer pixels, std::size_t capacity,
                             const IxPixelFormat& format, const PxValidityInterval& validity)
    : _rect(rect.isEmpty() ? GeRectangle<int>(rect.xMin, rect.xMin, rect.yMin, rect.yMin) : rect), _pixels(new Pixels),
      _format(format), _validity(validity) {
    _pixels->buffer = std::move(pixels);
    _pixels->capacity = capacity;
    _pixels->data = _pixels->buffer.get();
    if (capacity < std::size_t(_rect.width()) * std::size_t(_rect.height()))
        Assertions::throwAssertionFailed("host/PxMemoryImage", __LINE__, "capacity >= width * height");
}

PxImageFormat PxMemoryImage::getFormat() const {
    PxImageFormat f;
    f.aspectNum = _format.aspectNum;
    f.aspectDen = _format.aspectDen;
    return f;
}

PxRODResult PxMemoryImage::getROD(const PxImageContext&) const {
    const float a = _format.aspect();
    return {_validity, GeRectangle<float>(float(_rect.xMin) * a, float(_rect.xMax) * a, float(_rect.yMin), float(_rect.yMax))};
}

GeRectangle<int> PxMemoryImage::pixelRect(int scaleLevel) const {
    checkLevel(scaleLevel);
    const int f = 1 << scaleLevel;
    // floor and ceil of the corners over f without the float round trip of nominalToPixelized;
    // the two agree (tested).
    return {floorDiv(_rect.xMin, f), -floorDiv(-_rect.xMax, f), floorDiv(_rect.yMin, f), -floorDiv(-_rect.yMax, f)};
}

Color PxMemoryImage::pixelAt(int x, int y, int scaleLevel) const {
    const GeRectangle<int> r = pixelRect(scaleLevel);
    if (x < r.xMin || x >= r.xMax || y < r.yMin || y >= r.yMax) return Color::ZERO;
    if (scaleLevel == 0) return pixel(x, y);
    const int f = 1 << scaleLevel;
    const int fx0 = std::max(x * f, _rect.xMin), fx1 = std::min(x * f + f, _rect.xMax);
    const int fy0 = std::max(y * f, _rect.yMin), fy1 = std::min(y * f + f, _rect.yMax);
    double sum[4] = {0, 0, 0, 0};
    for (int fy = fy0; fy < fy1; ++fy) {
        const Color* row = fx0 < fx1 ? &pixel(fx0, fy) : nullptr;
        for (int fx = fx0; fx < fx1; ++fx)
            for (int c = 0; c < 4; ++c) sum[c] += row[fx - fx0][c];
    }
    // The uncovered part of the footprint is the fill colour, transparent black: it adds nothing.
    const double n = double(f) * double(f);
    return Color(float(sum[0] / n), float(sum[1] / n), float(sum[2] / n), float(sum[3] / n));
}

PxImageResult PxMemoryImage::getImage(const PxImageContext& context) const {
    checkLevel(context.scaleLevel);
    const GeRectangle<int> rect = convertTilesToPixels(
        GeRectangle<int>(context.tileX, context.tileX + 1, context.tileY, context.tileY + 1), context);
    const GeRectangle<int> image = pixelRect(context.scaleLevel);
    if (context.scaleLevel == 0 && !rect.isEmpty() && rect.xMin >= image.xMin && rect.xMax <= image.xMax &&
        rect.yMin >= image.yMin && rect.yMax <= image.yMax) {
        return PxImageResult(RCShdPtr<IxTile>(new IxTile(_format, rect, Color::ZERO, &pixel(rect.xMin, rect.yMin), _rect.width(),
                                                         RCShdPtr<const RCBase<LkCounter<int>>>(_pixels.get()))),
                             _validity);
    }
    RCShdPtr<IxTile> tile(new IxTile(_format, rect, Color::ZERO));
    const int x0 = std::max(rect.xMin, image.xMin), x1 = std::min(rect.xMax, image.xMax);
    const int y0 = std::max(rect.yMin, image.yMin), y1 = std::min(rect.yMax, image.yMax);
    for (int y = y0; x0 < x1 && y < y1; ++y) {
        Color* out = tile->row(y) - rect.xMin;
        if (context.scaleLevel == 0) {
            std::copy(&pixel(x0, y), &pixel(x0, y) + (x1 - x0), out + x0);
        } else {
            for (int x = x0; x < x1; ++x) out[x] = pixelAt(x, y, context.scaleLevel);
        }
    }
    return PxImageResult(tile, _validity);
}

}  // namespace Zt
