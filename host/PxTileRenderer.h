// The host's render loop: asks an image node for
// every tile of a pixel rectangle, in parallel on a oneTBB arena, and assembles the tiles into one
// image, narrowing the validity interval by every tile's. Cancellation is the request manager's:
// PxRequestMgr::cancel() makes checkRequest throw ExCancelled in the workers, and render
// rethrows it. The first exception of any tile ends the render and is rethrown.
#pragma once

#include <functional>
#include <vector>

#include "PxImage.h"

namespace Zt {

struct PxRenderedImage {
    GeRectangle<int> rect;      // pixels, at the context's scale
    std::vector<Color> pixels;  // rect.width() * rect.height(), bottom row first
    PxValidityInterval validity;
    const Color& at(int x, int y) const {
        return pixels[std::size_t(y - rect.yMin) * std::size_t(rect.width()) + std::size_t(x - rect.xMin)];
    }
};

class PxTileRenderer {
public:
    // threads < 1: every core. Progress is reported from the calling thread, which renders
    // tiles too.
    explicit PxTileRenderer(int threads = 0);
    void setProgress(std::function<void(std::size_t done, std::size_t total)> progress) { _progress = std::move(progress); }

    // Every tile of the grid of `context` (its tileWidth x tileHeight from pixel (0, 0)) that
    // meets `rect`, at the context's time and scale level. Pixels of `rect` that no tile
    // covers stay transparent black. The validity starts full.
    PxRenderedImage render(const PxImageProtocol& node, const GeRectangle<int>& rect, const PxImageContext& context) const;
    // The same into `image`, whose pixel buffer is reused when it already has the size (frames
    // of a sequence): its old pixels are all overwritten, none is cleared first.
    void render(const PxImageProtocol& node, const GeRectangle<int>& rect, const PxImageContext& context,
                PxRenderedImage& image) const;
    // The same into pixels the caller holds: every pixel of `frame.rect` is written, in rows that
    // may run either way (a negative stride lays the frame out top row first). Returns the
    // validity.
    PxValidityInterval render(const PxImageProtocol& node, const PxImageContext& context,
                              const PxTileDestination& frame) const;

    int threadCount() const { return _threads; }

private:
    int _threads;
    std::function<void(std::size_t, std::size_t)> _progress;
};

}  // namespace Zt
