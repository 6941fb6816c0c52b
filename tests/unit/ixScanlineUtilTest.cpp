// Part 2.4 (and the two operations of Part 2.1): every operation of IxScanlineUtil in every form
// that the logic uses, with the choices settled at the top of IxScanlineUtil.h, the masked
// stores' condition rule, aliasing of destination and source, and the limiting interval.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

#include "IxScanlineUtil.h"

using namespace Zt;

namespace {

using U = IxScanlineUtil;
using Limit = const GeInterval<int>*;
const float kNaN = std::numeric_limits<float>::quiet_NaN();
const float kInf = std::numeric_limits<float>::infinity();

// Columns 10..14: an interval off zero, so that the biased pointer is exercised.
const GeInterval<int> kColumns(10, 15);

template <class T>
struct Row {
    IxScanline<T> s{kColumns, IxPaddingPolicy<T>{4, T{}}};
    Row(std::initializer_list<T> values) {
        int x = kColumns.min;
        for (const T& v : values) s[x++] = v;
    }
    explicit Row(const T& all) { U::set(s, all, nullptr); }
    std::vector<T> values() const { return std::vector<T>(s.begin(), s.begin() + kColumns.size()); }
};
using F = Row<float>;
using C = Row<Color>;

Color c(float v) { return Color(v, v + 1, v + 2, v + 3); }

// Each form must be a callable of its own with the spec's argument order (the tables of Part 4.3).
using Binary3F = void (*)(IxScanline<float>&, const IxScanline<float>&, const IxScanline<float>&, Limit);
using Binary3C = void (*)(IxScanline<Color>&, const IxScanline<Color>&, const IxScanline<Color>&, Limit);
using BinaryCCF = void (*)(IxScanline<Color>&, const IxScanline<Color>&, const IxScanline<float>&, Limit);
using BinaryCFC = void (*)(IxScanline<Color>&, const IxScanline<float>&, const IxScanline<Color>&, Limit);
using CompareC = void (*)(IxScanline<float>&, const IxScanline<Color>&, const IxScanline<Color>&, Limit);
using StoreFF = void (*)(IxScanline<float>&, const IxScanline<float>&, const IxScanline<float>*, Limit);
using StoreCC = void (*)(IxScanline<Color>&, const IxScanline<Color>&, const IxScanline<float>*, Limit);
using StoreCF = void (*)(IxScanline<Color>&, const IxScanline<float>&, const IxScanline<float>*, Limit);
[[maybe_unused]] const Binary3F kAdd3F = &U::addScanlines<float, float, float>;
[[maybe_unused]] const Binary3C kSub3C = &U::subtractScanlines<Color, Color, Color>;
[[maybe_unused]] const BinaryCCF kMulCCF = &U::multiplyScanlines<Color, Color, float>;
[[maybe_unused]] const BinaryCFC kDivCFC = &U::divideScanlines<Color, float, Color>;
[[maybe_unused]] const CompareC kEqC = &U::equalScanlines<Color>;
[[maybe_unused]] const StoreFF kCopyIfFF = &U::copyIf<float, float>;
[[maybe_unused]] const StoreCC kAccCC = &U::accumulateScanline<Color, Color>;
[[maybe_unused]] const StoreCF kDivAssignCF = &U::divAssignScanline<Color, float>;

}  // namespace

// ---- Part 2.1: set and copy ----------------------------------------------------------------------

TEST(IxScanlineUtil, SetWritesEveryColumnWhateverThePaddingPolicy) {
    IxScanline<float> f(kColumns, IxPaddingPolicy<float>{0, 9.0f});
    U::set(f, 2.0f, nullptr);
    for (int x = 10; x < 15; ++x) EXPECT_EQ(f[x], 2.0f);
    C col({c(0), c(1), c(2), c(3), c(4)});
    U::set(col.s, Color(1, 2, 3, 4));
    EXPECT_EQ(col.values(), std::vector<Color>(5, Color(1, 2, 3, 4)));
}

TEST(IxScanlineUtil, CopyCopiesEveryColumn) {
    F src({1, 2, 3, 4, 5}), dst(0.0f);
    U::copy(dst.s, src.s, nullptr);
    EXPECT_EQ(dst.values(), src.values());
    C csrc({c(1), c(2), c(3), c(4), c(5)}), cdst(Color::ZERO);
    U::copy(cdst.s, csrc.s);
    EXPECT_EQ(cdst.values(), csrc.values());
}

TEST(IxScanlineUtil, TheLimitRestrictsTheColumns) {
    F dst(0.0f);
    const GeInterval<int> limit(11, 13);
    U::set(dst.s, 7.0f, &limit);
    EXPECT_EQ(dst.values(), (std::vector<float>{0, 7, 7, 0, 0}));
    const GeInterval<int> outside(20, 30);
    U::set(dst.s, 9.0f, &outside);
    EXPECT_EQ(dst.values(), (std::vector<float>{0, 7, 7, 0, 0}));
}

// ---- Unary ------------------------------------------------------------------------------------------

TEST(IxScanlineUtil, MinusNegatesFloatsAndEveryChannel) {
    F src({1, -2, 0, kInf, 3}), dst(0.0f);
    U::minusScanline(dst.s, src.s);
    EXPECT_EQ(dst.values(), (std::vector<float>{-1, 2, -0.0f, -kInf, -3}));
    EXPECT_TRUE(std::signbit(dst.s[12]));
    C csrc({c(1), c(2), c(3), c(4), c(5)}), cdst(Color::ZERO);
    U::minusScanline(cdst.s, csrc.s);
    EXPECT_EQ(cdst.s[10], Color(-1, -2, -3, -4));
}

TEST(IxScanlineUtil, NotGivesOneForZeroAndMinusZeroAndZeroOtherwise) {
    F src({0.0f, -0.0f, 1.0f, kNaN, 0.5f}), dst(9.0f);
    U::notScanline(dst.s, src.s);
    EXPECT_EQ(dst.values(), (std::vector<float>{1, 1, 0, 0, 0}));
}

// ---- Binary arithmetic, four forms each -------------------------------------------------------------

TEST(IxScanlineUtil, AddInAllFourForms) {
    F a({1, 2, 3, 4, 5}), b({10, 20, 30, 40, 50}), fd(0.0f);
    U::addScanlines(fd.s, a.s, b.s);
    EXPECT_EQ(fd.values(), (std::vector<float>{11, 22, 33, 44, 55}));
    C ca(c(1)), cb(c(10)), cd(Color::ZERO);
    U::addScanlines(cd.s, ca.s, cb.s);
    EXPECT_EQ(cd.s[14], Color(11, 13, 15, 17));
    U::addScanlines(cd.s, ca.s, a.s);  // alpha takes part
    EXPECT_EQ(cd.s[11], Color(3, 4, 5, 6));
    U::addScanlines(cd.s, a.s, ca.s);
    EXPECT_EQ(cd.s[12], Color(4, 5, 6, 7));
}

TEST(IxScanlineUtil, SubtractInAllFourFormsKeepsTheOperandOrder) {
    F a({1, 2, 3, 4, 5}), b(10.0f), fd(0.0f);
    U::subtractScanlines(fd.s, a.s, b.s);
    EXPECT_EQ(fd.values(), (std::vector<float>{-9, -8, -7, -6, -5}));
    C ca(c(1)), cb(c(10)), cd(Color::ZERO);
    U::subtractScanlines(cd.s, ca.s, cb.s);
    EXPECT_EQ(cd.s[10], Color(-9, -9, -9, -9));
    U::subtractScanlines(cd.s, ca.s, b.s);
    EXPECT_EQ(cd.s[10], Color(-9, -8, -7, -6));
    U::subtractScanlines(cd.s, b.s, ca.s);
    EXPECT_EQ(cd.s[10], Color(9, 8, 7, 6));
}

TEST(IxScanlineUtil, MultiplyInAllFourForms) {
    F a({1, 2, 3, 4, 5}), b(2.0f), fd(0.0f);
    U::multiplyScanlines(fd.s, a.s, b.s);
    EXPECT_EQ(fd.values(), (std::vector<float>{2, 4, 6, 8, 10}));
    C ca(c(1)), cd(Color::ZERO);
    U::multiplyScanlines(cd.s, ca.s, ca.s);
    EXPECT_EQ(cd.s[10], Color(1, 4, 9, 16));
    U::multiplyScanlines(cd.s, ca.s, b.s);
    EXPECT_EQ(cd.s[10], Color(2, 4, 6, 8));
    U::multiplyScanlines(cd.s, b.s, ca.s);
    EXPECT_EQ(cd.s[10], Color(2, 4, 6, 8));
}

TEST(IxScanlineUtil, DivideInAllFourFormsFollowsIEEEForZero) {
    F a({1, -1, 0, 6, 5}), b({0, 0, 0, 3, 2}), fd(0.0f);
    U::divideScanlines(fd.s, a.s, b.s);
    EXPECT_EQ(fd.s[10], kInf);
    EXPECT_EQ(fd.s[11], -kInf);
    EXPECT_TRUE(std::isnan(fd.s[12]));
    EXPECT_EQ(fd.s[13], 2.0f);
    C ca(c(1)), cd(Color::ZERO);
    U::divideScanlines(cd.s, ca.s, ca.s);
    EXPECT_EQ(cd.s[10], Color(1, 1, 1, 1));
    F two(2.0f);
    U::divideScanlines(cd.s, ca.s, two.s);
    EXPECT_EQ(cd.s[10], Color(0.5f, 1, 1.5f, 2));
    U::divideScanlines(cd.s, two.s, ca.s);
    EXPECT_EQ(cd.s[10], Color(2, 1, 2.0f / 3.0f, 0.5f));
}

TEST(IxScanlineUtil, DestinationMayBeASource) {
    F a({1, 2, 3, 4, 5});
    U::addScanlines(a.s, a.s, a.s);
    EXPECT_EQ(a.values(), (std::vector<float>{2, 4, 6, 8, 10}));
    C ca(c(1));
    U::multiplyScanlines(ca.s, ca.s, ca.s);
    EXPECT_EQ(ca.s[12], Color(1, 4, 9, 16));
    U::minusScanline(a.s, a.s);
    EXPECT_EQ(a.s[10], -2.0f);
}

// ---- Comparison and logic ------------------------------------------------------------------------

TEST(IxScanlineUtil, FloatComparisonsWriteOneAndZero) {
    F a({1, 2, 3, kNaN, -0.0f}), b({2, 2, 2, kNaN, 0.0f}), d(9.0f);
    U::equalScanlines(d.s, a.s, b.s);
    EXPECT_EQ(d.values(), (std::vector<float>{0, 1, 0, 0, 1}));
    U::notEqualScanlines(d.s, a.s, b.s);
    EXPECT_EQ(d.values(), (std::vector<float>{1, 0, 1, 1, 0}));
    U::lessThanScanlines(d.s, a.s, b.s);
    EXPECT_EQ(d.values(), (std::vector<float>{1, 0, 0, 0, 0}));
    U::greaterThanScanlines(d.s, a.s, b.s);
    EXPECT_EQ(d.values(), (std::vector<float>{0, 0, 1, 0, 0}));
    U::lessEqScanlines(d.s, a.s, b.s);
    EXPECT_EQ(d.values(), (std::vector<float>{1, 1, 0, 0, 1}));
    U::greaterEqScanlines(d.s, a.s, b.s);
    EXPECT_EQ(d.values(), (std::vector<float>{0, 1, 1, 0, 1}));
}

TEST(IxScanlineUtil, ColourEqualityNeedsAllFourChannels) {
    C a({Color(1, 2, 3, 4), Color(1, 2, 3, 4), Color(1, 2, 3, 4), Color(1, 2, 3, 4), Color(kNaN, 0, 0, 0)});
    C b({Color(1, 2, 3, 4), Color(0, 2, 3, 4), Color(1, 2, 3, 5), Color(1, 9, 3, 4), Color(kNaN, 0, 0, 0)});
    F d(9.0f);
    U::equalScanlines(d.s, a.s, b.s);
    EXPECT_EQ(d.values(), (std::vector<float>{1, 0, 0, 0, 0}));
    U::notEqualScanlines(d.s, a.s, b.s);
    EXPECT_EQ(d.values(), (std::vector<float>{0, 1, 1, 1, 1}));
}

TEST(IxScanlineUtil, AndAndOrTreatAnyNonZeroIncludingNaNAsTrue) {
    F a({0, 1, 0, kNaN, -0.0f}), b({0, 0, 2, 1, 1}), d(9.0f);
    U::andScanlines(d.s, a.s, b.s);
    EXPECT_EQ(d.values(), (std::vector<float>{0, 0, 0, 1, 0}));
    U::orScanlines(d.s, a.s, b.s);
    EXPECT_EQ(d.values(), (std::vector<float>{0, 1, 1, 1, 1}));
}

TEST(IxScanlineUtil, ComparisonsIgnoreNothingAndWriteEveryColumn) {
    // No mask argument: every column of the destination is written.
    F a(1.0f), b(1.0f), d(kNaN);
    U::lessEqScanlines(d.s, a.s, b.s);
    EXPECT_EQ(d.values(), std::vector<float>(5, 1.0f));
}

// ---- Masked stores ---------------------------------------------------------------------------------

TEST(IxScanlineUtil, ANullConditionAndAConditionOfOnesHaveTheSameEffect) {
    const F ones(1.0f);
    F src({1, 2, 3, 4, 5});
    for (int op = 0; op < 5; ++op) {
        F viaNull({10, 20, 30, 40, 50}), viaOnes({10, 20, 30, 40, 50});
        C cNull(c(2)), cOnes(c(2));
        switch (op) {
            case 0:
                U::copyIf(viaNull.s, src.s, nullptr);
                U::copyIf(viaOnes.s, src.s, &ones.s);
                U::copyIf(cNull.s, src.s, nullptr);
                U::copyIf(cOnes.s, src.s, &ones.s);
                break;
            case 1:
                U::accumulateScanline(viaNull.s, src.s, nullptr);
                U::accumulateScanline(viaOnes.s, src.s, &ones.s);
                U::accumulateScanline(cNull.s, src.s, nullptr);
                U::accumulateScanline(cOnes.s, src.s, &ones.s);
                break;
            case 2:
                U::decrementScanline(viaNull.s, src.s, nullptr);
                U::decrementScanline(viaOnes.s, src.s, &ones.s);
                U::decrementScanline(cNull.s, src.s, nullptr);
                U::decrementScanline(cOnes.s, src.s, &ones.s);
                break;
            case 3:
                U::mulAssignScanline(viaNull.s, src.s, nullptr);
                U::mulAssignScanline(viaOnes.s, src.s, &ones.s);
                U::mulAssignScanline(cNull.s, src.s, nullptr);
                U::mulAssignScanline(cOnes.s, src.s, &ones.s);
                break;
            case 4:
                U::divAssignScanline(viaNull.s, src.s, nullptr);
                U::divAssignScanline(viaOnes.s, src.s, &ones.s);
                U::divAssignScanline(cNull.s, src.s, nullptr);
                U::divAssignScanline(cOnes.s, src.s, &ones.s);
                break;
        }
        EXPECT_EQ(viaNull.values(), viaOnes.values()) << op;
        EXPECT_EQ(cNull.values(), cOnes.values()) << op;
    }
}

TEST(IxScanlineUtil, CopyIfWithAConditionOfZerosChangesNothing) {
    const F zeros(0.0f);
    F dst({1, 2, 3, 4, 5});
    U::copyIf(dst.s, F(9.0f).s, &zeros.s);
    EXPECT_EQ(dst.values(), (std::vector<float>{1, 2, 3, 4, 5}));
    C cdst(c(1));
    U::copyIf(cdst.s, C(c(7)).s, &zeros.s);
    U::copyIf(cdst.s, F(7.0f).s, &zeros.s);
    EXPECT_EQ(cdst.values(), std::vector<Color>(5, c(1)));
}

TEST(IxScanlineUtil, MaskedStoresWriteWhereTheConditionIsNotZeroNaNIncluded) {
    const F cond({1, 0, kNaN, -0.0f, 2});
    F dst({10, 10, 10, 10, 10}), src(3.0f);
    U::copyIf(dst.s, src.s, &cond.s);
    EXPECT_EQ(dst.values(), (std::vector<float>{3, 10, 3, 10, 3}));
    F acc(10.0f);
    U::accumulateScanline(acc.s, src.s, &cond.s);
    EXPECT_EQ(acc.values(), (std::vector<float>{13, 10, 13, 10, 13}));
    F dec(10.0f);
    U::decrementScanline(dec.s, src.s, &cond.s);
    EXPECT_EQ(dec.values(), (std::vector<float>{7, 10, 7, 10, 7}));
    F mul(10.0f);
    U::mulAssignScanline(mul.s, src.s, &cond.s);
    EXPECT_EQ(mul.values(), (std::vector<float>{30, 10, 30, 10, 30}));
    F div(6.0f);
    U::divAssignScanline(div.s, src.s, &cond.s);
    EXPECT_EQ(div.values(), (std::vector<float>{2, 6, 2, 6, 2}));
}

TEST(IxScanlineUtil, ColourStoresFromColoursAndFromFloats) {
    const F cond({1, 0, 1, 0, 1});
    C dst(c(1));
    U::copyIf(dst.s, C(c(5)).s, &cond.s);
    EXPECT_EQ(dst.s[10], c(5));
    EXPECT_EQ(dst.s[11], c(1));
    U::copyIf(dst.s, F(0.5f).s, &cond.s);  // a float sets all four channels
    EXPECT_EQ(dst.s[12], Color(0.5f, 0.5f, 0.5f, 0.5f));
    C acc(c(1));
    U::accumulateScanline(acc.s, C(c(1)).s, nullptr);
    EXPECT_EQ(acc.s[10], Color(2, 4, 6, 8));
    U::accumulateScanline(acc.s, F(1.0f).s, nullptr);
    EXPECT_EQ(acc.s[10], Color(3, 5, 7, 9));
    U::decrementScanline(acc.s, F(1.0f).s, nullptr);
    U::decrementScanline(acc.s, C(c(1)).s, nullptr);
    EXPECT_EQ(acc.s[10], c(1));
    U::mulAssignScanline(acc.s, F(2.0f).s, nullptr);
    EXPECT_EQ(acc.s[10], Color(2, 4, 6, 8));
    U::mulAssignScanline(acc.s, C(Color(1, 0.5f, 1, 0.25f)).s, nullptr);
    EXPECT_EQ(acc.s[10], Color(2, 2, 6, 2));
    U::divAssignScanline(acc.s, F(2.0f).s, nullptr);
    EXPECT_EQ(acc.s[10], Color(1, 1, 3, 1));
    U::divAssignScanline(acc.s, C(Color(1, 1, 3, 0)).s, nullptr);
    EXPECT_EQ(acc.s[10], Color(1, 1, 1, kInf));
}

// ---- Channels --------------------------------------------------------------------------------------

TEST(IxScanlineUtil, ExtractChannelGivesEachChannelAndInvert1GivesOneMinusIt) {
    C src({c(0), c(10), c(20), c(30), c(40)});
    F d(0.0f);
    for (int ch = 0; ch < 4; ++ch) {
        U::extractChannel(d.s, ch, src.s, IxScanlineUtilTypes::NoInvert, nullptr);
        EXPECT_EQ(d.values(), (std::vector<float>{0.0f + ch, 10.0f + ch, 20.0f + ch, 30.0f + ch, 40.0f + ch})) << ch;
    }
    U::extractChannel(d.s, 3, C(Color(0, 0, 0, 0.25f)).s, IxScanlineUtilTypes::Invert, nullptr);
    EXPECT_EQ(d.s[10], 0.75f);
}

TEST(IxScanlineUtil, ReplaceChannelOnChannel3LeavesRedGreenAndBlue) {
    C dst(c(1));
    U::replaceChannelIf(dst.s, F(9.0f).s, nullptr, 3, nullptr);
    EXPECT_EQ(dst.values(), std::vector<Color>(5, Color(1, 2, 3, 9)));
}

TEST(IxScanlineUtil, ReplaceChannelFollowsTheConditionForEveryChannel) {
    const F cond({1, 0, kNaN, -0.0f, 1});
    for (int ch = 0; ch < 4; ++ch) {
        C dst(c(1));
        U::replaceChannelIf(dst.s, F({5, 6, 7, 8, 9}).s, &cond.s, ch);
        for (int x = 10; x < 15; ++x) {
            Color expected = c(1);
            if (cond.s[x] != 0.0f) expected[ch] = float(x - 5);
            EXPECT_EQ(dst.s[x], expected) << "channel " << ch << " column " << x;
        }
    }
}
