// An in-memory image whose pixel rectangle does not start at (0, 0) (a file's data window placed
// in its display window's frame), read through its region of definition and its tiles at every
// scale (the sampler and scripts read it through the command's tests); and the renderer's
// reused frame buffer.
#include <gtest/gtest.h>

#include "PxMemoryImage.h"
#include "PxTileRenderer.h"
#include "kelEvalTestSupport.h"

using namespace Zt;
using namespace Zt::test;

namespace {

// A pixel that tells where it is, in the frame's coordinates.
Color at(int x, int y) { return Color(float(x), float(y), 1.0f, 1.0f); }

PxNodePtr<PxMemoryImage> placed(const GeRectangle<int>& rect, const IxPixelFormat& format = IxPixelFormat{}) {
    std::size_t capacity = 0;
    IxTileStorage::Buffer buffer = IxTileStorage::acquire(std::size_t(rect.width()) * std::size_t(rect.height()), capacity);
    for (int y = rect.yMin; y < rect.yMax; ++y)
        for (int x = rect.xMin; x < rect.xMax; ++x)
            buffer[std::size_t(y - rect.yMin) * std::size_t(rect.width()) + std::size_t(x - rect.xMin)] = at(x, y);
    return PxNodePtr<PxMemoryImage>(new PxMemoryImage(rect, std::move(buffer), capacity, format));
}

// The box filter of the full-resolution pixels under (x, y) at `level`, outside counting as 0.
Color boxMean(const GeRectangle<int>& rect, int x, int y, int level) {
    const int f = 1 << level;
    double sum[4] = {0, 0, 0, 0};
    for (int fy = y * f; fy < y * f + f; ++fy)
        for (int fx = x * f; fx < x * f + f; ++fx)
            if (fx >= rect.xMin && fx < rect.xMax && fy >= rect.yMin && fy < rect.yMax)
                for (int c = 0; c < 4; ++c) sum[c] += at(fx, fy)[c];
    const double n = double(f) * f;
    return Color(float(sum[0] / n), float(sum[1] / n), float(sum[2] / n), float(sum[3] / n));
}

}  // namespace

TEST(HostPlacedImage, TilesAndRectanglesKeepThePlaceAtEveryScale) {
    const GeRectangle<int> rects[] = {{5, 12, 3, 9}, {-3, 4, -7, -2}, {13, 14, -1, 6}, {0, 6, 0, 5}};
    for (const GeRectangle<int>& rect : rects)
        for (IxPixelFormat format : {IxPixelFormat{1, 1}, IxPixelFormat{2, 1}})
            for (int level = 0; level < 3; ++level) {
                const auto image = placed(rect, format);
                PxImageContext context = tileContext(0, 0, 4, 4, level);
                const float scale = 1.0f / float(1 << level);
                const GeRectangle<int> r = image->pixelRect(level);
                SCOPED_TRACE(testing::Message() << rect.xMin << "," << rect.yMin << " aspect " << format.aspectNum << " level " << level);
                EXPECT_EQ(r, PxImageProtocol::nominalToPixelized(image->getROD(context).rect, format.aspect(), scale));
                // Every tile around the image: its pixels inside, transparent black outside.
                for (int ty = -3; ty < 4; ++ty)
                    for (int tx = -2; tx < 5; ++tx) {
                        const PxImageResult result = image->getImage(tileContext(tx, ty, 4, 4, level));
                        for (int y = ty * 4; y < ty * 4 + 4; ++y)
                            for (int x = tx * 4; x < tx * 4 + 4; ++x) {
                                const bool inside = x >= r.xMin && x < r.xMax && y >= r.yMin && y < r.yMax;
                                ASSERT_EQ(pixelOf(result, x, y), inside ? boxMean(rect, x, y, level) : Color::ZERO) << x << "," << y;
                            }
                    }
            }
}

namespace {

// Gives less than the tile asked for (as a script's tiles are clipped to its rectangle).
class ClippedNode : public PxImageProtocol {
public:
    explicit ClippedNode(GeRectangle<int> keep) : _keep(keep) {}
    PxImageFormat getFormat() const override { return {}; }
    PxRODResult getROD(const PxImageContext&) const override { return {}; }
    PxImageResult getImage(const PxImageContext& context) const override {
        GeRectangle<int> r = convertTilesToPixels({context.tileX, context.tileX + 1, context.tileY, context.tileY + 1}, context);
        r = {std::max(r.xMin, _keep.xMin), std::max(std::max(r.xMin, _keep.xMin), std::min(r.xMax, _keep.xMax)),
             std::max(r.yMin, _keep.yMin), std::max(std::max(r.yMin, _keep.yMin), std::min(r.yMax, _keep.yMax))};
        RCShdPtr<IxTile> tile(new IxTile(IxPixelFormat{}, r, Color::ZERO));
        for (int y = r.yMin; y < r.yMax; ++y)
            for (int x = r.xMin; x < r.xMax; ++x) tile->row(y)[x - r.xMin] = at(x, y);
        return PxImageResult(tile, PxValidityInterval::getFull());
    }

private:
    GeRectangle<int> _keep;
};

}  // namespace

TEST(HostPlacedImage, AReusedFrameHoldsOnlyTheNewRendersPixels) {
    // The second render covers less than its rectangle: what no tile gives is transparent black,
    // never the first render's pixels.
    PxTileRenderer renderer(2);
    PxRenderedImage frame;
    const GeRectangle<int> rect(-3, 17, 2, 13);
    renderer.render(ClippedNode(rect), rect, tileContext(0, 0, 4, 4), frame);
    const GeRectangle<int> keep(0, 9, 5, 11);
    renderer.render(ClippedNode(keep), rect, tileContext(0, 0, 4, 4), frame);
    for (int y = rect.yMin; y < rect.yMax; ++y)
        for (int x = rect.xMin; x < rect.xMax; ++x) {
            const bool kept = x >= keep.xMin && x < keep.xMax && y >= keep.yMin && y < keep.yMax;
            ASSERT_EQ(frame.at(x, y), kept ? at(x, y) : Color::ZERO) << x << "," << y;
        }
}
