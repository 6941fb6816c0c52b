// Programs of strips against the tree walk: each script is compiled with and without programs and
// rendered over an input with NaN, infinities and signed zeros, smaller than the output (its
// edge rows and columns are read through the fill), with tiles of several widths, some not
// filling a strip, and through the tile renderer, which offers its frame's rows to the tiles.
// Every pixel must have the same bits.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <limits>
#include <random>

#include "PxTileRenderer.h"
#include "kelEvalTestSupport.h"

using namespace Zt;
using namespace Zt::test;

namespace {

constexpr int kWidth = 300, kHeight = 6;  // one strip and a part of the next

// clang-format off
const char* const kScripts[] = {
    // arithmetic, comparisons and logic, unary operators, literals folded once
    "float a = x * 0.5 - y; float b = -a / (x - 150); out = color(a, b, a * b + 1, (a < b) + (a >= 0 && b != 0) - !(a == b) + -(2 * 3));",
    // colours with floats, compound stores, equality of colours
    "color c = src * k + color(0.1, -0.2, 0.3, 0) / 3; c -= src * 0.5; c *= 2; out = c - src / c + (src == c) + (src != c);",
    // coherent and scattered masks, NaN conditions, the output read before it is written
    "if (r(src) > 0) out = src * 2; else { if (mod(x, 3) < 1) out = color(g(src), 0, 0, 1); }"
    "if (b(src)) out += 0.5; else out = out * 0.25;",
    // a loop whose pixels leave at different passes
    "float i = 0; float z = r(src); while (z * z < 4 && i < 20) { z = z * z + g(src); i++; } out = color(i / 20, z, 0, 1);",
    // nested for loops, declarations in their bodies, postfix and prefix values, neighbours
    "color s = color(0, 0, 0, 0); for (float j = -2; j <= 2; j++) { for (float i = -2; i <= 2; ++i) { s += sample(src, x + i, y + j); } }"
    "float p = 3; float q = p++ + ++p; float n = q--; out = s / 25 + q + n;",
    // math (vector and scalar), noise and dot, under a mask too
    "out = color(sin(x * 0.1), pow(abs(r(src)), 0.5), noise3D(x * 0.05, y * 0.05, 0.5), dot(src, src));"
    "if (x > 120) { out = color(cos(y), atan2(y, x - 150), sqrt(x), hypot(x, y)); }",
    // statements without a strip form between programs
    "float w = width(src); out = src * (x / w); image i = src; out += sample(i) * 0.5;",
    // a partial first store; a declaration that reads itself; a store of a variable into itself
    "if (x > 10) out = src; float a = x; if (y > 2) { float b = b + a; a = b * 2; } a = a; out += color(a, a, a, 1);",
    // chains of uniform operands on either side, across steps of literals alone
    "out = (2 - src) / color(1.5, -0.5, 0, 4) - 0.25; out += 1 - src * k; out = color(2, 2, 2, 0) / (src + color(-0.1, 0, 0, 0)) * 3;",
    // sums of samples under masks, whole and between pixels; loops over counters (the constant on
    // either side, nested under a mask) and a counter that the body changes under a mask
    "color s = color(0, 0, 0, 0); if (r(src) > 0) { for (float j = 2; -2 <= j; j--) { for (float i = -2; i <= 2; i += 1)"
    " s += sample(src, x + i * 1.5, y + j); } } else { float n = 0; while (n < 3) { s += sample(src, x - n, y); n += 1;"
    " if (x > 100) n += 1; } } out = s;",
    // a channel compared with a constant, each comparison on either side, NaN channels included
    "out = color((r(src) < 0.5) + (g(src) > -0.25) * 2, (b(src) <= 0) + (a(src) >= 1) * 2, (r(src) == 0) + (0.5 != g(src)) * 2,"
    " (-1 < b(src)) + (2 * 0.5 >= a(src)) * 2 + (0 <= r(src)) * 4 + (1 > g(src)) * 8); if (a(src) == a(src)) out += 16;",
    // sampling between pixels under a mask
    "if (g(src) < 0.5) out = sample(src, x + 0.5 * sin(y), y - 0.3); else out = sample(src, x - 1, y + 1);",
};
// clang-format on

PxNodePtr<const PxImageProtocol> input() {
    std::mt19937 rng(3);
    std::uniform_real_distribution<float> value(-2.0f, 2.0f);
    const float specials[] = {std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity(), -0.0f, 0.0f};
    return memoryImage(kWidth - 20, kHeight - 1, [&](int x, int y) {
        Color c(value(rng), value(rng), value(rng), value(rng));
        if ((x * 7 + y * 3) % 41 == 0) c[(x + y) % 4] = specials[(x / 41) % 4];
        return c;
    });
}

RCShdPtr<PebRunInfo> compile(const KelInterpreter& interpreter, const std::string& script, bool programs) {
    RCShdPtr<PebRunInfo> runInfo = interpreter.createRunInfo({imageInput("src"), floatInput("k"), colorOutput("out")});
    static_cast<KelRunInfo&>(*runInfo).compilePrograms = programs;
    Vector<PebError> errors;
    EXPECT_TRUE(interpreter.parse(script, runInfo, &errors)) << script << (errors.empty() ? "" : errors[0].getMessage());
    return runInfo;
}

// The frame of tiles of the given width, each evaluated alone and copied out.
std::vector<Color> render(const KelInterpreter& interpreter, const RCShdPtr<PebRunInfo>& runInfo,
                          const PxNodePtr<const PxImageProtocol>& src, int tileWidth) {
    std::vector<Color> frame(std::size_t(kWidth) * kHeight);
    for (int ty = 0; ty * 3 < kHeight; ++ty)
        for (int tx = 0; tx * tileWidth < kWidth; ++tx) {
            const PxImageResult r =
                interpreter.eval(runInfo, {src}, {0.75}, rodOf(kWidth, kHeight), IxPixelFormat{}, tileContext(tx, ty, tileWidth, 3));
            const GeRectangle<int>& rect = r.getTile()->getRect();
            for (int y = rect.yMin; y < rect.yMax; ++y)
                for (int x = rect.xMin; x < rect.xMax; ++x) frame[std::size_t(y) * kWidth + std::size_t(x)] = pixelOf(r, x, y);
        }
    return frame;
}

// The script as a node of the processing graph, for the tile renderer.
class ScriptNode : public PxImageProtocol {
public:
    ScriptNode(const KelInterpreter& interpreter, RCShdPtr<PebRunInfo> runInfo, PxNodePtr<const PxImageProtocol> src)
        : _interpreter(interpreter), _runInfo(std::move(runInfo)), _src(std::move(src)) {}
    PxImageFormat getFormat() const override { return {}; }
    PxRODResult getROD(const PxImageContext&) const override { return rodOf(kWidth, kHeight); }
    PxImageResult getImage(const PxImageContext& context) const override {
        return _interpreter.eval(_runInfo, {_src}, {0.75}, rodOf(kWidth, kHeight), IxPixelFormat{}, context);
    }

private:
    const KelInterpreter& _interpreter;
    RCShdPtr<PebRunInfo> _runInfo;
    PxNodePtr<const PxImageProtocol> _src;
};

bool sameBits(const Color& a, const Color& b) {
    for (int c = 0; c < 4; ++c)
        if (std::bit_cast<uint32_t>(a[c]) != std::bit_cast<uint32_t>(b[c])) return false;
    return true;
}

TEST(KelFastPathProgram, ProgramsRenderTheTreeWalksPixelsOnEveryTiling) {
    const KelInterpreter interpreter;
    const auto src = input();
    for (const char* script : kScripts) {
        SCOPED_TRACE(script);
        const std::vector<Color> plain = render(interpreter, compile(interpreter, script, false), src, kWidth);
        const RCShdPtr<PebRunInfo> fused = compile(interpreter, script, true);
        for (int tileWidth : {1, 7, 64, kWidth}) {
            const std::vector<Color> frame = render(interpreter, fused, src, tileWidth);
            for (std::size_t i = 0; i < frame.size(); ++i)
                ASSERT_TRUE(sameBits(frame[i], plain[i])) << "tile width " << tileWidth << ", pixel " << i % kWidth << ", "
                                                          << i / kWidth;
        }
        // The renderer's tiles write straight into its frame, the last column of tiles partly.
        const ScriptNode node(interpreter, fused, src);
        const PxRenderedImage image = PxTileRenderer(2).render(node, GeRectangle<int>(0, kWidth, 0, kHeight), tileContext(0, 0, 128, 4));
        for (std::size_t i = 0; i < plain.size(); ++i) ASSERT_TRUE(sameBits(image.pixels[i], plain[i])) << "renderer, pixel " << i;
    }
}

}  // namespace
