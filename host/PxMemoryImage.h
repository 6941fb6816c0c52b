// PxMemoryImage: an image node of the processing graph that holds its pixels in memory (the
// host's file inputs, tests, benchmarks). A still: full-resolution RGBA float pixels, bottom
// row first (rows grow upwards), a pixel aspect of two integers, fill colour transparent black and, unless
// told otherwise, the full validity interval.
//
// Geometry: the image covers a pixel rectangle (X0, X1, Y0, Y1) at full resolution,
// (0, W, 0, H) unless told otherwise, and the nominal rectangle (X0*a, X1*a, Y0, Y1). A file's
// data window that does not start at its display window's corner keeps its place this way. At
// scaleLevel L (scale s = 1/2^L) it covers nominalToPixelized of that rectangle, which is
// (floor(X0*s), ceil(X1*s), floor(Y0*s), ceil(Y1*s)).
//
// Downsampling: pixel (i, j) at level L is the box filter of the 2^L x 2^L full-resolution
// pixels that it covers, pixels outside the image counting as the fill colour. So an edge pixel
// that is only partly covered comes out partly transparent, as coverage does in premultiplied
// compositing; inside the image the result is the plain mean.
#pragma once

#include <vector>

#include "IxTileStorage.h"
#include "PxImage.h"

namespace Zt {

class PxMemoryImage : public PxImageProtocol {
public:
    // `pixels` holds width * height colours, row 0 (the bottom row) first.
    PxMemoryImage(int width, int height, std::vector<Color> pixels, const IxPixelFormat& format = IxPixelFormat{},
                  const PxValidityInterval& validity = PxValidityInterval::getFull());
    // The pixels of `rect`, row rect.yMin first, in a buffer of IxTileStorage (at least
    // rect.width() * rect.height() colours, all written); the buffer goes back to the storage
    // with the last tile lent from it. File inputs read straight into such a buffer.
    PxMemoryImage(const GeRectangle<int>& rect, IxTileStorage::Buffer pixels, std::size_t capacity,
                  const IxPixelFormat& format = IxPixelFormat{},
                  const PxValidityInterval& validity = PxValidityInterval::getFull());

    PxImageFormat getFormat() const override;
    // The nominal rectangle (X0*a, X1*a, Y0, Y1) with the image's validity, whatever the context.
    PxRODResult getROD(const PxImageContext& context) const override;
    // A tile over exactly the pixel rectangle of the context's tile (tileX, tileY) at the
    // context's scale; pixels outside the image hold the fill colour. A tile at full resolution
    // that lies inside the image lends the image's rows (read only) instead of copying them.
    PxImageResult getImage(const PxImageContext& context) const override;

    int width() const { return _rect.width(); }
    int height() const { return _rect.height(); }
    // The pixel rectangle at full resolution.
    const GeRectangle<int>& rect() const { return _rect; }
    // Full resolution, inside rect(); (X0, Y0) the bottom-left pixel.
    const Color& pixel(int x, int y) const {
        return _pixels->data[std::size_t(y - _rect.yMin) * std::size_t(_rect.width()) + std::size_t(x - _rect.xMin)];
    }
    // The pixel rectangle at `scaleLevel`.
    GeRectangle<int> pixelRect(int scaleLevel) const;
    // Pixel (x, y) at `scaleLevel`, the fill colour outside pixelRect(scaleLevel).
    Color pixelAt(int x, int y, int scaleLevel) const;

private:
    // Counted on its own, so that a tile lent from it (getImage at full resolution) keeps the
    // pixels alive whatever becomes of the node.
    struct Pixels : RCBase<LkCounter<int>> {
        ~Pixels() override { IxTileStorage::release(std::move(buffer), capacity); }
        std::vector<Color> colors;
        IxTileStorage::Buffer buffer;
        std::size_t capacity = 0;
        const Color* data = nullptr;  // colors' or buffer's
    };

    GeRectangle<int> _rect;
    RCShdPtr<Pixels> _pixels;
    IxPixelFormat _format;
    PxValidityInterval _validity;
};

}  // namespace Zt
