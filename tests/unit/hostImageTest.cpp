// The host's image side: validity intervals, nominal and pixel geometry, the in-memory image
// node (tiles, levels, lent rows, reused tile buffers), the cancellation point, and the bilinear
// sampler's edge cases: exact weights far from the origin, a pixel aspect no float holds, tile
// fetches, its modes, and its row path against sampleAt.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstring>
#include <limits>
#include <functional>
#include <random>
#include <string>

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

// sampleRow gives sampleAt's bits, and leaves inactive columns alone, on every kind of row its
// fast paths look for: random positions (NaN and infinite ones among them), positions one pixel
// apart at whole coordinates shifted across the image's edges and the sampler's tile borders (a
// neighbourhood read), and rows that share one y (a warp); at two scales, in both filter modes
// and every wrap mode. Infinite and signalling NaN pixels come out as the filter's multiply
// gives them. addRow adds those bits to a row of sums.
TEST(HostSampler, TheRowPathsGiveTheBitsOfSampleAt) {
    constexpr int kWidth = 300, kHeight = 40, lo = -9, hi = 600;
    constexpr std::size_t n = hi - lo;
    std::mt19937 rng(11);
    std::uniform_real_distribution<float> value(-2.0f, 2.0f), jitter(-0.7f, 0.7f);
    const auto image = memoryImage(kWidth, kHeight, [&](int x, int y) {
        Color c(value(rng), value(rng), value(rng), value(rng));
        if ((x + 3 * y) % 37 == 0) c.g = std::numeric_limits<float>::infinity();
        if ((2 * x + y) % 41 == 0) c.b = std::numeric_limits<float>::signaling_NaN();
        return c;
    });
    std::uniform_real_distribution<float> px(-3.0f, kWidth + 3.0f), py(-3.0f, kHeight + 3.0f);
    std::vector<float> randomXs(n), randomYs(n), warp(n), active(n);
    for (std::size_t i = 0; i < n; ++i) {
        randomXs[i] = i % 7 == 0 ? std::floor(px(rng)) : px(rng);
        randomYs[i] = py(rng);
        warp[i] = jitter(rng);
        active[i] = (i / 13) % 3 == 0 ? 0.0f : 1.0f;
    }
    randomXs[3] = std::numeric_limits<float>::quiet_NaN();
    randomYs[4] = std::numeric_limits<float>::infinity();
    randomXs[5] = -std::numeric_limits<float>::infinity();
    const float inf = std::numeric_limits<float>::infinity(), nan = std::numeric_limits<float>::quiet_NaN();
    const struct {
        const char* name;
        std::function<float(int)> x;  // of the column
        float y;                      // NaN: the random rows
    } rows[] = {
        {"random", [&](int x) { return randomXs[std::size_t(x - lo)]; }, nan},
        {"shifted right, across tiles", [](int x) { return float(x + 3); }, 17.0f},
        {"shifted left, first row", [](int x) { return float(x - 250); }, 0.0f},
        {"last row", [](int x) { return float(x); }, float(kHeight - 1)},
        {"below the image", [](int x) { return float(x); }, -1.0f},
        {"above the image", [](int x) { return float(x + 1); }, float(kHeight)},
        {"one y, between pixels", [&](int x) { return float(x) + warp[std::size_t(x - lo)]; }, 15.5f},
        {"one y, on a pixel row", [&](int x) { return float(x) * 0.75f + warp[std::size_t(x - lo)]; }, 31.0f},
        {"one y, infinite x", [&](int x) { return x % 5 ? float(x) : inf; }, 3.25f},
    };
    for (int scaleLevel : {0, 1})
        for (int filter : {0, 1})
            for (int wrap : {0, 1, 2, 3}) {
                const auto sampler = samplerOf(image, scaleLevel, filter, wrap);
                for (const auto& row : rows) {
                    SCOPED_TRACE(std::string(row.name) + ", scale " + std::to_string(scaleLevel) + " filter " +
                                 std::to_string(filter) + " wrap " + std::to_string(wrap));
                    std::vector<float> xs(n), ys(n, row.y);
                    for (int x = lo; x < hi; ++x) xs[std::size_t(x - lo)] = row.x(x);
                    if (std::isnan(row.y)) ys = randomYs;
                    const Color untouched(-7, -7, -7, -7);
                    std::vector<Color> whole(n, untouched), masked(n, untouched);
                    sampler->sampleRow(whole.data() - lo, xs.data() - lo, ys.data() - lo, nullptr, lo, hi);
                    sampler->sampleRow(masked.data() - lo, xs.data() - lo, ys.data() - lo, active.data() - lo, lo, hi);
                    // addRow adds the same samples to a sum (a negative zero turns positive where nothing is read).
                    const Color start(-0.0f, 0.25f, -7.0f, 3.0f);
                    std::vector<Color> sums(n, start);
                    sampler->addRow(sums.data() - lo, xs.data() - lo, ys.data() - lo, active.data() - lo, lo, hi);
                    for (std::size_t i = 0; i < n; ++i) {
                        const Color expected = sampleAt(*sampler, double(xs[i]), double(ys[i]));
                        ASSERT_TRUE(sameBits(whole[i], expected)) << "column " << int(i) + lo;
                        ASSERT_TRUE(sameBits(masked[i], active[i] != 0.0f ? expected : untouched)) << "masked column " << int(i) + lo;
                        ASSERT_TRUE(sameBits(sums[i], active[i] != 0.0f ? start + expected : start)) << "added column " << int(i) + lo;
                    }
                }
            }
}

}  // namespace
