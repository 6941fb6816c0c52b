// Part 5.4: noise3D against an independent, straightforward transcription of the spec (std::floor,
// nested permutation lookups), and the range of rand's numbers.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>

#include "kelFunctionTestSupport.h"

using namespace Zt;
using namespace Zt::test;

namespace {

// clang-format off
// Part 5.4's list, transcribed again here so that a slip in either copy shows.
const int kSpecPermutation[256] = {
    205,240,162,226,237,136,227,152,188,102,193,124,244,219,71,150,246,108,94,17,175,47,64,66,65,7,222,76,138,99,77,81,
    192,155,56,39,25,3,151,101,61,68,172,167,24,160,97,19,179,180,198,33,21,224,197,15,120,196,239,44,83,38,46,103,
    84,95,213,200,170,23,70,149,163,148,251,186,211,189,100,42,191,52,72,53,67,215,245,207,144,146,45,181,93,147,153,80,
    116,114,49,4,88,16,90,127,255,202,85,55,178,221,229,10,13,105,177,58,0,60,234,34,50,141,242,156,134,28,176,118,
    48,1,210,6,187,119,243,128,232,166,5,236,137,73,253,217,214,212,69,111,79,184,51,87,216,135,168,158,249,92,35,182,
    107,235,126,31,2,254,133,233,18,201,174,8,159,82,37,113,9,63,41,104,59,26,231,145,89,122,110,142,86,164,29,30,
    169,154,223,112,140,78,75,220,238,54,143,195,131,130,228,139,121,109,12,161,125,57,74,190,250,171,209,199,40,123,204,247,
    183,173,98,185,208,248,241,14,27,203,218,230,43,96,22,194,129,11,115,165,32,132,91,36,157,117,225,206,20,106,62,252,
};
const float kSpecGradients[16][3] = {
    {1,1,0},{-1,1,0},{1,-1,0},{-1,-1,0},{1,0,1},{-1,0,1},{1,0,-1},{-1,0,-1},
    {0,1,1},{0,-1,1},{0,1,-1},{0,-1,-1},{1,1,0},{0,-1,1},{-1,1,0},{0,-1,-1},
};
const float kSpecCorners[8][3] = {{0,0,0},{0,1,0},{1,0,0},{1,1,0},{0,0,1},{0,1,1},{1,0,1},{1,1,1}};
// clang-format on

int perm(int i) { return kSpecPermutation[i % 256]; }

// Improved noise written the plain way: hash(i, j, k) = P[P[P[X + i] + Y + j] + Z + k].
float referenceNoise(float x, float y, float z) {
    const float fl[3] = {std::floor(x), std::floor(y), std::floor(z)};
    const float f[3] = {x - fl[0], y - fl[1], z - fl[2]};
    int cell[3];
    for (int a = 0; a < 3; ++a) cell[a] = ((long long)fl[a] % 256 + 256) % 256;
    auto fade = [](float t) { return t * t * t * ((6.0f * t - 15.0f) * t + 10.0f); };
    auto lerp = [](float s, float p, float q) { return p + (q - p) * s; };
    float g[2][2][2];
    for (int i = 0; i < 2; ++i)
        for (int j = 0; j < 2; ++j)
            for (int k = 0; k < 2; ++k) {
                int hash = perm(perm(perm(cell[0] + i) + cell[1] + j) + cell[2] + k);
                const float* d = kSpecGradients[hash & 15];
                g[i][j][k] = (f[0] - i) * d[0] + (f[1] - j) * d[1] + (f[2] - k) * d[2];
            }
    float u = fade(f[0]), v = fade(f[1]), w = fade(f[2]);
    float f0 = lerp(v, lerp(u, g[0][0][0], g[1][0][0]), lerp(u, g[0][1][0], g[1][1][0]));
    float f1 = lerp(v, lerp(u, g[0][0][1], g[1][0][1]), lerp(u, g[0][1][1], g[1][1][1]));
    return lerp(w, f0, f1);
}

// A deterministic stream of coordinates in [-range, range).
struct Lcg {
    uint32_t state;
    float next(float range) {
        state = state * 1664525u + 1013904223u;
        return (float(state >> 8) / float(1 << 24) * 2.0f - 1.0f) * range;
    }
};

std::vector<float> noiseRow(CallHarness& h, const std::vector<float>& xs, const std::vector<float>& ys,
                            const std::vector<float>& zs) {
    auto node = h.call<FunctionNoise3D>("noise3D", {h.floats(xs), h.floats(ys), h.floats(zs)});
    return CallHarness::row(node->eval(h.context));
}

float noiseAt(float x, float y, float z) {
    CallHarness h(0, 1);
    return noiseRow(h, {x}, {y}, {z})[0];
}

}  // namespace

TEST(KelFunctionsNoise, TablesAreThoseOfTheSpec) {
    for (int i = 0; i < 512; ++i) ASSERT_EQ(KelNoise::permutation[i], kSpecPermutation[i % 256]) << i;
    for (int i = 0; i < 16; ++i)
        for (int k = 0; k < 3; ++k) EXPECT_EQ(KelNoise::gradients[i][k], kSpecGradients[i][k]) << i;
    for (int i = 0; i < 8; ++i)
        for (int k = 0; k < 3; ++k) EXPECT_EQ(KelNoise::cornerOffsets[i][k], kSpecCorners[i][k]) << i;
    // The list is a permutation of 0..255.
    std::vector<int> seen(256, 0);
    for (int v : kSpecPermutation) ++seen.at(std::size_t(v));
    EXPECT_EQ(std::count(seen.begin(), seen.end(), 1), 256);
}

// Several hundred points, negative and non-integer, through the node, row by row.
TEST(KelFunctionsNoise, AgreesWithAStraightforwardReference) {
    Lcg rng{12345};
    for (int rowIndex = 0; rowIndex < 12; ++rowIndex) {
        const float range = rowIndex < 4 ? 3.0f : rowIndex < 8 ? 40.0f : 700.0f;
        std::vector<float> xs, ys, zs;
        for (int i = 0; i < 32; ++i) {
            xs.push_back(rng.next(range));
            ys.push_back(rng.next(range));
            zs.push_back(rng.next(range));
        }
        CallHarness h(-16, 16);
        std::vector<float> got = noiseRow(h, xs, ys, zs);
        for (int i = 0; i < 32; ++i)
            EXPECT_NEAR(got[i], referenceNoise(xs[i], ys[i], zs[i]), 1e-6f)
                << "at (" << xs[i] << ", " << ys[i] << ", " << zs[i] << ")";
    }
}

TEST(KelFunctionsNoise, ValuesVaryAndStayBounded) {
    Lcg rng{99};
    float lo = 0, hi = 0;
    for (int i = 0; i < 500; ++i) {
        float n = noiseAt(rng.next(50), rng.next(50), rng.next(50));
        lo = std::min(lo, n);
        hi = std::max(hi, n);
    }
    EXPECT_LT(lo, -0.3f);
    EXPECT_GT(hi, 0.3f);
    EXPECT_LE(hi, 1.5f);
    EXPECT_GE(lo, -1.5f);
}

TEST(KelFunctionsNoise, ZeroAtWholeCoordinates) {
    EXPECT_EQ(noiseAt(0, 0, 0), 0.0f);
    for (float x : {-300.0f, -257.0f, -1.0f, 0.0f, 1.0f, 7.0f, 255.0f, 256.0f, 1000.0f})
        for (float y : {-2.0f, 0.0f, 3.0f, 129.0f})
            for (float z : {-1.0f, 4.0f, 200.0f}) EXPECT_EQ(noiseAt(x, y, z), 0.0f) << x << "," << y << "," << z;
}

// A truncating floor would show a seam at each axis.
TEST(KelFunctionsNoise, ContinuousAcrossZero) {
    const float eps = 0.0001f;
    for (float a : {0.3f, 1.7f, -2.45f})
        for (float b : {0.61f, -0.2f, 5.5f}) {
            EXPECT_NEAR(noiseAt(-eps, a, b), noiseAt(eps, a, b), 1e-3f);
            EXPECT_NEAR(noiseAt(a, -eps, b), noiseAt(a, eps, b), 1e-3f);
            EXPECT_NEAR(noiseAt(a, b, -eps), noiseAt(a, b, eps), 1e-3f);
        }
    // Across a negative whole number too.
    EXPECT_NEAR(noiseAt(-3.0f - eps, 0.4f, 0.7f), noiseAt(-3.0f + eps, 0.4f, 0.7f), 1e-3f);
}

// The field repeats every 256 units in each axis (fractions chosen exact in both places).
TEST(KelFunctionsNoise, PeriodicEvery256Units) {
    EXPECT_EQ(noiseAt(1, 2, 3), noiseAt(257, 2, 3));
    for (float x : {0.125f, 1.5f, -3.75f, 10.625f})
        for (float y : {0.25f, -7.875f})
            for (float z : {2.375f, -0.5f}) {
                float n = noiseAt(x, y, z);
                EXPECT_NE(n, 0.0f);
                EXPECT_EQ(noiseAt(x + 256, y, z), n);
                EXPECT_EQ(noiseAt(x, y - 256, z), n);
                EXPECT_EQ(noiseAt(x, y, z + 512), n);
            }
}

// noise3D ignores the mask: inactive columns are computed too.
TEST(KelFunctionsNoise, IgnoresTheMask) {
    CallHarness h(0, 4);
    auto node = h.call<FunctionNoise3D>(
        "noise3D", {h.floats({0.5f, 1.25f, -2.5f, 3.3f}), h.constant(0.75f), h.floats({0.1f, 0.2f, 0.3f, 0.4f})});
    h.narrowTo({0, 1, 0, 0});
    h.prefillFloat(-999.0f);
    std::vector<float> got = CallHarness::row(node->eval(h.context));
    const float xs[] = {0.5f, 1.25f, -2.5f, 3.3f}, zs[] = {0.1f, 0.2f, 0.3f, 0.4f};
    for (int i = 0; i < 4; ++i) EXPECT_NEAR(got[i], referenceNoise(xs[i], 0.75f, zs[i]), 1e-6f) << i;
}

TEST(KelFunctionsNoise, NaNCoordinateGivesNaN) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    EXPECT_TRUE(std::isnan(noiseAt(nan, 0.5f, 0.5f)));
    EXPECT_TRUE(std::isnan(noiseAt(0.5f, -nan, 0.5f)));
    EXPECT_TRUE(std::isnan(noiseAt(0.5f, 0.5f, std::numeric_limits<float>::infinity())));
}

// ---- rand ---------------------------------------------------------------------------------------

TEST(KelFunctionsRand, NumbersMapOntoTheClosedUnitRange) {
    EXPECT_EQ(FunctionRand::toUnit(0), 0.0f);
    EXPECT_EQ(FunctionRand::toUnit(32767), 1.0f);
    EXPECT_EQ(FunctionRand::toUnit(16384), 16384.0f / 32767.0f);
}

TEST(KelFunctionsRand, StaysWithinZeroAndOne) {
    CallHarness h(0, 256);
    auto node = h.call<FunctionRand>("rand", {});
    float lo = 1, hi = 0;
    for (int i = 0; i < 40; ++i)
        for (float v : CallHarness::row(node->eval(h.context))) {
            ASSERT_GE(v, 0.0f);
            ASSERT_LE(v, 1.0f);
            lo = std::min(lo, v);
            hi = std::max(hi, v);
        }
    EXPECT_LT(lo, 0.01f);
    EXPECT_GT(hi, 0.99f);
}

// The same call run again in the same row, as on a loop's next pass, draws new numbers.
TEST(KelFunctionsRand, EachEvaluationDrawsNewNumbers) {
    CallHarness h(0, 16);
    auto node = h.call<FunctionRand>("rand", {});
    std::vector<float> first = CallHarness::row(node->eval(h.context));
    std::vector<float> second = CallHarness::row(node->eval(h.context));
    EXPECT_NE(first, second);
    EXPECT_FALSE(node->eval(h.context)->isUniform());
}
