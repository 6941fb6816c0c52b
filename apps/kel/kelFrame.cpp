#include "kelFrame.h"

#include <algorithm>
#include <cmath>

#include "kelImageIO.h"

namespace Zt::KelApp {

RenderedFrame renderFrame(PebController& controller, PxTileRenderer& renderer,
                          const Vector<PxNodePtr<const PxImageProtocol>>& inputs, const Vector<double>& values,
                          const FrameRequest& request, const std::string& what) {
    RenderedFrame frame;
    renderFrame(controller, renderer, inputs, values, request, what, frame);
    return frame;
}

void renderFrame(PebController& controller, PxTileRenderer& renderer,
                 const Vector<PxNodePtr<const PxImageProtocol>>& inputs, const Vector<double>& values,
                 const FrameRequest& request, const std::string& what, RenderedFrame& frame) {
    renderFrame(controller, renderer, inputs, values, request, what, nullptr, frame);
}

void renderFrame(PebController& controller, PxTileRenderer& renderer,
                 const Vector<PxNodePtr<const PxImageProtocol>>& inputs, const Vector<double>& values,
                 const FrameRequest& request, const std::string& what, const FrameRows& rows, RenderedFrame& frame) {
    const PxNodePtr<const PxImageProtocol> first = inputs.empty() ? nullptr : inputs.front();
    IxPixelFormat format;
    if (request.pixelAspect) {
        format.aspectNum = request.pixelAspect->first;
        format.aspectDen = request.pixelAspect->second;
    } else if (first) {
        format = first->getFormat();
    }
    PxImageContext context;
    context.time = request.time;
    context.scaleLevel = request.scaleLevel;
    context.seed = request.seed;
    context.tileWidth = request.tile ? request.tile->first : kDefaultTileWidth;
    context.tileHeight = request.tile ? request.tile->second : kDefaultTileHeight;
    // The output covers the first image input's rectangle; without one, the requested size.
    PxRODResult rod;
    rod.validity = PxValidityInterval::getFull();
    if (first)
        rod.rect = first->getROD(context).rect;
    else
        rod.rect = GeRectangle<float>(0.0f, float(request.size->first) * format.aspect(), 0.0f, float(request.size->second));

    // The rendered image and the file's buffer, refused before the size overflows an int.
    const double scale = 1.0 / double(1 << request.scaleLevel);
    checkFitsInMemory("cannot render " + what, (long long)std::ceil(double(rod.rect.width()) / format.aspect() * scale),
                      (long long)std::ceil(double(rod.rect.height()) * scale), 2 * sizeof(Color));
    const PxNodePtr<const PxImageProtocol> node = controller.createModifierProcNode(inputs, values, rod, format);
    const GeRectangle<int> rect = PxImageProtocol::nominalToPixelized(rod.rect, format.aspect(), float(scale));
    const std::size_t pixels = std::size_t(std::max(rect.width(), 0)) * std::size_t(std::max(rect.height(), 0));
    renderer.setProgress(request.progress ? [progress = request.progress, pixels](std::size_t done, std::size_t total) {
        progress(done, total, pixels);
    } : std::function<void(std::size_t, std::size_t)>());
    frame.format = format;
    if (!rows) return renderer.render(*node, rect, context, frame.image);
    frame.image.rect = rect;
    frame.image.pixels.clear();
    frame.image.validity = renderer.render(*node, context, rows(rect));
}

}  // namespace Zt::KelApp
