// Issue 8: the row path of sin, cos and atan2 (IxVectorMath: libmvec's eight-lane functions when
// the machine has them) agrees with the scalar C functions of Part 5.1 to the C library's
// accuracy, gives NaN, infinities and signed zeros as they do, and is what `sin`, `cos` and
// `atan2` compute for a row with every column active.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <vector>

#include "IxVectorMath.h"
#include "kelEvalTestSupport.h"
#include "kelFunctionTestSupport.h"

using namespace Zt;

namespace {

constexpr float kInf = std::numeric_limits<float>::infinity();
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
// glibc's stated bound for these vector functions is a few ulps (libm-test-ulps).
constexpr int64_t kUlps = 4;

int64_t ordered(float v) {
    const int32_t i = std::bit_cast<int32_t>(v);
    return i < 0 ? int64_t(INT32_MIN) - i : i;
}

void expectClose(float actual, float expected, const char* what, float a, float b = 0.0f) {
    if (std::isnan(expected)) {
        EXPECT_TRUE(std::isnan(actual)) << what << "(" << a << ", " << b << ")";
        return;
    }
    if (std::isinf(expected) || expected == 0.0f) {
        EXPECT_EQ(std::bit_cast<uint32_t>(actual), std::bit_cast<uint32_t>(expected)) << what << "(" << a << ", " << b << ")";
        return;
    }
    EXPECT_LE(std::llabs(ordered(actual) - ordered(expected)), kUlps) << what << "(" << a << ", " << b << ") = " << actual
                                                                      << ", C library " << expected;
}

std::vector<float> arguments(unsigned seed, int n) {
    std::vector<float> v{0.0f, -0.0f, kInf, -kInf, kNaN, 1e-30f, -1e-30f, 3.1415927f, -1.5707964f, 1e5f, -1e8f, 1e30f};
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> near(-10.0f, 10.0f), far(-3000.0f, 3000.0f);
    while (int(v.size()) < n) v.push_back(v.size() % 2 ? near(rng) : far(rng));
    return v;
}

TEST(KelFastPathMath, RowsAgreeWithTheScalarCLibrary) {
    const int n = 1003;  // eight-lane blocks and a remainder
    const std::vector<float> a = arguments(1, n), b = arguments(2, n);
    std::vector<float> d(n);
    IxVectorMath::sin(d.data(), a.data(), n);
    for (int i = 0; i < n; ++i) expectClose(d[i], sinf(a[i]), "sin", a[i]);
    IxVectorMath::cos(d.data(), a.data(), n);
    for (int i = 0; i < n; ++i) expectClose(d[i], cosf(a[i]), "cos", a[i]);
    IxVectorMath::atan2(d.data(), a.data(), b.data(), n);
    for (int i = 0; i < n; ++i) expectClose(d[i], atan2f(a[i], b[i]), "atan2", a[i], b[i]);
}

TEST(KelFastPathMath, Atan2OfSignedZerosAndInfinitiesIsTheCLibrarys) {
    const std::vector<float> special{0.0f, -0.0f, 1.0f, -1.0f, kInf, -kInf, kNaN, 2.0f};
    std::vector<float> a, b;
    for (float p : special)
        for (float q : special) {
            a.push_back(p);
            b.push_back(q);
        }
    std::vector<float> d(a.size());
    IxVectorMath::atan2(d.data(), a.data(), b.data(), int(a.size()));
    for (std::size_t i = 0; i < a.size(); ++i) expectClose(d[i], atan2f(a[i], b[i]), "atan2", a[i], b[i]);
}

// In place, as a destination that is its source.
TEST(KelFastPathMath, DestinationMayBeTheSource) {
    std::vector<float> a = arguments(3, 64);
    const std::vector<float> original = a;
    IxVectorMath::sin(a.data(), a.data(), int(a.size()));
    for (std::size_t i = 0; i < a.size(); ++i) expectClose(a[i], sinf(original[i]), "sin", original[i]);
}

}  // namespace

namespace {

// A column's result does not depend on the row around it: tiles of any width give one image.
TEST(KelFastPathMath, AColumnsResultDoesNotDependOnTheRowsLengthOrStart) {
    const std::vector<float> a = arguments(4, 40), b = arguments(5, 40);
    std::vector<float> whole(a.size()), whole2(a.size());
    IxVectorMath::sin(whole.data(), a.data(), int(a.size()));
    IxVectorMath::atan2(whole2.data(), a.data(), b.data(), int(a.size()));
    for (int start = 0; start < 9; ++start)
        for (int length = 1; start + length <= int(a.size()); length += 5) {
            std::vector<float> part(static_cast<std::size_t>(length)), part2(static_cast<std::size_t>(length));
            IxVectorMath::sin(part.data(), a.data() + start, length);
            IxVectorMath::atan2(part2.data(), a.data() + start, b.data() + start, length);
            for (int i = 0; i < length; ++i) {
                EXPECT_EQ(std::bit_cast<uint32_t>(part[std::size_t(i)]), std::bit_cast<uint32_t>(whole[std::size_t(start + i)]))
                    << "sin, start " << start << " length " << length << " column " << i;
                EXPECT_EQ(std::bit_cast<uint32_t>(part2[std::size_t(i)]), std::bit_cast<uint32_t>(whole2[std::size_t(start + i)]))
                    << "atan2, start " << start << " length " << length << " column " << i;
            }
        }
}

}  // namespace

namespace {

// Through the interpreter: a pixel's sin is the same whether its row's mask is full or partial,
// and whatever the tile width (the row path is taken for every row).
TEST(KelFastPathMath, APixelsValueDoesNotDependOnTheMaskOrTheTiling) {
    using namespace Zt::test;
    constexpr int width = 61, height = 4;
    const KelInterpreter interpreter;
    const Vector<PebParameterInfo> params{colorOutput("out")};
    RCShdPtr<PebRunInfo> runInfo = interpreter.createRunInfo(params);
    Vector<PebError> errors;
    ASSERT_TRUE(interpreter.parse("float s = 0; if (x > 20 + y) s = sin(x * 0.731 + y * 9.1); "
                                  "out = color(s, sin(x * 0.731 + y * 9.1), atan2(y - 3, x - 40), cos(x * 3.3));",
                                  runInfo, &errors));
    auto render = [&](int tileWidth) {
        std::vector<Color> pixels(std::size_t(width) * height);
        for (int tx = 0; tx * tileWidth < width; ++tx) {
            PxImageResult r = interpreter.eval(runInfo, {}, {}, rodOf(width, height), IxPixelFormat{},
                                               tileContext(tx, 0, tileWidth, height));
            for (int y = 0; y < height; ++y)
                for (int x = tx * tileWidth; x < std::min(width, (tx + 1) * tileWidth); ++x)
                    pixels[std::size_t(y) * width + std::size_t(x)] = pixelOf(r, x, y);
        }
        return pixels;
    };
    const std::vector<Color> whole = render(width);
    for (int y = 0; y < height; ++y)
        for (int x = 21 + y; x < width; ++x) {
            const Color& c = whole[std::size_t(y) * width + std::size_t(x)];
            EXPECT_EQ(std::bit_cast<uint32_t>(c.r), std::bit_cast<uint32_t>(c.g)) << x << ", " << y;
        }
    for (int tileWidth : {1, 7, 16}) {
        const std::vector<Color> tiled = render(tileWidth);
        for (std::size_t i = 0; i < whole.size(); ++i)
            for (int k = 0; k < 4; ++k)
                EXPECT_EQ(std::bit_cast<uint32_t>(tiled[i][k]), std::bit_cast<uint32_t>(whole[i][k]))
                    << "tile width " << tileWidth << " pixel " << i << " channel " << k;
    }
}

}  // namespace
