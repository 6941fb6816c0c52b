// Issue 8: the sampler's row path (SdTextureSampler::sampleRow, no virtual call per pixel) gives
// the colours of sampleAt, pixel for pixel and bit for bit, across the sampler's tile borders,
// outside the image, at NaN and infinite positions, in both filter and wrap modes, and leaves
// the inactive columns alone; and `sample(i, x, y)` through it renders what the per-column path
// renders.
#include <gtest/gtest.h>

#include <bit>
#include <functional>
#include <cmath>
#include <limits>
#include <random>
#include <string>

#include "kelEvalTestSupport.h"

using namespace Zt;
using namespace Zt::test;

namespace {

constexpr int kWidth = 300, kHeight = 40;  // more than one sampler tile each way

PxNodePtr<const PxImageProtocol> randomImage() {
    std::mt19937 rng(5);
    std::uniform_real_distribution<float> d(-2.0f, 2.0f);
    return memoryImage(kWidth, kHeight, [&](int, int) { return Color(d(rng), d(rng), d(rng), d(rng)); });
}

RCStrongPtr<const SdTextureSampler> samplerOf(const PxNodePtr<const PxImageProtocol>& node, int filterMode, int wrapMode,
                                              int scaleLevel = 0) {
    PxImageContext context;
    context.scaleLevel = scaleLevel;
    const GeRectangle<float> r = node->getROD(context).rect;
    SdTextureParams params;
    params.textureMatrix.m[0][0] = 1.0f / (r.xMax - r.xMin);
    params.textureMatrix.m[1][1] = 1.0f / (r.yMax - r.yMin);
    params.textureMatrix.m[2][0] = (0.5f - r.xMin) / (r.xMax - r.xMin);
    params.textureMatrix.m[2][1] = (0.5f - r.yMin) / (r.yMax - r.yMin);
    params.filterMode = filterMode;
    params.wrapModeS = wrapMode;
    params.wrapModeT = wrapMode;
    return PxImageTexture(node, context.timeScale(), params).createSampler();
}

bool sameBits(const Color& a, const Color& b) {
    for (int c = 0; c < 4; ++c)
        if (std::bit_cast<uint32_t>(a[c]) != std::bit_cast<uint32_t>(b[c])) return false;
    return true;
}

// sampleRow over the positions from column lo, without a mask and under `active`, against
// sampleAt column by column: the same bits, and the inactive columns left alone.
void expectRowEqualsPixels(const SdTextureSampler& sampler, const std::vector<float>& xs, const std::vector<float>& ys,
                           const std::vector<float>& active, int lo, const std::string& what) {
    const int hi = lo + int(xs.size());
    const Color untouched(-7, -7, -7, -7);
    std::vector<Color> whole(xs.size(), untouched), masked(xs.size(), untouched);
    sampler.sampleRow(whole.data() - lo, xs.data() - lo, ys.data() - lo, nullptr, lo, hi);
    sampler.sampleRow(masked.data() - lo, xs.data() - lo, ys.data() - lo, active.data() - lo, lo, hi);
    GeLinearMatrix2<double> identity;
    for (std::size_t i = 0; i < xs.size(); ++i) {
        Color expected;
        const double coords[2] = {double(xs[i]), double(ys[i])};
        sampler.sampleAt(expected, coords, identity);
        EXPECT_TRUE(sameBits(whole[i], expected)) << what << ", column " << int(i) + lo;
        EXPECT_TRUE(sameBits(masked[i], active[i] != 0.0f ? expected : untouched)) << what << ", masked column " << int(i) + lo;
    }
}

TEST(KelFastPathSampler, SampleRowEqualsSampleAtPixelForPixel) {
    const auto image = randomImage();
    constexpr int lo = -5, hi = 600;
    std::vector<float> xs(hi - lo), ys(hi - lo), active(hi - lo);
    std::mt19937 rng(9);
    std::uniform_real_distribution<float> px(-3.0f, kWidth + 3.0f), py(-3.0f, kHeight + 3.0f);
    for (std::size_t i = 0; i < xs.size(); ++i) {
        xs[i] = i % 7 == 0 ? std::floor(px(rng)) : px(rng);  // pixel centres too
        ys[i] = py(rng);
        active[i] = i % 5 == 0 ? 0.0f : 1.0f;
    }
    xs[3] = std::numeric_limits<float>::quiet_NaN();
    ys[4] = std::numeric_limits<float>::infinity();
    xs[5] = -std::numeric_limits<float>::infinity();
    for (int filter : {0, 1})
        for (int wrap : {0, 1}) {
            expectRowEqualsPixels(*samplerOf(image, filter, wrap), xs, ys, active, lo,
                                  "filter " + std::to_string(filter) + " wrap " + std::to_string(wrap));
        }
}

// The same warp through a uniform image value (the row path) and through an image variable,
// whose value is not uniform after its assignment (the per-column path), inside an `if` so that
// the mask is partial in some rows.
TEST(KelFastPathSampler, ScriptSamplingThroughTheRowPathRendersThePerColumnPixels) {
    const auto image = randomImage();
    const KelInterpreter interpreter;
    const Vector<PebParameterInfo> params{imageInput("src"), colorOutput("out")};
    auto render = [&](const std::string& script) {
        RCShdPtr<PebRunInfo> runInfo = interpreter.createRunInfo(params);
        Vector<PebError> errors;
        EXPECT_TRUE(interpreter.parse(script, runInfo, &errors)) << script;
        return interpreter.eval(runInfo, {image}, {}, rodOf(kWidth, kHeight), IxPixelFormat{}, tileContext(0, 0, kWidth, kHeight));
    };
    const PxImageResult fast = render("if (x > y * 3) out = sample(src, x + 7.5 * sin(y * 0.3), y - 0.25 * x);");
    const PxImageResult plain =
        render("image i = src; if (x > y * 3) out = sample(i, x + 7.5 * sin(y * 0.3), y - 0.25 * x);");
    for (int y = 0; y < kHeight; ++y)
        for (int x = 0; x < kWidth; ++x)
            ASSERT_TRUE(sameBits(pixelOf(fast, x, y), pixelOf(plain, x, y))) << x << ", " << y;
}

// The row paths: positions one pixel apart at whole coordinates (a neighbourhood read, shifted
// across the image's edges and the sampler's tile borders) and rows that share one y (a warp),
// at two scales; a signalling NaN comes out as the filter's multiply gives it.
TEST(KelFastPathSamplerRows, RowPathsGiveThePixelPathsColours) {
    std::mt19937 rng(11);
    std::uniform_real_distribution<float> value(-2.0f, 2.0f);
    const auto image = memoryImage(kWidth, kHeight, [&](int x, int y) {
        Color c(value(rng), value(rng), value(rng), value(rng));
        if ((x + 3 * y) % 37 == 0) c.g = std::numeric_limits<float>::infinity();
        if ((2 * x + y) % 41 == 0) c.b = std::numeric_limits<float>::signaling_NaN();  // the filter quiets it
        return c;
    });
    constexpr int lo = -9, hi = 520;
    constexpr std::size_t n = hi - lo;
    // Each row of positions: x(column), y.
    struct Positions {
        const char* name;
        std::function<float(int)> x;
        float y;
    };
    std::uniform_real_distribution<float> jitter(-0.7f, 0.7f);
    std::vector<float> warp(n);
    for (float& w : warp) w = jitter(rng);
    const Positions rows[] = {
        {"shifted right, across tiles", [](int x) { return float(x + 3); }, 17.0f},
        {"shifted left, first row", [](int x) { return float(x - 250); }, 0.0f},
        {"last row", [](int x) { return float(x); }, float(kHeight - 1)},
        {"below the image", [](int x) { return float(x); }, -1.0f},
        {"above the image", [](int x) { return float(x + 1); }, float(kHeight)},
        {"one y, between pixels", [&](int x) { return float(x) + warp[std::size_t(x - lo)]; }, 15.5f},
        {"one y, on a pixel row", [&](int x) { return float(x) * 0.75f + warp[std::size_t(x - lo)]; }, 31.0f},
        {"one y, infinite x", [](int x) { return x % 5 ? float(x) : std::numeric_limits<float>::infinity(); }, 3.25f},
        {"one NaN y", [](int x) { return float(x); }, std::numeric_limits<float>::quiet_NaN()},
    };
    std::vector<float> active(n);
    for (std::size_t i = 0; i < n; ++i) active[i] = (i / 13) % 3 == 0 ? 0.0f : 1.0f;
    for (int scaleLevel : {0, 1})
        for (int filter : {0, 1})
            for (int wrap : {0, 1}) {
                const auto sampler = samplerOf(image, filter, wrap, scaleLevel);
                for (const Positions& row : rows) {
                    std::vector<float> xs(n), ys(n, row.y);
                    for (int x = lo; x < hi; ++x) xs[std::size_t(x - lo)] = row.x(x);
                    expectRowEqualsPixels(*sampler, xs, ys, active, lo,
                                          std::string(row.name) + ", scale " + std::to_string(scaleLevel) + " filter " +
                                              std::to_string(filter) + " wrap " + std::to_string(wrap));
                }
            }
}

}  // namespace
