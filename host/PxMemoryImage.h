// PxMemoryImage: an image node of the processing graph that holds its pixels in memory (the
// host's file inputs, tests, benchmarks). A still: full-resolution RGBA float pixels, bottom
// row first (rows grow upwards), a pixel aspect of two integers, fill colour transparent black and, unless
// told otherwise, the full validity interval.
//
// Geometry: the image covers pixels (0, W, 0, H) at full resolution and the nominal
// rectangle (0, W*a, 0, H). At scaleLevel L (scale s = 1/2^L) it covers
// nominalToPixelized((0, W*a, 0, H), a, s) = (0, ceil(W*s), 0, ceil(H*s)).
//
// Downsampling: pixel (i, j) at level L is the box filter of the 2^L x 2^L full-resolution
// pixels that it covers, pixels outside the image counting as the fill colour. So an edge pixel
// that is only partly covered comes out partly transparent, as coverage does in premultiplied
// compositing; inside the image the result is the plain mean.
#pragma once

#include <vector>

#include "PxImage.h"

namespace Zt {

class PxMemoryImage : public PxImageProtocol {
public:
    // `pixels` holds width * height colours, row 0 (the bottom row) first.
    PxMemoryImage(int width, int height, std::vector<Color> pixels, const IxPixelFormat& format = IxPixelFormat{},
                  const PxValidityInterval& validity = PxValidityInterval::getFull());

    PxImageFormat getFormat() const override;
    // The nominal rectangle (0, W*a, 0, H) with the image's validity, whatever the context.
    PxRODResult getROD(const PxImageContext& context) const override;
    // A tile over exactly the pixel rectangle of the context's tile (tileX, tileY) at the
    // context's scale; pixels outside the image hold the fill colour. A tile at full resolution
    // that lies inside the image lends the image's rows (read only) instead of copying them.
    PxImageResult getImage(const PxImageContext& context) const override;

    int width() const { return _width; }
    int height() const { return _height; }
    // Full resolution, (0, 0) the bottom-left pixel.
    const Color& pixel(int x, int y) const {
        return _pixels->colors[std::size_t(y) * std::size_t(_width) + std::size_t(x)];
    }
    // The pixel rectangle at `scaleLevel`.
    GeRectangle<int> pixelRect(int scaleLevel) const;
    // Pixel (x, y) at `scaleLevel`, the fill colour outside pixelRect(scaleLevel).
    Color pixelAt(int x, int y, int scaleLevel) const;

private:
    // Counted on its own, so that a tile lent from it (getImage at full resolution) keeps the
    // pixels alive whatever becomes of the node.
    struct Pixels : RCBase<LkCounter<int>> {
        std::vector<Color> colors;
    };

    int _width;
    int _height;
    RCShdPtr<Pixels> _pixels;
    IxPixelFormat _format;
    PxValidityInterval _validity;
};

}  // namespace Zt
