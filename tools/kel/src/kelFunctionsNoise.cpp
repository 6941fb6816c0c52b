// Noise and random numbers. `noise3D` is improved Perlin noise over KEL's own permutation table,
// computed in a fixed order of float operations (floor by bit pattern, fifth-degree fade, twelve
// edge gradients padded to sixteen) so that a script's noise is the same everywhere. `rand` is a
// hash of its keys, not a sequence: a pixel's number depends on the seed, the time, the pixel,
// the call and how often that call already ran for the pixel in this row, and on nothing else,
// so that threads, tiles and the way frames are shared out cannot change a picture.
#include <bit>
#include <cstdint>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "kelFunctions.h"

namespace Zt {

float KelNoise::cornerOffsets[8][3];
float KelNoise::gradients[16][3];
int KelNoise::permutation[512];

namespace {

// clang-format off
// A permutation of 0..255, KEL's own; the table repeats it once so that P[i + 1] needs no wrap.
constexpr int kPermutation[256] = {
    205, 240, 162, 226, 237, 136, 227, 152, 188, 102, 193, 124, 244, 219,  71, 150,
    246, 108,  94,  17, 175,  47,  64,  66,  65,   7, 222,  76, 138,  99,  77,  81,
    192, 155,  56,  39,  25,   3, 151, 101,  61,  68, 172, 167,  24, 160,  97,  19,
    179, 180, 198,  33,  21, 224, 197,  15, 120, 196, 239,  44,  83,  38,  46, 103,
     84,  95, 213, 200, 170,  23,  70, 149, 163, 148, 251, 186, 211, 189, 100,  42,
    191,  52,  72,  53,  67, 215, 245, 207, 144, 146,  45, 181,  93, 147, 153,  80,
    116, 114,  49,   4,  88,  16,  90, 127, 255, 202,  85,  55, 178, 221, 229,  10,
     13, 105, 177,  58,   0,  60, 234,  34,  50, 141, 242, 156, 134,  28, 176, 118,
     48,   1, 210,   6, 187, 119, 243, 128, 232, 166,   5, 236, 137,  73, 253, 217,
    214, 212,  69, 111,  79, 184,  51,  87, 216, 135, 168, 158, 249,  92,  35, 182,
    107, 235, 126,  31,   2, 254, 133, 233,  18, 201, 174,   8, 159,  82,  37, 113,
      9,  63,  41, 104,  59,  26, 231, 145,  89, 122, 110, 142,  86, 164,  29,  30,
    169, 154, 223, 112, 140,  78,  75, 220, 238,  54, 143, 195, 131, 130, 228, 139,
    121, 109,  12, 161, 125,  57,  74, 190, 250, 171, 209, 199,  40, 123, 204, 247,
    183, 173,  98, 185, 208, 248, 241,  14,  27, 203, 218, 230,  43,  96,  22, 194,
    129,  11, 115, 165,  32, 132,  91,  36, 157, 117, 225, 206,  20, 106,  62, 252,
};

constexpr bool isPermutationOf256(const int (&list)[256]) {
    bool seen[256] = {};
    for (int v : list) {
        if (v < 0 || v > 255 || seen[v]) return false;
        seen[v] = true;
    }
    return true;
}
static_assert(isPermutationOf256(kPermutation), "a permutation of 0 to 255");

// The twelve edge directions of improved noise, padded to sixteen rows.
constexpr float kGradients[16][3] = {
    { 1,  1,  0}, {-1,  1,  0}, { 1, -1,  0}, {-1, -1,  0},
    { 1,  0,  1}, {-1,  0,  1}, { 1,  0, -1}, {-1,  0, -1},
    { 0,  1,  1}, { 0, -1,  1}, { 0,  1, -1}, { 0, -1, -1},
    { 1,  1,  0}, { 0, -1,  1}, {-1,  1,  0}, { 0, -1, -1},
};

// The cube's corners in the order of their hashes in `noise`.
constexpr float kCornerOffsets[8][3] = {
    {0, 0, 0}, {0, 1, 0}, {1, 0, 0}, {1, 1, 0},
    {0, 0, 1}, {0, 1, 1}, {1, 0, 1}, {1, 1, 1},
};
// clang-format on

// Float to 32-bit integer by truncation; out of range or NaN gives the conversion's overflow
// value (0x80000000 on x86) rather than undefined behaviour.
int32_t truncateToInt(float v) {
#if defined(__SSE2__)
    return _mm_cvttss_si32(_mm_set_ss(v));
#else
    return static_cast<int32_t>(v);
#endif
}

// Floor without a library call. For a negative value (or NaN), one step down in the bit
// pattern moves it toward zero by one ulp, so that truncating and subtracting 1 is exact for
// negative whole numbers too.
int32_t floorByBits(float v) {
    if (v >= 0.0f) return truncateToInt(v);
    // Unsigned, so that the overflow value of a NaN wraps instead of overflowing.
    const uint32_t truncated = uint32_t(truncateToInt(std::bit_cast<float>(std::bit_cast<uint32_t>(v) - 1u)));
    return int32_t(truncated - 1u);
}

float fade(float t) { return t * t * t * ((6.0f * t - 15.0f) * t + 10.0f); }

float lerp(float s, float p, float q) { return p + (q - p) * s; }

// The cube of lattice cell (X, Y, Z): the gradient of each corner, in the order of cornerOffsets:
// (000) (010) (100) (110) (001) (011) (101) (111).
struct NoiseCell {
    const float* gradient[8];
};

[[gnu::always_inline]] inline NoiseCell cellAt(int X, int Y, int Z) {
    const int* P = KelNoise::permutation;
    const int A = P[X] + Y, B = P[X + 1] + Y;
    const int AA = P[A] + Z, AB = P[A + 1] + Z, BA = P[B] + Z, BB = P[B + 1] + Z;
    const int hashes[8] = {P[AA], P[AB], P[BA], P[BB], P[AA + 1], P[AB + 1], P[BA + 1], P[BB + 1]};
    NoiseCell cell;
#pragma GCC unroll 8
    for (int c = 0; c < 8; ++c) cell.gradient[c] = KelNoise::gradients[hashes[c] & 15];
    return cell;
}

// Each corner's gradient dotted with the offset from the corner is added from the left, x first:
// the y and z products are the same for a whole row of one y and z, and are kept.
struct NoiseTerms {
    float y[8], z[8];
};

[[gnu::always_inline]] inline NoiseTerms termsOf(const NoiseCell& cell, float fy, float fz) {
    NoiseTerms terms;
#pragma GCC unroll 8
    for (int c = 0; c < 8; ++c) {
        terms.y[c] = (fy - KelNoise::cornerOffsets[c][1]) * cell.gradient[c][1];
        terms.z[c] = (fz - KelNoise::cornerOffsets[c][2]) * cell.gradient[c][2];
    }
    return terms;
}

[[gnu::always_inline]] inline float blend(const NoiseCell& cell, const NoiseTerms& terms, float fx, float v, float w) {
    float g[8];
#pragma GCC unroll 8
    for (int c = 0; c < 8; ++c) g[c] = (fx - KelNoise::cornerOffsets[c][0]) * cell.gradient[c][0] + terms.y[c] + terms.z[c];
    const float u = fade(fx);
    const float f0 = lerp(v, lerp(u, g[0], g[2]), lerp(u, g[1], g[3]));
    const float f1 = lerp(v, lerp(u, g[4], g[6]), lerp(u, g[5], g[7]));
    return lerp(w, f0, f1);
}

// Whether every column of [lo, hi) holds the bits of column lo: bits, since 0.0 and -0.0 can give
// zeros of different signs.
bool sameBits(const float* row, int lo, int hi) {
    const uint32_t first = std::bit_cast<uint32_t>(row[lo]);
    bool same = true;
    for (int x = lo + 1; x < hi; ++x) same &= std::bit_cast<uint32_t>(row[x]) == first;
    return same;
}

// A row of one y and one z, as scripts most often ask (noise3D(x * s, y * s, t)): the cell
// changes only where x crosses a lattice line, so the table lookups and the y and z terms are
// made once per cell, and each column blends alone. The same operations as KelNoise::noise.
void noiseOfOnePlane(float* d, const float* px, float y, float z, int lo, int hi) {
    const int32_t iy = floorByBits(y), iz = floorByBits(z);
    const int Y = iy & 255, Z = iz & 255;
    const float fy = y - float(iy), fz = z - float(iz);
    const float v = fade(fy), w = fade(fz);
    int cellX = -1;
    NoiseCell cell{};
    NoiseTerms terms{};
    for (int x = lo; x < hi; ++x) {
        const int32_t ix = floorByBits(px[x]);
        if ((ix & 255) != cellX) {
            cellX = ix & 255;
            cell = cellAt(cellX, Y, Z);
            terms = termsOf(cell, fy, fz);
        }
        d[x] = blend(cell, terms, px[x] - float(ix), v, w);
    }
}

}  // namespace

void KelNoise::buildTables() {
    for (int i = 0; i < 512; ++i) permutation[i] = kPermutation[i & 255];
    for (int i = 0; i < 16; ++i)
        for (int k = 0; k < 3; ++k) gradients[i][k] = kGradients[i][k];
    for (int i = 0; i < 8; ++i)
        for (int k = 0; k < 3; ++k) cornerOffsets[i][k] = kCornerOffsets[i][k];
}

float KelNoise::noise(float x, float y, float z) {
    const int32_t ix = floorByBits(x), iy = floorByBits(y), iz = floorByBits(z);
    const float fx = x - float(ix), fy = y - float(iy), fz = z - float(iz);
    const NoiseCell cell = cellAt(ix & 255, iy & 255, iz & 255);
    return blend(cell, termsOf(cell, fy, fz), fx, fade(fy), fade(fz));
}

void FunctionNoise3D::declare(FunctionCallNode& node) {
    kelDeclareOverload(node, 0, KelValueTypes::Float, {KelValueTypes::Float, KelValueTypes::Float, KelValueTypes::Float});
}

// Every column, active or not: the mask plays no part.
void FunctionNoise3D::rows(const KelRowCall& call) {
    float* d = static_cast<IxScanline<float>*>(call.result)->data();
    auto row = [&](int i) { return static_cast<const IxScanline<float>*>(call.arguments[i])->data(); };
    const float *px = row(0), *py = row(1), *pz = row(2);
    const int lo = call.columns.min, hi = call.columns.max;
    if (lo < hi && sameBits(py, lo, hi) && sameBits(pz, lo, hi)) return noiseOfOnePlane(d, px, py[lo], pz[lo], lo, hi);
    for (int x = lo; x < hi; ++x) d[x] = KelNoise::noise(px[x], py[x], pz[x]);
}

RCShdPtr<KelValue> FunctionNoise3D::eval(const FunctionCallNode& node, KelContext& context) {
    KelFloatPtr arguments[3];
    KelRowCall call;
    for (int i = 0; i < 3; ++i) {
        arguments[i] = rcStaticCast<KelFloat>(node.argument(std::size_t(i))->eval(context));
        call.arguments[i] = &arguments[i]->getScanline();
    }
    KelFloatPtr result = context.newFloat(0);
    call.result = &result->getScanline();
    call.columns = context.getInterval();
    rows(call);
    return result;
}

int FunctionNoise3D::compile(const FunctionCallNode& node, KelProgramBuilder& program) {
    return kelCompileCall(node, program, &rows, KelValueTypes::Float);
}

void FunctionRand::declare(FunctionCallNode& node) { kelDeclareOverload(node, 0, KelValueTypes::Float, {}); }

namespace {

// SplitMix64's step: the golden-ratio increment, then its finaliser, a bijection that spreads
// every input bit over the whole word. Absorbing a key is mixing it into the hash so far.
uint64_t mix(uint64_t z) {
    z += 0x9E3779B97F4A7C15ull;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
}
uint64_t absorb(uint64_t hash, uint64_t key) { return mix(hash ^ key); }

}  // namespace

// The keys in a fixed order: seed, time (its bits), the call's ordinal, the row, then per pixel the
// column and the count of the call's earlier draws there. The number is the hash's top 15 bits.
// An inactive column draws nothing, is not written, and does not count.
RCShdPtr<KelValue> FunctionRand::eval(const FunctionCallNode& node, KelContext& context) {
    KelFloatPtr result = context.newFloat(0);
    IxScanline<float>& out = result->getScanline();
    KelRandomKeys& keys = context.random();
    uint64_t hash = absorb(0, keys.seed());
    hash = absorb(hash, std::bit_cast<uint64_t>(keys.time()));
    hash = absorb(hash, uint32_t(node.ordinal()));
    hash = absorb(hash, uint32_t(keys.row()));
    uint32_t* draws = keys.draws(node.ordinal());
    float* d = out.data();
    const float* m = context.getMask().getScanline().data();
    for (int x = out.minimum(); x < out.maximum(); ++x) {
        if (m[x] == 0.0f) continue;
        d[x] = toUnit(int(absorb(absorb(hash, uint32_t(x)), draws[x]++) >> 49));
    }
    return result;
}

}  // namespace Zt
