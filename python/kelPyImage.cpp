#include "kelPyImage.h"

#include <algorithm>

namespace Zt::KelPython {

ArrayImage::ArrayImage(RgbaArray rgba)
    : _array(std::move(rgba)), _top(reinterpret_cast<const Color*>(_array.data())), _width(int(_array.shape(1))),
      _height(int(_array.shape(0))) {}

ArrayImage::~ArrayImage() {
    const py::gil_scoped_acquire held;
    _array.release().dec_ref();
}

PxImageFormat ArrayImage::getFormat() const { return PxImageFormat{}; }

PxRODResult ArrayImage::getROD(const PxImageContext&) const {
    return {PxValidityInterval::getFull(), GeRectangle<float>(0.0f, float(_width), 0.0f, float(_height))};
}

const PxMemoryImage& ArrayImage::bottomUpCopy() const {
    std::call_once(_copied, [this] {
        std::vector<Color> pixels;
        pixels.reserve(std::size_t(_width) * std::size_t(_height));
        for (int y = 0; y < _height; ++y) pixels.insert(pixels.end(), row(y), row(y) + _width);
        _copy = PxNodePtr<PxMemoryImage>(new PxMemoryImage(_width, _height, std::move(pixels)));
    });
    return *_copy;
}

PxImageResult ArrayImage::getImage(const PxImageContext& context) const {
    if (context.scaleLevel != 0) return bottomUpCopy().getImage(context);
    const GeRectangle<int> rect = convertTilesToPixels(
        GeRectangle<int>(context.tileX, context.tileX + 1, context.tileY, context.tileY + 1), context);
    const IxPixelFormat format;
    if (!rect.isEmpty() && rect.xMin >= 0 && rect.xMax <= _width && rect.yMin >= 0 && rect.yMax <= _height)
        return PxImageResult(RCShdPtr<IxTile>(new IxTile(format, rect, Color::ZERO, row(rect.yMin) + rect.xMin,
                                                         -std::ptrdiff_t(_width), RCShdPtr<const RCBase<LkCounter<int>>>(this))),
                             PxValidityInterval::getFull());
    RCShdPtr<IxTile> tile(new IxTile(format, rect, Color::ZERO));
    const int x0 = std::max(rect.xMin, 0), x1 = std::min(rect.xMax, _width);
    for (int y = std::max(rect.yMin, 0); x0 < x1 && y < std::min(rect.yMax, _height); ++y)
        std::copy(row(y) + x0, row(y) + x1, tile->row(y) + (x0 - rect.xMin));
    return PxImageResult(tile, PxValidityInterval::getFull());
}

}  // namespace Zt::KelPython
