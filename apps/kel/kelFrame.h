// One frame of a compiled script, rendered over its inputs through the host's tile renderer: the
// single path by which every front end (the command, the live page, the Python module) turns a
// compiled controller, images and values into pixels, so they all give the same pixels.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <utility>

#include "PebController.h"
#include "PxTileRenderer.h"

namespace Zt::KelApp {

// Wide rows amortise the tree walk (one walk per row of a tile); 16 rows keep enough tiles
// for every core on HD frames. docs/performance.md ("Tile size") compared sizes from 2048x1 to
// 128x128 and found no ordering that held above the shared machine's noise, so this stayed.
constexpr int kDefaultTileWidth = 1024;
constexpr int kDefaultTileHeight = 16;

struct FrameRequest {
    double time = 0.0;
    int scaleLevel = 0;
    unsigned seed = 0;
    std::optional<std::pair<int, int>> pixelAspect;  // N/D; default: the first input's, else 1
    std::optional<std::pair<int, int>> size;         // WxH at full resolution; without an image input
    std::optional<std::pair<int, int>> tile;         // WxH; default kDefaultTileWidth x kDefaultTileHeight
    // Told, from the calling thread, how many of the frame's tiles are done and how many pixels
    // the frame has; none when empty.
    std::function<void(std::size_t done, std::size_t total, std::size_t pixels)> progress;
};

struct RenderedFrame {
    PxRenderedImage image;
    IxPixelFormat format;  // the output's pixel aspect, for the file
};

// Renders the frame; `what` names it in the message of a frame too large for memory
// (FileError). Throws ExCancelled when the render is cancelled, and whatever the script throws.
RenderedFrame renderFrame(PebController& controller, PxTileRenderer& renderer,
                          const Vector<PxNodePtr<const PxImageProtocol>>& inputs, const Vector<double>& values,
                          const FrameRequest& request, const std::string& what);
// The same into `frame`, whose pixel buffer is reused when it has the size (a sequence's frames).
void renderFrame(PebController& controller, PxTileRenderer& renderer,
                 const Vector<PxNodePtr<const PxImageProtocol>>& inputs, const Vector<double>& values,
                 const FrameRequest& request, const std::string& what, RenderedFrame& frame);

// Where the caller wants a frame of pixel rectangle `rect`: rows that it keeps alive for the render.
using FrameRows = std::function<PxTileDestination(const GeRectangle<int>& rect)>;

// The same into the rows that `rows` gives once the frame's rectangle is known: `frame.image`
// tells the rectangle and validity and keeps no pixels of its own.
void renderFrame(PebController& controller, PxTileRenderer& renderer,
                 const Vector<PxNodePtr<const PxImageProtocol>>& inputs, const Vector<double>& values,
                 const FrameRequest& request, const std::string& what, const FrameRows& rows, RenderedFrame& frame);

}  // namespace Zt::KelApp
