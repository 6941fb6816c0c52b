// The host's image side: validity intervals, nominal and pixel geometry, the in-memory image
// node (tiles, levels, lent rows, reused tile buffers), the cancellation point, and the bilinear
// sampler's edge cases: exact weights far from the origin, a pixel aspect no float holds, tile
// fetches, its modes, and its row path against sampleAt.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>

#include "kelEvalTestSupport.h"

using namespace Zt;
using namespace Zt::test;

namespace {

constexpr double kEps = PxValidityInterval::kEpsilon;
constexpr double kMin = PxValidityInterval::kMinTime, kMax = PxValidityInterval::kMaxTime;

TEST(HostValidity, KindsMoveTheBoundsByEpsilonExceptAtTheLimits) {
    struct Row {
        double begin;
        int beginKind;
        double end;
        int endKind;
        PxValidityInterval expected;
    };
    const Row rows[] = {
        {1, 0, 5, 1, {1 + kEps, 5}}, {1, 1, 5, 1, {1, 5}}, {1, 2, 5, 1, {1 - kEps, 5}},
        {1, 1, 5, 0, {1, 5 - kEps}}, {1, 1, 5, 2, {1, 5 + kEps}}, {7, 2, 7, 2, {7 - kEps, 7 + kEps}},
        {3, 0, 3, 0, {3, 3}},  // equal bounds of kinds 0 are taken as they are
        {kMin, 0, kMax, 0, PxValidityInterval::getFull()}, {kMin, 2, kMax, 2, PxValidityInterval::getFull()},
    };
    for (const Row& r : rows)
        EXPECT_EQ(PxValidityInterval(r.begin, r.beginKind, r.end, r.endKind), r.expected) << r.begin << " " << r.beginKind;
    EXPECT_EQ(PxValidityInterval::getFull(), PxValidityInterval(-31536000.0, 31536000.0));
    PxValidityInterval running(0.0, 10.0);
    RCShdPtr<IxTile> tile(new IxTile(IxPixelFormat{}, GeRectangle<int>(0, 1, 0, 1), Color::ZERO));
    for (const PxValidityInterval& vi : {PxValidityInterval(2.0, 20.0), PxValidityInterval::getFull(), PxValidityInterval(-5.0, 4.0)})
        PxImageResult(tile, vi).reduceVI(running);
    EXPECT_EQ(running, PxValidityInterval(2.0, 4.0));
}

TEST(HostGeometry, TilesAndNominalRectanglesToPixels) {
    const PxImageContext c = tileContext(0, 0, 64, 16);
    EXPECT_EQ(PxImageProtocol::convertTilesToPixels(GeRectangle<int>(2, 3, 1, 2), c), GeRectangle<int>(128, 192, 16, 32));
    EXPECT_EQ(PxImageProtocol::convertTilesToPixels(GeRectangle<int>(-1, 0, -1, 0), c), GeRectangle<int>(-64, 0, -16, 0));
    const auto pixels = [](GeRectangle<float> r, float aspect, float scale) { return PxImageProtocol::nominalToPixelized(r, aspect, scale); };
    EXPECT_EQ(pixels({0, 20, 0, 10}, 2.0f, 1.0f), GeRectangle<int>(0, 10, 0, 10));
    EXPECT_EQ(pixels({0, 20, 0, 10}, 2.0f, 0.5f), GeRectangle<int>(0, 5, 0, 5));
    EXPECT_EQ(pixels({0, 7, 0, 5}, 1.0f, 0.5f), GeRectangle<int>(0, 4, 0, 3));  // outward
    EXPECT_EQ(pixels({-0.5f, 2.5f, 0.25f, 1.75f}, 1.0f, 1.0f), GeRectangle<int>(-1, 3, 0, 2));
    // w pixels at aspect 1/3 are a float or two more than w / 3 nominal units: still w pixels.
    for (int w : {1, 3, 7, 640, 2048, 4095})
        EXPECT_EQ(pixels({0, float(w) * (1.0f / 3.0f), 0, 1}, 1.0f / 3.0f, 1.0f).xMax, w) << w;
    const float nan = std::numeric_limits<float>::quiet_NaN();
    EXPECT_EQ(pixels({nan, 1e30f, -1e30f, nan}, 1.0f, 1.0f), GeRectangle<int>(0, 1 << 30, -(1 << 30), 0));
}

TEST(HostMemoryImage, TilesHoldThePixelsBottomRowFirstAndTransparentBlackOutside) {
    auto img = memoryImage(5, 3, coordinatePixels(9), IxPixelFormat{2, 1}, PxValidityInterval(4.0, 5.0));
    EXPECT_EQ(img->getROD(PxImageContext()).rect, GeRectangle<float>(0, 10, 0, 3));
    EXPECT_EQ(img->getROD(PxImageContext()).validity, PxValidityInterval(4.0, 5.0));
    const PxImageResult r = img->getImage(tileContext(1, 0, 4, 4));
    EXPECT_EQ(r.getValidity(), PxValidityInterval(4.0, 5.0));
    EXPECT_EQ(r.getTile()->getRect(), GeRectangle<int>(4, 8, 0, 4));
    EXPECT_FALSE(r.getTile()->isLent());
    EXPECT_EQ(pixelOf(r, 4, 2), Color(4, 2, 9, 1));
    EXPECT_EQ(pixelOf(r, 5, 0), Color::ZERO);
    EXPECT_EQ(pixelOf(r, 4, 3), Color::ZERO);
    const PxImageResult outside = img->getImage(tileContext(-1, 3, 2, 2));
    EXPECT_EQ(pixelOf(outside, -2, 6), Color::ZERO);
    EXPECT_THROW(PxMemoryImage(2, 2, std::vector<Color>(3)), ExAssertionFailed);
}

// A full-resolution tile inside the image lends the image's rows: the same pixels, alive after
// the node, never written.
TEST(HostMemoryImage, TilesInsideTheImageLendTheirRowsReadOnly) {
    auto img = memoryImage(5, 3, coordinatePixels(9));
    const PxImageResult r = img->getImage(tileContext(1, 0, 2, 3));
    ASSERT_TRUE(r.getTile()->isLent());
    img = nullptr;
    for (int y = 0; y < 3; ++y)
        for (int x = 2; x < 4; ++x) EXPECT_EQ(pixelOf(r, x, y), Color(float(x), float(y), 9, 1));
    EXPECT_THROW(r.getTile()->row(0), ExAssertionFailed);
    PxImageContext half = tileContext(0, 0, 2, 2);
    half.scaleLevel = 1;
    EXPECT_FALSE(memoryImage(4, 4, coordinatePixels())->getImage(half).getTile()->isLent());
}

TEST(HostMemoryImage, LevelsAverageTwoByTwoAndPartlyCoveredPixelsArePartlyTransparent) {
    auto img = memoryImage(4, 4, [](int x, int y) { return Color(float(x), float(y), float(x * y), 1.0f); });
    const PxImageResult r = img->getImage(tileContext(0, 0, 8, 8, 1));
    EXPECT_EQ(pixelOf(r, 1, 0), Color(2.5f, 0.5f, 1.25f, 1.0f));
    EXPECT_EQ(pixelOf(r, 1, 1), Color(2.5f, 2.5f, 6.25f, 1.0f));
    EXPECT_EQ(pixelOf(r, 2, 0), Color::ZERO);
    const PxImageResult edge = memoryImage(3, 1, [](int, int) { return Color(1, 1, 1, 1); })->getImage(tileContext(0, 0, 4, 4, 1));
    EXPECT_EQ(pixelOf(edge, 0, 0), Color(0.5f, 0.5f, 0.5f, 0.5f));
    EXPECT_EQ(pixelOf(edge, 1, 0), Color(0.25f, 0.25f, 0.25f, 0.25f));
    for (int w : {1, 5, 17, 640})
        for (IxPixelFormat format : {IxPixelFormat{1, 1}, IxPixelFormat{2, 1}, IxPixelFormat{1, 3}})
            for (int level = 0; level < 5; ++level) {
                PxMemoryImage image(w, 3, std::vector<Color>(std::size_t(w) * 3), format);
                PxImageContext c;
                c.scaleLevel = level;
                EXPECT_EQ(image.pixelRect(level), PxImageProtocol::nominalToPixelized(image.getROD(c).rect, format.aspect(),
                                                                                      1.0f / float(1 << level)));
            }
}

// A dead tile's buffer serves the next tile of about its size, refilled with the new fill colour.
TEST(HostTileStorage, BuffersAreReusedAndRefilled) {
    IxTileStorage::clear();
    const Color* first = nullptr;
    {
        RCShdPtr<IxTile> tile(new IxTile(IxPixelFormat{}, GeRectangle<int>(0, 8, 0, 4), Color(1, 2, 3, 4)));
        first = tile->row(0);
        tile->row(3)[7] = Color(9, 9, 9, 9);
    }
    RCShdPtr<IxTile> next(new IxTile(IxPixelFormat{}, GeRectangle<int>(10, 18, 5, 9), Color(0, 0, 0, 1)));
    EXPECT_EQ(next->row(5), first);
    for (int y = 5; y < 9; ++y)
        for (int x = 0; x < 8; ++x) EXPECT_EQ(next->row(y)[x], Color(0, 0, 0, 1));
    { RCShdPtr<IxTile> big(new IxTile(IxPixelFormat{}, GeRectangle<int>(0, 64, 0, 64), Color::ZERO)); }
    RCShdPtr<IxTile> small(new IxTile(IxPixelFormat{}, GeRectangle<int>(0, 4, 0, 4), Color::ZERO));
    EXPECT_EQ(IxTileStorage::keptCount(), 1u);
    IxTileStorage::clear();
}

TEST(HostRequests, CancelAndCheckBudget) {
    PxRequestMgr& requests = PxRequestMgr::getInstance();
    requests.cancel();
    EXPECT_THROW(requests.checkRequest(), ExCancelled);
    requests.reset();
    requests.setCheckBudget(3);
    for (int i = 0; i < 3; ++i) EXPECT_NO_THROW(requests.checkRequest());
    EXPECT_THROW(requests.checkRequest(), ExCancelled);
    requests.setCheckBudget(-1);
    EXPECT_NO_THROW(requests.checkRequest());
}

// ---- The sampler --------------------------------------------------------------------------

// The sampler the interpreter makes: positions in pixels of the nominal rectangle.
RCStrongPtr<const SdTextureSampler> samplerOf(const PxNodePtr<const PxImageProtocol>& node, int scaleLevel = 0,
                                              int filterMode = 1, int wrapMode = 0) {
    PxImageContext context;
    context.scaleLevel = scaleLevel;
    const GeRectangle<float> r = node->getROD(context).rect;
    SdTextureParams params;
    params.textureMatrix.m[0][0] = 1.0f / (r.xMax - r.xMin);
    params.textureMatrix.m[1][1] = 1.0f / (r.yMax - r.yMin);
    params.textureMatrix.m[2][0] = (0.5f - r.xMin) / (r.xMax - r.xMin);
    params.textureMatrix.m[2][1] = (0.5f - r.yMin) / (r.yMax - r.yMin);
    params.filterMode = filterMode;
    params.wrapModeS = params.wrapModeT = wrapMode;
    return PxImageTexture(node, context.timeScale(), params).createSampler();
}

Color sampleAt(const SdTextureSampler& sampler, double x, double y) {
    const double coords[2] = {x, y};
    Color c(-1, -1, -1, -1);
    sampler.sampleAt(c, coords, GeLinearMatrix2<double>());
    return c;
}

bool sameBits(const Color& a, const Color& b) { return std::memcmp(&a, &b, sizeof a) == 0; }

TEST(HostSampler, WeightsStayExactFarFromTheOriginAndAtAnAspectOfFourThirds) {
    auto wide = samplerOf(memoryImage(1100, 1, coordinatePixels()));
    const float near = 1050.0005f;  // four float ulps above 1050
    const float w = float(double(near) - 1050.0);
    EXPECT_EQ(sampleAt(*wide, double(near), 0.0).r, w * 1051.0f + (1.0f - w) * 1050.0f);
    EXPECT_EQ(sampleAt(*wide, 1098.5, 0.0).r, 1098.5f);
    EXPECT_EQ(sampleAt(*wide, 1099.5, 0.0).r, 0.5f * 1099.0f);  // half of the last pixel, half nothing
    auto img = memoryImage(600, 2, coordinatePixels(), IxPixelFormat{4, 3});
    auto fourThirds = samplerOf(img);
    for (int px : {0, 1, 2, 3, 299, 598, 599})
        EXPECT_EQ(sampleAt(*fourThirds, double(float(px) * IxPixelFormat{4, 3}.aspect()), 1.0), Color(float(px), 1, 0, 1)) << px;
}

TEST(HostSampler, FetchesATileOnlyWhenASampleTouchesItAndOnce) {
    RCShdPtr<CountingImage> counted(new CountingImage(memoryImage(600, 3, coordinatePixels())));
    auto s = samplerOf(PxNodePtr<const PxImageProtocol>(counted.get()));
    EXPECT_EQ(counted->imageCalls.load(), 0);
    sampleAt(*s, 10, 1);
    sampleAt(*s, 20.5, 1.5);
    EXPECT_EQ(counted->imageCalls.load(), 1);
    sampleAt(*s, 450, 1);  // another sampler tile
    sampleAt(*s, -50, 1);  // outside: no fetch
    EXPECT_EQ(counted->imageCalls.load(), 2);
}

TEST(HostSampler, NearestAndClampModes) {
    auto img = memoryImage(4, 4, coordinatePixels());
    EXPECT_EQ(sampleAt(*samplerOf(img, 0, 0), 1.4, 2.6), Color(1, 3, 0, 1));
    auto clamp = samplerOf(img, 0, 1, 1);
    EXPECT_EQ(sampleAt(*clamp, -10.0, 2.0), Color(0, 2, 0, 1));
    EXPECT_EQ(sampleAt(*clamp, 1e300, 1e300), Color(3, 3, 0, 1));
}

// sampleRow gives sampleAt's bits across the sampler's tile borders, outside the image, at NaN
// and infinite positions, in both filter and wrap modes, and leaves inactive columns alone.
TEST(HostSampler, TheRowPathGivesTheBitsOfSampleAt) {
    constexpr int kWidth = 300, kHeight = 40, lo = -5, hi = 600;
    std::mt19937 rng(5);
    std::uniform_real_distribution<float> d(-2.0f, 2.0f);
    const auto image = memoryImage(kWidth, kHeight, [&](int, int) { return Color(d(rng), d(rng), d(rng), d(rng)); });
    std::vector<float> xs(hi - lo), ys(hi - lo), active(hi - lo);
    std::uniform_real_distribution<float> px(-3.0f, kWidth + 3.0f), py(-3.0f, kHeight + 3.0f);
    for (std::size_t i = 0; i < xs.size(); ++i) {
        xs[i] = i % 7 == 0 ? std::floor(px(rng)) : px(rng);
        ys[i] = py(rng);
        active[i] = i % 5 == 0 ? 0.0f : 1.0f;
    }
    xs[3] = std::numeric_limits<float>::quiet_NaN();
    ys[4] = std::numeric_limits<float>::infinity();
    xs[5] = -std::numeric_limits<float>::infinity();
    for (int filter : {0, 1})
        for (int wrap : {0, 1}) {
            const auto sampler = samplerOf(image, 0, filter, wrap);
            const Color untouched(-7, -7, -7, -7);
            std::vector<Color> whole(xs.size(), untouched), masked(xs.size(), untouched);
            sampler->sampleRow(whole.data() - lo, xs.data() - lo, ys.data() - lo, nullptr, lo, hi);
            sampler->sampleRow(masked.data() - lo, xs.data() - lo, ys.data() - lo, active.data() - lo, lo, hi);
            for (std::size_t i = 0; i < xs.size(); ++i) {
                const Color expected = sampleAt(*sampler, double(xs[i]), double(ys[i]));
                EXPECT_TRUE(sameBits(whole[i], expected)) << "filter " << filter << " wrap " << wrap << " column " << i;
                EXPECT_TRUE(sameBits(masked[i], active[i] != 0.0f ? expected : untouched)) << "masked column " << i;
            }
        }
}

}  // namespace
