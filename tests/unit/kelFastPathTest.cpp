// The fast paths against their plain per-column rules, over many random rows: the mask's
// narrowing (four columns at a time, then the tail) and its active span, the blocked float
// operations and masked stores of IxScanlineUtil, the vector rows of sin, cos and atan2, and
// the rows of noise whose y and z are one value.
// Rows start off zero, hold several blocks and a remainder, and carry NaN (payloads included),
// infinities and signed zeros; a kept or copied column keeps every bit.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <utility>
#include <vector>

#include "IxScanlineUtil.h"
#include "IxVectorMath.h"
#include "kelContext.h"
#include "kelFunctions.h"

using namespace Zt;

namespace {

using U = IxScanlineUtil;
using Limit = const GeInterval<int>*;
constexpr float kInf = std::numeric_limits<float>::infinity();
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
const GeInterval<int> kColumns(-3, 46);  // 3 + 8 * 5 + 6 columns: blocks and a remainder

uint32_t bits(float v) { return std::bit_cast<uint32_t>(v); }

// Values the operations treat specially, mixed with random ones.
std::vector<float> specials(unsigned seed, int n = kColumns.size()) {
    const std::vector<float> v{0.0f, -0.0f, 1.0f, -1.0f, kInf, -kInf, kNaN, std::bit_cast<float>(0x7fc12345u),
                               std::bit_cast<float>(0xffa00001u), std::numeric_limits<float>::denorm_min(), 2.5f, 0.5f};
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> real(-3.0f, 3.0f);
    std::vector<float> out;
    for (int i = 0; i < n; ++i) out.push_back(rng() % 3 == 0 ? v[rng() % v.size()] : real(rng));
    return out;
}

struct Row {
    IxScanline<float> s{kColumns, IxPaddingPolicy<float>{4, 0.0f}};
    explicit Row(const std::vector<float>& values) {
        for (int x = kColumns.min; x < kColumns.max; ++x) s[x] = values[std::size_t(x - kColumns.min)];
    }
};

// Same bits; where arithmetic meets a NaN, IEEE 754 leaves the payload open, so there a NaN is
// all that is asked unless `payloads` (copies and kept columns).
void expectSameBits(const IxScanline<float>& actual, const std::vector<float>& expected, const char* what,
                    bool payloads = false) {
    for (int x = kColumns.min; x < kColumns.max; ++x) {
        const float e = expected[std::size_t(x - kColumns.min)];
        if (!payloads && std::isnan(e)) EXPECT_TRUE(std::isnan(actual[x])) << what << " column " << x;
        else EXPECT_EQ(bits(actual[x]), bits(e)) << what << " column " << x;
    }
}

TEST(KelFastPath, NarrowAndItsSpanFollowTheColumnRuleAtEveryLength) {
    std::mt19937 rng(1234);
    const float palette[] = {0.0f, -0.0f, 1.0f, -1.0f, kNaN, 0.5f, kInf, 1e-40f};
    for (int n = 0; n <= 37; ++n)
        for (int trial = 0; trial < 60; ++trial)
            for (int invert : {0, 1}) {
                const int lo = int(rng() % 9) - 4;
                KelContext c(GeInterval<int>(lo, lo + n), 0);
                const unsigned density = rng() % 4;  // all-active, none-active and mixed masks
                KelFloatPtr first = c.newFloat(0), second = c.newFloat(0);
                std::vector<float> expected;
                for (int x = lo; x < lo + n; ++x) {
                    first->getScanline()[x] = density == 0 ? 1.0f : density == 1 ? 0.0f : float(rng() % 2);
                    second->getScanline()[x] = palette[rng() % 8];
                    const float cond = second->getScanline()[x];
                    expected.push_back(first->getScanline()[x] != 0.0f && (invert ? cond == 0.0f : cond != 0.0f));
                }
                c.getMask().narrow(first, 0);
                c.getMask().narrow(second, invert);
                const KelMask& mask = c.getMask();
                const auto active = std::count(expected.begin(), expected.end(), 1.0f);
                ASSERT_EQ(mask.noneActive(), active == 0) << "n " << n;
                ASSERT_EQ(mask.allActive(), active == n) << "n " << n;
                for (int x = lo; x < lo + n; ++x)
                    ASSERT_EQ(bits(mask.getScanline()[x]), bits(expected[std::size_t(x - lo)])) << "n " << n << " column " << x;
                const GeInterval<int>* span = mask.activeSpan();
                ASSERT_EQ(span == nullptr, active == n);
                if (span && active > 0) {
                    const auto firstActive = std::find(expected.begin(), expected.end(), 1.0f) - expected.begin();
                    const auto lastActive = expected.rend() - std::find(expected.rbegin(), expected.rend(), 1.0f);
                    EXPECT_EQ(*span, GeInterval<int>(lo + int(firstActive), lo + int(lastActive))) << "n " << n;
                }
            }
}

using Binary = void (*)(IxScanline<float>&, const IxScanline<float>&, const IxScanline<float>&, Limit);
using Plain = float (*)(float, float);

TEST(KelFastPath, BinaryAndUnaryFloatOperationsGiveThePerColumnResult) {
    const std::pair<Binary, Plain> binary[] = {
        {U::addScanlines<float, float, float>, [](float p, float q) { return p + q; }},
        {U::subtractScanlines<float, float, float>, [](float p, float q) { return p - q; }},
        {U::multiplyScanlines<float, float, float>, [](float p, float q) { return p * q; }},
        {U::divideScanlines<float, float, float>, [](float p, float q) { return p / q; }},
        {U::equalScanlines<float>, [](float p, float q) { return p == q ? 1.0f : 0.0f; }},
        {U::notEqualScanlines<float>, [](float p, float q) { return p != q ? 1.0f : 0.0f; }},
        {U::lessThanScanlines, [](float p, float q) { return p < q ? 1.0f : 0.0f; }},
        {U::greaterThanScanlines, [](float p, float q) { return p > q ? 1.0f : 0.0f; }},
        {U::lessEqScanlines, [](float p, float q) { return p <= q ? 1.0f : 0.0f; }},
        {U::greaterEqScanlines, [](float p, float q) { return p >= q ? 1.0f : 0.0f; }},
        {U::andScanlines, [](float p, float q) { return p != 0.0f && q != 0.0f ? 1.0f : 0.0f; }},
        {U::orScanlines, [](float p, float q) { return p != 0.0f || q != 0.0f ? 1.0f : 0.0f; }},
    };
    for (unsigned seed = 1; seed <= 20; ++seed) {
        const std::vector<float> a = specials(seed), b = specials(seed + 100), d = specials(seed + 200);
        for (const auto& [fast, plain] : binary) {
            std::vector<float> expected(a.size()), limited = d;
            const GeInterval<int> limit(2, 37);  // columns outside it keep their bits
            for (std::size_t i = 0; i < a.size(); ++i) {
                expected[i] = plain(a[i], b[i]);
                if (int(i) + kColumns.min >= limit.min && int(i) + kColumns.min < limit.max) limited[i] = expected[i];
            }
            Row out(d), ra(a), rb(b), aliasA(a), aliasB(b), partial(d);
            fast(out.s, ra.s, rb.s, nullptr);
            expectSameBits(out.s, expected, "into another row");
            fast(aliasA.s, aliasA.s, rb.s, nullptr);
            expectSameBits(aliasA.s, expected, "into the first source");
            fast(aliasB.s, ra.s, aliasB.s, nullptr);
            expectSameBits(aliasB.s, expected, "into the second source");
            fast(partial.s, ra.s, rb.s, &limit);
            expectSameBits(partial.s, limited, "under a limit");
        }
        std::vector<float> minus(a.size()), negation(a.size());
        for (std::size_t i = 0; i < a.size(); ++i) {
            minus[i] = -a[i];
            negation[i] = a[i] == 0.0f ? 1.0f : 0.0f;
        }
        Row out(d), ra(a);
        U::notScanline(out.s, ra.s, nullptr);
        expectSameBits(out.s, negation, "not");
        U::minusScanline(ra.s, ra.s, nullptr);
        expectSameBits(ra.s, minus, "minus in place");
        for (float value : {2.5f, -0.0f, std::bit_cast<float>(0x7fc12345u)}) {
            const GeInterval<int> limit(1, 30);
            std::vector<float> expected = d;
            for (int x = limit.min; x < limit.max; ++x) expected[std::size_t(x - kColumns.min)] = value;
            Row partial(d);
            U::set(partial.s, value, &limit);
            expectSameBits(partial.s, expected, "set under a limit", true);
        }
    }
}

// Conditions 0.0 and -0.0 keep the old bits; NaN and anything else store, in float and colour
// destinations, from float and colour sources, the source also being the destination.
TEST(KelFastPath, MaskedStoresKeepTheOldBitsWhereTheConditionIsZero) {
    using FStore = void (*)(IxScanline<float>&, const IxScanline<float>&, const IxScanline<float>*, Limit);
    using CStore = void (*)(IxScanline<Color>&, const IxScanline<Color>&, const IxScanline<float>*, Limit);
    using CFStore = void (*)(IxScanline<Color>&, const IxScanline<float>&, const IxScanline<float>*, Limit);
    const std::pair<FStore, Plain> floatStores[] = {
        {U::copyIf<float, float>, [](float, float s) { return s; }},
        {U::accumulateScanline<float, float>, [](float d, float s) { return d + s; }},
        {U::decrementScanline<float, float>, [](float d, float s) { return d - s; }},
        {U::mulAssignScanline<float, float>, [](float d, float s) { return d * s; }},
        {U::divAssignScanline<float, float>, [](float d, float s) { return d / s; }},
    };
    const std::pair<CStore, Plain> colourStores[] = {{U::copyIf<Color, Color>, [](float, float s) { return s; }},
                                                     {U::accumulateScanline<Color, Color>, [](float d, float s) { return d + s; }},
                                                     {U::divAssignScanline<Color, Color>, [](float d, float s) { return d / s; }}};
    const std::pair<CFStore, Plain> mixedStores[] = {{U::copyIf<Color, float>, [](float, float s) { return s; }},
                                                     {U::mulAssignScanline<Color, float>, [](float d, float s) { return d * s; }}};
    for (unsigned seed = 1; seed <= 20; ++seed) {
        std::vector<float> c = specials(seed + 70);
        for (std::size_t i = 0; i < c.size(); i += 3) c[i] = (i / 3) % 2 ? -0.0f : 0.0f;
        const Row condition(c);
        std::vector<std::vector<float>> d, s;
        for (unsigned k = 0; k < 4; ++k) {
            d.push_back(specials(seed * 7 + k));
            s.push_back(specials(seed * 11 + 100 + k));
        }
        bool copy = true;  // the first of each list copies: every bit is kept or copied
        for (const auto& [fast, plain] : floatStores) {
            std::vector<float> expected = d[0], self = d[0];
            for (std::size_t i = 0; i < c.size(); ++i)
                if (c[i] != 0.0f) {
                    expected[i] = plain(d[0][i], s[0][i]);
                    self[i] = plain(d[0][i], d[0][i]);
                }
            Row out(d[0]), source(s[0]), same(d[0]);
            fast(out.s, source.s, &condition.s, nullptr);
            expectSameBits(out.s, expected, "masked store", copy);
            fast(same.s, same.s, &condition.s, nullptr);
            expectSameBits(same.s, self, "store onto itself", copy);
            copy = false;
        }
        const auto fill = [](IxScanline<Color>& row, const std::vector<std::vector<float>>& channels) {
            for (int x = kColumns.min; x < kColumns.max; ++x)
                for (int k = 0; k < 4; ++k) row[x][k] = channels[std::size_t(k)][std::size_t(x - kColumns.min)];
        };
        IxScanline<Color> out{kColumns, IxPaddingPolicy<Color>{4, Color::ZERO}}, source{kColumns, IxPaddingPolicy<Color>{4, Color::ZERO}};
        fill(source, s);
        const auto check = [&](const IxScanline<Color>& out, Plain plain, bool fromFloat, bool copied) {
            for (int x = kColumns.min; x < kColumns.max; ++x) {
                const std::size_t i = std::size_t(x - kColumns.min);
                for (std::size_t k = 0; k < 4; ++k) {
                    const float e = c[i] != 0.0f ? plain(d[k][i], s[fromFloat ? 0 : k][i]) : d[k][i];
                    if (!copied && c[i] != 0.0f && std::isnan(e)) EXPECT_TRUE(std::isnan(out[x][int(k)])) << x;
                    else EXPECT_EQ(bits(out[x][int(k)]), bits(e)) << "column " << x << " channel " << k;
                }
            }
        };
        copy = true;
        for (const auto& [fast, plain] : colourStores) {
            fill(out, d);
            fast(out, source, &condition.s, nullptr);
            check(out, plain, false, std::exchange(copy, false));
        }
        copy = true;
        for (const auto& [fast, plain] : mixedStores) {
            fill(out, d);
            fast(out, Row(s[0]).s, &condition.s, nullptr);
            check(out, plain, true, std::exchange(copy, false));
        }
    }
}

// Within glibc's stated bound for its vector functions (a few ulps); NaN, infinities and zeros
// exactly; a column's result independent of the row's start and length; in place too.
TEST(KelFastPath, SinCosAndAtan2RowsAgreeWithTheScalarCLibrary) {
    const auto ordered = [](float v) {
        const int32_t i = std::bit_cast<int32_t>(v);
        return i < 0 ? int64_t(INT32_MIN) - i : int64_t(i);
    };
    const auto expectClose = [&](float actual, float expected, const char* what, std::size_t i) {
        if (std::isnan(expected)) EXPECT_TRUE(std::isnan(actual)) << what << " " << i;
        else if (std::isinf(expected) || expected == 0.0f) EXPECT_EQ(bits(actual), bits(expected)) << what << " " << i;
        else EXPECT_LE(std::llabs(ordered(actual) - ordered(expected)), 4) << what << " " << i;
    };
    const int n = 1003;  // eight-lane blocks and a remainder
    std::vector<float> a = specials(1, n), b = specials(2, n);
    for (float p : {0.0f, -0.0f, 1.0f, -kInf, kInf, kNaN})
        for (float q : {0.0f, -0.0f, -1.0f, kInf, -kInf, kNaN}) {
            a.push_back(p);
            b.push_back(q);
        }
    for (std::size_t i = 0; i < a.size(); i += 5) a[i] *= 1000.0f;
    std::vector<float> s(a.size()), co(a.size()), at(a.size());
    IxVectorMath::sin(s.data(), a.data(), int(a.size()));
    IxVectorMath::cos(co.data(), a.data(), int(a.size()));
    IxVectorMath::atan2(at.data(), a.data(), b.data(), int(a.size()));
    for (std::size_t i = 0; i < a.size(); ++i) {
        expectClose(s[i], sinf(a[i]), "sin", i);
        expectClose(co[i], cosf(a[i]), "cos", i);
        expectClose(at[i], atan2f(a[i], b[i]), "atan2", i);
    }
    for (int start = 0; start < 9; ++start)
        for (int length = 1; start + length <= 40; length += 5) {
            std::vector<float> part(a.begin() + start, a.begin() + start + length), part2(std::size_t(length), 0.0f);
            IxVectorMath::atan2(part2.data(), part.data(), b.data() + start, length);
            IxVectorMath::sin(part.data(), part.data(), length);
            for (int i = 0; i < length; ++i) {
                ASSERT_EQ(bits(part[std::size_t(i)]), bits(s[std::size_t(start + i)])) << start << " " << length;
                ASSERT_EQ(bits(part2[std::size_t(i)]), bits(at[std::size_t(start + i)])) << start << " " << length;
            }
        }
}

// A row of one y and one z reuses each lattice cell across columns; every column must still have
// the bits of the noise at that point alone, and a row whose y or z varies must not be taken for
// one plane.
TEST(KelFastPath, NoiseRowsGiveThePointwiseNoise) {
    const int n = kColumns.size();
    using Fill = float (*)(int i, const std::vector<float>& random);
    const struct {
        const char* what;
        Fill x, y, z;
    } rows[] = {
        {"a ramp across cells", [](int i, auto&) { return i * 0.37f - 7.1f; }, [](int, auto&) { return 2.3f; }, [](int, auto&) { return 0.5f; }},
        {"specials in x", [](int i, auto& r) { return r[std::size_t(i)] * 90.0f; }, [](int, auto&) { return -0.0f; }, [](int, auto&) { return -3.75f; }},
        {"beyond the table", [](int i, auto&) { return 254.5f + float(i) * 0.125f; }, [](int, auto&) { return 1e6f; }, [](int, auto&) { return -257.2f; }},
        {"NaN in y", [](int i, auto&) { return float(i); }, [](int, auto&) { return kNaN; }, [](int, auto&) { return 0.5f; }},
        {"y differs in the last column", [](int i, auto&) { return i * 0.1f; }, [](int i, auto&) { return i == kColumns.size() - 1 ? 1.5f : 0.5f; }, [](int, auto&) { return 0.2f; }},
        {"z varies", [](int i, auto&) { return i * 0.21f; }, [](int, auto&) { return 0.7f; }, [](int i, auto&) { return i * 0.05f; }},
        {"random points", [](int i, auto& r) { return r[std::size_t(i)] * 5.0f; }, [](int i, auto& r) { return r[r.size() - 1 - std::size_t(i)]; }, [](int i, auto&) { return float(i % 3); }},
    };
    const std::vector<float> random = specials(7);
    for (const auto& row : rows) {
        std::vector<float> x, y, z, expected;
        for (int i = 0; i < n; ++i) {
            x.push_back(row.x(i, random));
            y.push_back(row.y(i, random));
            z.push_back(row.z(i, random));
            expected.push_back(KelNoise::noise(x.back(), y.back(), z.back()));
        }
        Row rx(x), ry(y), rz(z), out(std::vector<float>(std::size_t(n), 0.0f));
        KelRowCall call;
        call.result = &out.s;
        call.arguments[0] = &rx.s;
        call.arguments[1] = &ry.s;
        call.arguments[2] = &rz.s;
        call.columns = kColumns;
        FunctionNoise3D::rows(call);
        expectSameBits(out.s, expected, row.what);
    }
}

}  // namespace
