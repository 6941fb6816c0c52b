// The sampler's row paths against its pixel path: rows of positions one pixel apart at whole
// coordinates (a neighbourhood read, shifted across the image's edges and the sampler's tile
// borders) and rows that share one y (a warp), in every filter and wrap mode, under a mask and
// without, at full resolution and at a reduced scale. sampleRow must give sampleAt's bits.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <limits>
#include <random>

#include "kelEvalTestSupport.h"

using namespace Zt;
using namespace Zt::test;

namespace {

constexpr int kWidth = 300, kHeight = 40;  // more than one sampler tile each way

RCStrongPtr<const SdTextureSampler> samplerOf(const PxNodePtr<const PxImageProtocol>& node, int filterMode, int wrapMode,
                                              int scaleLevel) {
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
                    const Color untouched(-7, -7, -7, -7);
                    std::vector<Color> whole(n, untouched), masked(n, untouched);
                    sampler->sampleRow(whole.data() - lo, xs.data() - lo, ys.data() - lo, nullptr, lo, hi);
                    sampler->sampleRow(masked.data() - lo, xs.data() - lo, ys.data() - lo, active.data() - lo, lo, hi);
                    GeLinearMatrix2<double> identity;
                    for (std::size_t i = 0; i < xs.size(); ++i) {
                        Color expected;
                        const double coords[2] = {double(xs[i]), double(ys[i])};
                        sampler->sampleAt(expected, coords, identity);
                        ASSERT_TRUE(sameBits(whole[i], expected)) << row.name << ", scale " << scaleLevel << " filter " << filter
                                                                  << " wrap " << wrap << " column " << int(i) + lo;
                        ASSERT_TRUE(sameBits(masked[i], active[i] != 0.0f ? expected : untouched)) << row.name << " masked";
                    }
                }
            }
}

}  // namespace
