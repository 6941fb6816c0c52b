// The host's image side (host.md; what Part 1.2 requires of it): validity kinds and reduction,
// tile and nominal geometry, the in-memory image node, the bilinear texture sampler, tile rows
// to and from scanlines, and the cancellation point.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "kelEvalTestSupport.h"

using namespace Zt;
using namespace Zt::test;

namespace {

constexpr double kEps = PxValidityInterval::kEpsilon;

// The texture matrix of Part 1.2 step 16c for a nominal rectangle.
GeAffineMatrix2<float> unitSquareMatrix(const GeRectangle<float>& r) {
    float w = r.xMax - r.xMin, h = r.yMax - r.yMin;
    if (w == 0.0f) w = 1.0f;
    if (h == 0.0f) h = 1.0f;
    GeAffineMatrix2<float> m;
    m.m[0][0] = 1.0f / w;
    m.m[1][1] = 1.0f / h;
    m.m[2][0] = (0.5f - r.xMin) / w;
    m.m[2][1] = (0.5f - r.yMin) / h;
    return m;
}

RCStrongPtr<const SdTextureSampler> samplerOf(const PxNodePtr<const PxImageProtocol>& node, int scaleLevel = 0,
                                              int filterMode = 1, int wrapMode = 0) {
    PxImageContext context;
    context.scaleLevel = scaleLevel;
    SdTextureParams params;
    params.textureMatrix = unitSquareMatrix(node->getROD(context).rect);
    params.filterMode = filterMode;
    params.wrapModeS = wrapMode;
    params.wrapModeT = wrapMode;
    return PxImageTexture(node, context.timeScale(), params).createSampler();
}

Color sampleAt(const SdTextureSampler& sampler, double x, double y) {
    GeLinearMatrix2<double> identity;
    const double coords[2] = {x, y};
    Color c(-1, -1, -1, -1);
    sampler.sampleAt(c, coords, identity);
    return c;
}

void expectColorNear(const Color& actual, const Color& expected, float tolerance = 1e-5f) {
    for (int c = 0; c < 4; ++c) EXPECT_NEAR(actual[c], expected[c], tolerance) << "channel " << c;
}

}  // namespace

// ---- Validity intervals -------------------------------------------------------------------

TEST(HostValidity, FullIsOneYearEitherWay) {
    EXPECT_EQ(PxValidityInterval::getFull(), PxValidityInterval(-31536000.0, 31536000.0));
}

TEST(HostValidity, BeginKindsAddLeaveAndSubtractEpsilon) {
    EXPECT_EQ(PxValidityInterval(1.0, 0, 5.0, 1).begin, 1.0 + kEps);
    EXPECT_EQ(PxValidityInterval(1.0, 1, 5.0, 1).begin, 1.0);
    EXPECT_EQ(PxValidityInterval(1.0, 2, 5.0, 1).begin, 1.0 - kEps);
}

TEST(HostValidity, EndKindsSubtractLeaveAndAddEpsilon) {
    EXPECT_EQ(PxValidityInterval(1.0, 1, 5.0, 0).end, 5.0 - kEps);
    EXPECT_EQ(PxValidityInterval(1.0, 1, 5.0, 1).end, 5.0);
    EXPECT_EQ(PxValidityInterval(1.0, 1, 5.0, 2).end, 5.0 + kEps);
}

TEST(HostValidity, BoundsAtTheLimitsStayWhateverTheKind) {
    const PxValidityInterval vi(PxValidityInterval::kMinTime, 0, PxValidityInterval::kMaxTime, 0);
    EXPECT_EQ(vi, PxValidityInterval::getFull());
    const PxValidityInterval wide(PxValidityInterval::kMinTime, 2, PxValidityInterval::kMaxTime, 2);
    EXPECT_EQ(wide, PxValidityInterval::getFull());
}

TEST(HostValidity, EqualBoundsWithBothKindsZeroAreTakenAsTheyAre) {
    EXPECT_EQ(PxValidityInterval(3.0, 0, 3.0, 0), PxValidityInterval(3.0, 3.0));
}

TEST(HostValidity, AnInstantWithKindsTwoSpansTwoEpsilons) {
    const PxValidityInterval vi(7.0, 2, 7.0, 2);
    EXPECT_EQ(vi.begin, 7.0 - kEps);
    EXPECT_EQ(vi.end, 7.0 + kEps);
}

TEST(HostValidity, ReduceVIIntersects) {
    PxValidityInterval running(0.0, 10.0);
    RCShdPtr<IxTile> tile(new IxTile(IxPixelFormat{}, GeRectangle<int>(0, 1, 0, 1), Color::ZERO));
    PxImageResult(tile, PxValidityInterval(2.0, 20.0)).reduceVI(running);
    EXPECT_EQ(running, PxValidityInterval(2.0, 10.0));
    PxImageResult(tile, PxValidityInterval::getFull()).reduceVI(running);
    EXPECT_EQ(running, PxValidityInterval(2.0, 10.0));
    PxImageResult(tile, PxValidityInterval(-5.0, 4.0)).reduceVI(running);
    EXPECT_EQ(running, PxValidityInterval(2.0, 4.0));
}

// ---- Geometry -----------------------------------------------------------------------------

TEST(HostGeometry, TileIJCoversItsGridCell) {
    PxImageContext c = tileContext(0, 0, 64, 16);
    EXPECT_EQ(PxImageProtocol::convertTilesToPixels(GeRectangle<int>(2, 3, 1, 2), c), GeRectangle<int>(128, 192, 16, 32));
    EXPECT_EQ(PxImageProtocol::convertTilesToPixels(GeRectangle<int>(-1, 0, -1, 0), c), GeRectangle<int>(-64, 0, -16, 0));
}

TEST(HostGeometry, NominalToPixelizedDividesByAspectAndScalesAndRoundsOutward) {
    EXPECT_EQ(PxImageProtocol::nominalToPixelized(GeRectangle<float>(0, 20, 0, 10), 2.0f, 1.0f), GeRectangle<int>(0, 10, 0, 10));
    EXPECT_EQ(PxImageProtocol::nominalToPixelized(GeRectangle<float>(0, 20, 0, 10), 2.0f, 0.5f), GeRectangle<int>(0, 5, 0, 5));
    EXPECT_EQ(PxImageProtocol::nominalToPixelized(GeRectangle<float>(0, 7, 0, 5), 1.0f, 0.5f), GeRectangle<int>(0, 4, 0, 3));
    EXPECT_EQ(PxImageProtocol::nominalToPixelized(GeRectangle<float>(-0.5f, 2.5f, 0.25f, 1.75f), 1.0f, 1.0f),
              GeRectangle<int>(-1, 3, 0, 2));
}

TEST(HostGeometry, NominalToPixelizedInvertsTheAspectWithoutGrowingByAPixel) {
    // 3 pixels at aspect 1/3 are 1.0000001 nominal units in float; they are still 3 pixels.
    const float aspect = 1.0f / 3.0f;
    for (int w : {1, 3, 7, 640, 2048, 4095}) {
        const GeRectangle<float> nominal(0, float(w) * aspect, 0, float(w));
        EXPECT_EQ(PxImageProtocol::nominalToPixelized(nominal, aspect, 1.0f).xMax, w) << w;
    }
}

TEST(HostGeometry, NominalToPixelizedOfNaNOrHugeStaysDefined) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const GeRectangle<int> r = PxImageProtocol::nominalToPixelized(GeRectangle<float>(nan, 1e30f, -1e30f, nan), 1.0f, 1.0f);
    EXPECT_EQ(r.xMin, 0);
    EXPECT_EQ(r.xMax, 1 << 30);
    EXPECT_EQ(r.yMin, -(1 << 30));
    EXPECT_EQ(r.yMax, 0);
}

// ---- The memory image ---------------------------------------------------------------------

TEST(HostMemoryImage, RodIsWidthTimesAspectByHeightWithTheStillsValidity) {
    auto img = memoryImage(5, 3, coordinatePixels(), IxPixelFormat{2, 1});
    const PxRODResult rod = img->getROD(PxImageContext());
    EXPECT_EQ(rod.rect, GeRectangle<float>(0, 10, 0, 3));
    EXPECT_EQ(rod.validity, PxValidityInterval::getFull());
    EXPECT_EQ(img->getFormat().aspectNum, 2);
    EXPECT_EQ(img->getFormat().aspectDen, 1);
}

TEST(HostMemoryImage, TileCoversTheRequestedRectangleBottomRowFirstWithTransparentBlackOutside) {
    auto img = memoryImage(5, 3, coordinatePixels(9));
    const PxImageResult r = img->getImage(tileContext(1, 0, 4, 4));
    EXPECT_EQ(r.getTile()->getRect(), GeRectangle<int>(4, 8, 0, 4));
    EXPECT_EQ(r.getFillColor(), Color::ZERO);
    EXPECT_EQ(pixelOf(r, 4, 0), Color(4, 0, 9, 1));
    EXPECT_EQ(pixelOf(r, 4, 2), Color(4, 2, 9, 1));
    EXPECT_EQ(pixelOf(r, 5, 0), Color::ZERO);
    EXPECT_EQ(pixelOf(r, 4, 3), Color::ZERO);
}

TEST(HostMemoryImage, TileEntirelyOutsideIsFill) {
    auto img = memoryImage(2, 2, coordinatePixels());
    const PxImageResult r = img->getImage(tileContext(-1, 3, 2, 2));
    EXPECT_EQ(r.getTile()->getRect(), GeRectangle<int>(-2, 0, 6, 8));
    for (int y = 6; y < 8; ++y)
        for (int x = -2; x < 0; ++x) EXPECT_EQ(pixelOf(r, x, y), Color::ZERO);
}

// Issue 8: a full-resolution tile inside the image lends the image's rows instead of copying
// them; it reads the same pixels, outlives the node, and refuses to be written.
TEST(HostMemoryImage, TileInsideTheImageLendsItsRowsReadOnly) {
    auto img = memoryImage(5, 3, coordinatePixels(9));
    const PxImageResult r = img->getImage(tileContext(1, 0, 2, 3));
    ASSERT_TRUE(r.getTile()->isLent());
    EXPECT_EQ(r.getTile()->getRect(), GeRectangle<int>(2, 4, 0, 3));
    img = nullptr;  // the tile keeps the pixels alive
    for (int y = 0; y < 3; ++y)
        for (int x = 2; x < 4; ++x) EXPECT_EQ(pixelOf(r, x, y), Color(float(x), float(y), 9, 1));
    EXPECT_THROW(r.getTile()->row(0), ExAssertionFailed);
}

TEST(HostMemoryImage, TilesAtALevelOrPartlyOutsideAreCopies) {
    auto img = memoryImage(4, 4, coordinatePixels());
    EXPECT_FALSE(img->getImage(tileContext(1, 1, 3, 3)).getTile()->isLent());
    PxImageContext half = tileContext(0, 0, 2, 2);
    half.scaleLevel = 1;
    EXPECT_FALSE(img->getImage(half).getTile()->isLent());
    EXPECT_TRUE(img->getImage(tileContext(1, 1, 2, 2)).getTile()->isLent());
}

// Issue 8: a dead tile's buffer serves the next tile, which starts from its own fill colour and
// never from the pixels of the last one.
TEST(HostTileStorage, ABufferIsReusedAndRefilled) {
    IxTileStorage::clear();
    const Color* first = nullptr;
    {
        RCShdPtr<IxTile> tile(new IxTile(IxPixelFormat{}, GeRectangle<int>(0, 8, 0, 4), Color(1, 2, 3, 4)));
        first = tile->row(0);
        tile->row(3)[7] = Color(9, 9, 9, 9);
    }
    EXPECT_EQ(IxTileStorage::keptCount(), 1u);
    RCShdPtr<IxTile> next(new IxTile(IxPixelFormat{}, GeRectangle<int>(10, 18, 5, 9), Color(0, 0, 0, 1)));
    EXPECT_EQ(next->row(5), first);
    EXPECT_EQ(IxTileStorage::keptCount(), 0u);
    for (int y = 5; y < 9; ++y)
        for (int x = 0; x < 8; ++x) EXPECT_EQ(next->row(y)[x], Color(0, 0, 0, 1));
}

TEST(HostTileStorage, ABufferMuchLargerThanNeededIsNotTaken) {
    IxTileStorage::clear();
    { RCShdPtr<IxTile> big(new IxTile(IxPixelFormat{}, GeRectangle<int>(0, 64, 0, 64), Color::ZERO)); }
    RCShdPtr<IxTile> small(new IxTile(IxPixelFormat{}, GeRectangle<int>(0, 4, 0, 4), Color::ZERO));
    EXPECT_EQ(IxTileStorage::keptCount(), 1u);
    IxTileStorage::clear();
    EXPECT_EQ(IxTileStorage::keptCount(), 0u);
}

TEST(HostMemoryImage, GivesItsOwnValidity) {
    auto img = memoryImage(1, 1, coordinatePixels(), IxPixelFormat{}, PxValidityInterval(4.0, 5.0));
    EXPECT_EQ(img->getImage(tileContext(0, 0, 1, 1)).getValidity(), PxValidityInterval(4.0, 5.0));
    EXPECT_EQ(img->getROD(PxImageContext()).validity, PxValidityInterval(4.0, 5.0));
}

TEST(HostMemoryImage, LevelOneIsTheMeanOfTwoByTwo) {
    auto img = memoryImage(4, 4, [](int x, int y) { return Color(float(x), float(y), float(x * y), 1.0f); });
    const PxImageResult r = img->getImage(tileContext(0, 0, 8, 8, 1));
    EXPECT_EQ(pixelOf(r, 1, 0), Color(2.5f, 0.5f, 1.25f, 1.0f));  // x 2,3 by y 0,1: x*y 0,0,2,3
    EXPECT_EQ(pixelOf(r, 1, 1), Color(2.5f, 2.5f, 6.25f, 1.0f));
    EXPECT_EQ(pixelOf(r, 2, 0), Color::ZERO);
}

TEST(HostMemoryImage, PartlyCoveredEdgePixelIsPartlyTransparent) {
    auto img = memoryImage(3, 1, [](int, int) { return Color(1, 1, 1, 1); });
    const PxImageResult r = img->getImage(tileContext(0, 0, 4, 4, 1));
    EXPECT_EQ(pixelOf(r, 0, 0), Color(0.5f, 0.5f, 0.5f, 0.5f));   // 2 of 4 covered
    EXPECT_EQ(pixelOf(r, 1, 0), Color(0.25f, 0.25f, 0.25f, 0.25f));  // 1 of 4
    EXPECT_EQ(pixelOf(r, 2, 0), Color::ZERO);
}

TEST(HostMemoryImage, PixelRectAgreesWithNominalToPixelizedAtEveryLevel) {
    for (int w : {1, 2, 5, 17, 640})
        for (int h : {1, 3, 480})
            for (IxPixelFormat format : {IxPixelFormat{1, 1}, IxPixelFormat{2, 1}, IxPixelFormat{1, 3}})
                for (int level = 0; level < 5; ++level) {
                    PxMemoryImage img(w, h, std::vector<Color>(std::size_t(w) * std::size_t(h)), format);
                    PxImageContext c;
                    c.scaleLevel = level;
                    const float scale = 1.0f / float(1 << level);
                    EXPECT_EQ(img.pixelRect(level), PxImageProtocol::nominalToPixelized(img.getROD(c).rect, format.aspect(), scale))
                        << w << "x" << h << " aspect " << format.aspectNum << "/" << format.aspectDen << " level " << level;
                }
}

TEST(HostMemoryImage, WrongPixelCountIsAnAssertion) {
    EXPECT_THROW(PxMemoryImage(2, 2, std::vector<Color>(3)), ExAssertionFailed);
}

// ---- The sampler --------------------------------------------------------------------------

TEST(HostSampler, AtAPixelsOwnCoordinatesReadsThatPixel) {
    auto img = memoryImage(70, 5, coordinatePixels(1));  // wider than one cache tile
    auto s = samplerOf(img);
    for (int y : {0, 2, 4})
        for (int x : {0, 1, 63, 64, 69}) EXPECT_EQ(sampleAt(*s, x, y), Color(float(x), float(y), 1, 1)) << x << "," << y;
}

TEST(HostSampler, BetweenPixelCentresBlendsBilinearly) {
    auto img = memoryImage(4, 4, coordinatePixels());
    auto s = samplerOf(img);
    expectColorNear(sampleAt(*s, 1.5, 2.0), Color(1.5f, 2.0f, 0, 1));
    expectColorNear(sampleAt(*s, 1.25, 2.75), Color(1.25f, 2.75f, 0, 1));
}

TEST(HostSampler, EdgesBlendToTransparentBlackAndFarOutsideIsFill) {
    auto img = memoryImage(4, 4, [](int, int) { return Color(1, 1, 1, 1); });
    auto s = samplerOf(img);
    expectColorNear(sampleAt(*s, -0.5, 1.0), Color(0.5f, 0.5f, 0.5f, 0.5f));
    expectColorNear(sampleAt(*s, 3.5, 3.5), Color(0.25f, 0.25f, 0.25f, 0.25f));
    EXPECT_EQ(sampleAt(*s, -1.0, 1.0), Color::ZERO);
    EXPECT_EQ(sampleAt(*s, 4.0, 1.0), Color::ZERO);
    EXPECT_EQ(sampleAt(*s, 1e300, 1.0), Color::ZERO);
    EXPECT_EQ(sampleAt(*s, 1.0, -std::numeric_limits<double>::infinity()), Color::ZERO);
    EXPECT_EQ(sampleAt(*s, std::nan(""), 1.0), Color::ZERO);
}

TEST(HostSampler, ReadsTheCurrentPixelAtEveryScaleAndAspect) {
    // x of pixel px is px / scale * aspect and y of row py is py / scale (Part 1.2 steps 21, 22c).
    auto img = memoryImage(8, 8, coordinatePixels(), IxPixelFormat{2, 1});
    for (int level : {0, 1, 2}) {
        auto s = samplerOf(img, level);
        const PxMemoryImage& mem = static_cast<const PxMemoryImage&>(*img);
        const float scale = 1.0f / float(1 << level);
        const GeRectangle<int> r = mem.pixelRect(level);
        for (int py = r.yMin; py < r.yMax; ++py)
            for (int px = r.xMin; px < r.xMax; ++px)
                expectColorNear(sampleAt(*s, double(float(px) / scale * 2.0f), double(float(py) / scale)), mem.pixelAt(px, py, level));
    }
}

// The texture matrix holds 1 / w rounded to float; reading it back exactly keeps a small
// offset far from the origin an offset, and the weights exact (a wide image, a float position
// a few float ulps from a pixel centre, and a half-way one).
TEST(HostSampler, SubPixelOffsetsFarFromTheOriginAreBlendedExactly) {
    auto img = memoryImage(1100, 1, coordinatePixels());
    auto s = samplerOf(img);
    const float near = 1050.0005f;  // 1050.000488..., four float ulps above 1050
    EXPECT_EQ(sampleAt(*s, double(near), 0.0).r, float(double(near) - 1050.0) * 1051.0f + (1.0f - float(double(near) - 1050.0)) * 1050.0f);
    EXPECT_GT(sampleAt(*s, double(near), 0.0).r, 1050.0f);
    EXPECT_EQ(sampleAt(*s, 1098.5, 0.0).r, 1098.5f);
    EXPECT_EQ(sampleAt(*s, 1099.5, 0.0).r, 0.5f * 1099.0f);  // half of the last pixel, half fill
}

// An aspect that no float holds exactly: the current pixel's own x still reads that pixel.
TEST(HostSampler, ReadsTheCurrentPixelWithAnAspectOfFourThirds) {
    auto img = memoryImage(600, 2, coordinatePixels(), IxPixelFormat{4, 3});
    auto s = samplerOf(img);
    const float aspect = IxPixelFormat{4, 3}.aspect();
    for (int px : {0, 1, 2, 3, 299, 598, 599})
        EXPECT_EQ(sampleAt(*s, double(float(px) / 1.0f * aspect), 1.0), Color(float(px), 1, 0, 1)) << px;
}

TEST(HostSampler, FetchesTilesOnlyWhenASampleTouchesThemAndOnce) {
    // Wide enough that x = 450 lies in another sampler tile (256 columns wide, PxImageTexture.cpp).
    RCShdPtr<CountingImage> counted(new CountingImage(memoryImage(600, 3, coordinatePixels())));
    auto s = samplerOf(PxNodePtr<const PxImageProtocol>(counted.get()));
    EXPECT_EQ(counted->imageCalls.load(), 0);
    sampleAt(*s, 10, 1);
    sampleAt(*s, 20.5, 1.5);
    EXPECT_EQ(counted->imageCalls.load(), 1);
    sampleAt(*s, 450, 1);
    EXPECT_EQ(counted->imageCalls.load(), 2);
    sampleAt(*s, -50, 1);  // outside: no fetch
    EXPECT_EQ(counted->imageCalls.load(), 2);
}

TEST(HostSampler, NearestModeReadsTheClosestPixel) {
    auto img = memoryImage(4, 4, coordinatePixels());
    auto s = samplerOf(img, 0, 0);
    EXPECT_EQ(sampleAt(*s, 1.4, 2.6), Color(1, 3, 0, 1));
}

TEST(HostSampler, ClampModeRepeatsTheEdgePixel) {
    auto img = memoryImage(4, 4, coordinatePixels());
    auto s = samplerOf(img, 0, 1, 1);
    EXPECT_EQ(sampleAt(*s, -10.0, 2.0), Color(0, 2, 0, 1));
    EXPECT_EQ(sampleAt(*s, 1e300, 1e300), Color(3, 3, 0, 1));
}

TEST(HostSampler, GoesThroughTheTextureMatrix) {
    // The identity matrix reads the unit square as the position: u = 0.5 is the middle column,
    // less the half pixel that step 16c's matrix adds.
    auto img = memoryImage(4, 1, coordinatePixels());
    SdTextureParams params;
    params.filterMode = 1;
    auto s = PxImageTexture(img, PxTimeScaleContext(), params).createSampler();
    expectColorNear(sampleAt(*s, 0.5, 0.5 / 1.0), Color(1.5f, 0, 0, 1));
}

TEST(HostSampler, LinkSamplerIsHarmless) {
    auto a = samplerOf(memoryImage(2, 2, coordinatePixels(1)));
    auto b = samplerOf(memoryImage(2, 2, coordinatePixels(2)));
    a->linkSampler(b);
    b->linkSampler(a);
    EXPECT_EQ(sampleAt(*a, 1, 1), Color(1, 1, 1, 1));
    EXPECT_EQ(sampleAt(*b, 1, 1), Color(1, 1, 2, 1));
}

// ---- Tile rows -----------------------------------------------------------------------------

TEST(HostTileRows, ReadFromFillsColumnsOutsideTheTileWithItsFillColour) {
    RCShdPtr<IxTile> tile(new IxTile(IxPixelFormat{}, GeRectangle<int>(2, 4, 0, 2), Color::ZERO));
    tile->row(1)[0] = Color(1, 2, 3, 4);
    tile->row(1)[1] = Color(5, 6, 7, 8);
    tile->setFillColor(Color(9, 9, 9, 9));
    IxScanline<Color> row(GeInterval<int>(0, 6), IxPaddingPolicy<Color>{0, Color::ZERO});
    row.readFrom(IxReadGuard(RCShdPtr<const IxTile>(tile.get())), 1);
    EXPECT_EQ(row[0], Color(9, 9, 9, 9));
    EXPECT_EQ(row[1], Color(9, 9, 9, 9));
    EXPECT_EQ(row[2], Color(1, 2, 3, 4));
    EXPECT_EQ(row[3], Color(5, 6, 7, 8));
    EXPECT_EQ(row[4], Color(9, 9, 9, 9));
    EXPECT_EQ(row[5], Color(9, 9, 9, 9));
    row.readFrom(IxReadGuard(RCShdPtr<const IxTile>(tile.get())), 2);  // row outside the tile
    for (int x = 0; x < 6; ++x) EXPECT_EQ(row[x], Color(9, 9, 9, 9));
}

TEST(HostTileRows, WriteToWritesOnlyTheTilesColumnsAndRows) {
    RCShdPtr<IxTile> tile(new IxTile(IxPixelFormat{}, GeRectangle<int>(2, 4, 0, 2), Color(7, 7, 7, 7)));
    IxScanline<Color> row(GeInterval<int>(1, 3), IxPaddingPolicy<Color>{4, Color::ZERO});
    row[1] = Color(1, 1, 1, 1);
    row[2] = Color(2, 2, 2, 2);
    row.writeTo(IxWriteGuard(tile), 0);
    row.writeTo(IxWriteGuard(tile), 5);
    EXPECT_EQ(tile->row(0)[0], Color(2, 2, 2, 2));
    EXPECT_EQ(tile->row(0)[1], Color(7, 7, 7, 7));
    EXPECT_EQ(tile->row(1)[0], Color(7, 7, 7, 7));
}

TEST(HostTileRows, EmptyTileReadsAllFill) {
    RCShdPtr<IxTile> tile(new IxTile(IxPixelFormat{}, GeRectangle<int>(3, 3, 0, 0), Color(1, 0, 0, 0)));
    IxScanline<Color> row(GeInterval<int>(0, 2), IxPaddingPolicy<Color>{0, Color::ZERO});
    row.readFrom(IxReadGuard(RCShdPtr<const IxTile>(tile.get())), 0);
    EXPECT_EQ(row[0], Color(1, 0, 0, 0));
    EXPECT_EQ(row[1], Color(1, 0, 0, 0));
}

// ---- Cancellation --------------------------------------------------------------------------

TEST(HostRequests, CancelMakesCheckRequestThrowUntilReset) {
    PxRequestMgr& requests = PxRequestMgr::getInstance();
    EXPECT_NO_THROW(requests.checkRequest());
    requests.cancel();
    EXPECT_TRUE(requests.isCancelled());
    EXPECT_THROW(requests.checkRequest(), ExCancelled);
    requests.reset();
    EXPECT_NO_THROW(requests.checkRequest());
}

TEST(HostRequests, CheckBudgetLetsThatManyChecksPass) {
    PxRequestMgr& requests = PxRequestMgr::getInstance();
    requests.setCheckBudget(3);
    for (int i = 0; i < 3; ++i) EXPECT_NO_THROW(requests.checkRequest());
    EXPECT_THROW(requests.checkRequest(), ExCancelled);
    EXPECT_THROW(requests.checkRequest(), ExCancelled);
    requests.setCheckBudget(-1);
    EXPECT_NO_THROW(requests.checkRequest());
}
