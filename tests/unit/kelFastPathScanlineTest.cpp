// Issue 8: the blocked float paths of IxScanlineUtil (whole blocks of columns, SIMD at -O2, a
// bitwise select for masked stores) give the same bits as the per-column definition of Part 2.4,
// on rows long enough to hold several blocks and a remainder, off zero, under a limit, with NaN
// (payloads included), infinities and signed zeros, and with the destination aliasing a source.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <vector>

#include "IxScanlineUtil.h"

using namespace Zt;

namespace {

using U = IxScanlineUtil;
using Limit = const GeInterval<int>*;

// 3 + 8 * 5 + 6 columns starting at -3: blocks from the first column, and a remainder.
const GeInterval<int> kColumns(-3, 46);

uint32_t bits(float v) { return std::bit_cast<uint32_t>(v); }

// Values that the operations treat specially, then random ones.
std::vector<float> specials(unsigned seed) {
    std::vector<float> v{0.0f, -0.0f, 1.0f, -1.0f, std::numeric_limits<float>::infinity(),
                         -std::numeric_limits<float>::infinity(), std::numeric_limits<float>::quiet_NaN(),
                         std::bit_cast<float>(0x7fc12345u), std::bit_cast<float>(0xffa00001u),
                         std::numeric_limits<float>::denorm_min(), 2.5f, 0.5f};
    std::mt19937 rng(seed);
    std::shuffle(v.begin(), v.end(), rng);
    std::uniform_int_distribution<int> pick(0, 2);
    std::uniform_real_distribution<float> real(-3.0f, 3.0f);
    std::vector<float> out;
    for (int i = 0; i < kColumns.size(); ++i)
        out.push_back(pick(rng) == 0 ? v[std::size_t(i) % v.size()] : real(rng));
    return out;
}

struct Row {
    IxScanline<float> s{kColumns, IxPaddingPolicy<float>{4, 0.0f}};
    explicit Row(const std::vector<float>& values) {
        for (int x = kColumns.min; x < kColumns.max; ++x) s[x] = values[std::size_t(x - kColumns.min)];
    }
    float at(int x) const { return s[x]; }
};

// Same bits; where arithmetic meets two NaNs, IEEE 754 leaves open which payload comes out (the
// compiler may swap the operands of a commutative operation, scalar or not), so there a NaN is
// all that is asked. Copies and kept columns (`payloads`) must keep every bit.
void expectSameBits(const Row& actual, const std::vector<float>& expected, const char* what, bool payloads = false) {
    for (int x = kColumns.min; x < kColumns.max; ++x) {
        const float e = expected[std::size_t(x - kColumns.min)];
        if (!payloads && std::isnan(e)) EXPECT_TRUE(std::isnan(actual.at(x))) << what << " column " << x;
        else EXPECT_EQ(bits(actual.at(x)), bits(e)) << what << " column " << x;
    }
}

using Binary = void (*)(IxScanline<float>&, const IxScanline<float>&, const IxScanline<float>&, Limit);
using Plain = float (*)(float, float);

struct BinaryCase {
    const char* name;
    Binary fast;
    Plain plain;  // Part 2.4's per-column result, with the settled choices of IxScanlineUtil.h
};

const BinaryCase kBinary[] = {
    {"add", U::addScanlines<float, float, float>, [](float p, float q) { return p + q; }},
    {"subtract", U::subtractScanlines<float, float, float>, [](float p, float q) { return p - q; }},
    {"multiply", U::multiplyScanlines<float, float, float>, [](float p, float q) { return p * q; }},
    {"divide", U::divideScanlines<float, float, float>, [](float p, float q) { return p / q; }},
    {"equal", U::equalScanlines<float>, [](float p, float q) { return p == q ? 1.0f : 0.0f; }},
    {"notEqual", U::notEqualScanlines<float>, [](float p, float q) { return p != q ? 1.0f : 0.0f; }},
    {"less", U::lessThanScanlines, [](float p, float q) { return p < q ? 1.0f : 0.0f; }},
    {"greater", U::greaterThanScanlines, [](float p, float q) { return p > q ? 1.0f : 0.0f; }},
    {"lessEq", U::lessEqScanlines, [](float p, float q) { return p <= q ? 1.0f : 0.0f; }},
    {"greaterEq", U::greaterEqScanlines, [](float p, float q) { return p >= q ? 1.0f : 0.0f; }},
    {"and", U::andScanlines, [](float p, float q) { return p != 0.0f && q != 0.0f ? 1.0f : 0.0f; }},
    {"or", U::orScanlines, [](float p, float q) { return p != 0.0f || q != 0.0f ? 1.0f : 0.0f; }},
};

TEST(KelFastPathScanline, BinaryFloatOperationsEqualThePerColumnDefinition) {
    for (unsigned seed = 1; seed <= 20; ++seed) {
        const std::vector<float> a = specials(seed), b = specials(seed + 100), d = specials(seed + 200);
        for (const BinaryCase& op : kBinary) {
            std::vector<float> expected(a.size());
            for (std::size_t i = 0; i < a.size(); ++i) expected[i] = op.plain(a[i], b[i]);
            Row out(d), ra(a), rb(b);
            op.fast(out.s, ra.s, rb.s, nullptr);
            expectSameBits(out, expected, op.name);

            // The destination is the first source, then the second.
            Row aliasA(a);
            op.fast(aliasA.s, aliasA.s, rb.s, nullptr);
            expectSameBits(aliasA, expected, op.name);
            Row aliasB(b);
            op.fast(aliasB.s, ra.s, aliasB.s, nullptr);
            expectSameBits(aliasB, expected, op.name);

            // A limit: columns outside it keep their bits.
            const GeInterval<int> limit(2, 37);
            std::vector<float> limited = d;
            for (int x = limit.min; x < limit.max; ++x)
                limited[std::size_t(x - kColumns.min)] = expected[std::size_t(x - kColumns.min)];
            Row partial(d);
            op.fast(partial.s, ra.s, rb.s, &limit);
            expectSameBits(partial, limited, op.name);
        }
    }
}

TEST(KelFastPathScanline, UnaryFloatOperationsEqualThePerColumnDefinition) {
    const std::vector<float> a = specials(7), d = specials(8);
    std::vector<float> minus(a.size()), negation(a.size());
    for (std::size_t i = 0; i < a.size(); ++i) {
        minus[i] = -a[i];
        negation[i] = a[i] == 0.0f ? 1.0f : 0.0f;
    }
    Row out(d), ra(a);
    U::minusScanline(out.s, ra.s, nullptr);
    expectSameBits(out, minus, "minus");
    U::notScanline(out.s, ra.s, nullptr);
    expectSameBits(out, negation, "not");
    U::minusScanline(ra.s, ra.s, nullptr);
    expectSameBits(ra, minus, "minus in place");
}

using Store = void (*)(IxScanline<float>&, const IxScanline<float>&, const IxScanline<float>*, Limit);
using PlainStore = float (*)(float, float);

TEST(KelFastPathScanline, MaskedFloatStoresKeepTheOldBitsWhereTheConditionIsZero) {
    const std::pair<Store, PlainStore> stores[] = {
        {U::copyIf<float, float>, [](float, float s) { return s; }},
        {U::accumulateScanline<float, float>, [](float d, float s) { return d + s; }},
        {U::decrementScanline<float, float>, [](float d, float s) { return d - s; }},
        {U::mulAssignScanline<float, float>, [](float d, float s) { return d * s; }},
        {U::divAssignScanline<float, float>, [](float d, float s) { return d / s; }},
    };
    for (unsigned seed = 1; seed <= 20; ++seed) {
        const std::vector<float> d = specials(seed), s = specials(seed + 50);
        bool copy = true;  // the first store is copyIf: every bit is kept or copied
        // Conditions: 0.0 and -0.0 keep, NaN and anything else store (IxScanlineUtil.h).
        std::vector<float> c = specials(seed + 70);
        for (std::size_t i = 0; i < c.size(); i += 3) c[i] = (i / 3) % 2 ? -0.0f : 0.0f;
        for (const auto& [fast, plain] : stores) {
            std::vector<float> expected = d;
            for (std::size_t i = 0; i < d.size(); ++i)
                if (c[i] != 0.0f) expected[i] = plain(d[i], s[i]);
            Row out(d), rs(s), rc(c);
            fast(out.s, rs.s, &rc.s, nullptr);
            expectSameBits(out, expected, "masked store", copy);

            // Unmasked: every column stores.
            std::vector<float> all(d.size());
            for (std::size_t i = 0; i < d.size(); ++i) all[i] = plain(d[i], s[i]);
            Row whole(d);
            fast(whole.s, rs.s, nullptr, nullptr);
            expectSameBits(whole, all, "unmasked store", copy);

            // The source is the destination.
            std::vector<float> self = d;
            for (std::size_t i = 0; i < d.size(); ++i)
                if (c[i] != 0.0f) self[i] = plain(d[i], d[i]);
            Row same(d);
            fast(same.s, same.s, &rc.s, nullptr);
            expectSameBits(same, self, "store onto itself", copy);
            copy = false;
        }
    }
}

// The colour stores select whole colours with SSE: against the per-column branch, for colour
// and float sources, the same bits (NaN payloads of kept and copied columns included).
TEST(KelFastPathScanline, MaskedColourStoresKeepTheOldBitsWhereTheConditionIsZero) {
    using CStore = void (*)(IxScanline<Color>&, const IxScanline<Color>&, const IxScanline<float>*, Limit);
    using FStore = void (*)(IxScanline<Color>&, const IxScanline<float>&, const IxScanline<float>*, Limit);
    const std::pair<CStore, PlainStore> colourStores[] = {
        {U::copyIf<Color, Color>, [](float, float s) { return s; }},
        {U::accumulateScanline<Color, Color>, [](float d, float s) { return d + s; }},
        {U::divAssignScanline<Color, Color>, [](float d, float s) { return d / s; }},
    };
    const std::pair<FStore, PlainStore> floatStores[] = {
        {U::copyIf<Color, float>, [](float, float s) { return s; }},
        {U::mulAssignScanline<Color, float>, [](float d, float s) { return d * s; }},
    };
    for (unsigned seed = 1; seed <= 10; ++seed) {
        std::vector<std::vector<float>> d, s;
        for (int k = 0; k < 4; ++k) {
            d.push_back(specials(seed * 7 + unsigned(k)));
            s.push_back(specials(seed * 11 + 100 + unsigned(k)));
        }
        std::vector<float> c = specials(seed + 70);
        for (std::size_t i = 0; i < c.size(); i += 3) c[i] = (i / 3) % 2 ? -0.0f : 0.0f;
        Row rc(c), rs0(s[0]);
        auto fill = [](IxScanline<Color>& row, const std::vector<std::vector<float>>& channels) {
            for (int x = kColumns.min; x < kColumns.max; ++x)
                for (int k = 0; k < 4; ++k) row[x][k] = channels[std::size_t(k)][std::size_t(x - kColumns.min)];
        };
        IxScanline<Color> source{kColumns, IxPaddingPolicy<Color>{4, Color::ZERO}};
        fill(source, s);
        auto check = [&](const IxScanline<Color>& out, PlainStore plain, bool fromFloat, bool copy) {
            for (int x = kColumns.min; x < kColumns.max; ++x) {
                const std::size_t i = std::size_t(x - kColumns.min);
                for (int k = 0; k < 4; ++k) {
                    const float old = d[std::size_t(k)][i], src = fromFloat ? s[0][i] : s[std::size_t(k)][i];
                    const float e = c[i] != 0.0f ? plain(old, src) : old;
                    if (!copy && c[i] != 0.0f && std::isnan(e)) EXPECT_TRUE(std::isnan(out[x][k])) << x;
                    else EXPECT_EQ(bits(out[x][k]), bits(e)) << "column " << x << " channel " << k;
                }
            }
        };
        bool copy = true;
        for (const auto& [fast, plain] : colourStores) {
            IxScanline<Color> out{kColumns, IxPaddingPolicy<Color>{4, Color::ZERO}};
            fill(out, d);
            fast(out, source, &rc.s, nullptr);
            check(out, plain, false, copy);
            copy = false;
        }
        copy = true;
        for (const auto& [fast, plain] : floatStores) {
            IxScanline<Color> out{kColumns, IxPaddingPolicy<Color>{4, Color::ZERO}};
            fill(out, d);
            fast(out, rs0.s, &rc.s, nullptr);
            check(out, plain, true, copy);
            copy = false;
        }
    }
}

}  // namespace

namespace {

TEST(KelFastPathScanline, SetFillsEveryColumnOfTheLimitWithTheValuesBits) {
    const std::vector<float> d = specials(9);
    for (float value : {2.5f, -0.0f, std::bit_cast<float>(0x7fc12345u)}) {
        Row whole(d);
        U::set(whole.s, value, nullptr);
        expectSameBits(whole, std::vector<float>(d.size(), value), "set", true);
        const GeInterval<int> limit(1, 30);
        std::vector<float> expected = d;
        for (int x = limit.min; x < limit.max; ++x) expected[std::size_t(x - kColumns.min)] = value;
        Row partial(d);
        U::set(partial.s, value, &limit);
        expectSameBits(partial, expected, "set under a limit", true);
    }
}

}  // namespace
