// Test support for the engine's evaluation and the host's image side: parameter infos, tile
// contexts, in-memory images from a formula, and an image node that counts the calls made of it.
#pragma once

#include <atomic>
#include <functional>
#include <vector>

#include "PxMemoryImage.h"
#include "kelInterpreter.h"

namespace Zt::test {

inline PebParameterInfo floatInput(const std::string& name) { return {name, PebInterpreterTypes::Float, false, false}; }
inline PebParameterInfo imageInput(const std::string& name) { return {name, PebInterpreterTypes::Image, false, false}; }
inline PebParameterInfo colorOutput(const std::string& name) { return {name, PebInterpreterTypes::Color, true, true}; }

inline PxRODResult rodOf(float w, float h, const PxValidityInterval& validity = PxValidityInterval::getFull()) {
    return {validity, GeRectangle<float>(0, w, 0, h)};
}

inline PxImageContext tileContext(int tileX, int tileY, int tileWidth, int tileHeight, int scaleLevel = 0, double time = 0.0) {
    PxImageContext c;
    c.tileX = tileX;
    c.tileY = tileY;
    c.tileWidth = tileWidth;
    c.tileHeight = tileHeight;
    c.scaleLevel = scaleLevel;
    c.time = time;
    return c;
}

// A W x H memory image whose full-resolution pixel (x, y) is pixel(x, y).
inline PxNodePtr<const PxImageProtocol> memoryImage(int width, int height, const std::function<Color(int, int)>& pixel,
                                                    const IxPixelFormat& format = IxPixelFormat{},
                                                    const PxValidityInterval& validity = PxValidityInterval::getFull()) {
    std::vector<Color> pixels(std::size_t(width) * std::size_t(height));
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) pixels[std::size_t(y) * std::size_t(width) + std::size_t(x)] = pixel(x, y);
    return PxNodePtr<const PxImageProtocol>(new PxMemoryImage(width, height, std::move(pixels), format, validity));
}

// A distinct, exactly representable colour per pixel: (x, y, id, 1).
inline std::function<Color(int, int)> coordinatePixels(float id = 0.0f) {
    return [id](int x, int y) { return Color(float(x), float(y), id, 1.0f); };
}

// Forwards to another node and counts the calls of each operation.
class CountingImage : public PxImageProtocol {
public:
    explicit CountingImage(PxNodePtr<const PxImageProtocol> inner) : _inner(std::move(inner)) {}
    PxImageFormat getFormat() const override { ++formatCalls; return _inner->getFormat(); }
    PxRODResult getROD(const PxImageContext& context) const override { ++rodCalls; return _inner->getROD(context); }
    PxImageResult getImage(const PxImageContext& context) const override {
        ++imageCalls;
        return _inner->getImage(context);
    }
    mutable std::atomic<int> formatCalls{0};
    mutable std::atomic<int> rodCalls{0};
    mutable std::atomic<int> imageCalls{0};

private:
    PxNodePtr<const PxImageProtocol> _inner;
};

inline const Color& pixelOf(const PxImageResult& result, int x, int y) {
    const IxTile& tile = *result.getTile();
    return tile.row(y)[x - tile.getRect().xMin];
}

}  // namespace Zt::test
