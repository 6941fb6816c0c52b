// Part 2.3: masks. `narrow` against the column-by-column rule (the reference), its flags, the
// four-at-a-time groups and the tail, and control flow over masks through the real nodes.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <random>

#include "kelContext.h"
#include "kelTreeBuilder.h"

using namespace Zt;
using namespace Zt::test;

namespace {

const float kNaN = std::numeric_limits<float>::quiet_NaN();

// The column-by-column rule of Part 2.3.
struct Reference {
    std::vector<float> mask;
    bool noneActive = true;
    bool allActive = true;
};
Reference narrowByColumns(const std::vector<float>& mask, const std::vector<float>& condition, int invert) {
    Reference r;
    for (std::size_t i = 0; i < mask.size(); ++i) {
        const bool keep = mask[i] != 0.0f && (invert == 1 ? condition[i] == 0.0f : condition[i] != 0.0f);
        r.mask.push_back(keep ? 1.0f : 0.0f);
        if (keep) r.noneActive = false;
        else r.allActive = false;
    }
    return r;
}

// Puts `pattern` into the context's mask by narrowing the all-active mask with it.
void setMaskTo(KelContext& c, const std::vector<float>& pattern) {
    c.setMask(KelMask(c.getInterval()));
    auto cond = c.newFloat(0);
    for (int x = 0; x < int(pattern.size()); ++x) cond->getScanline()[c.getInterval().min + x] = pattern[std::size_t(x)];
    c.getMask().narrow(cond, 0);
}

std::vector<float> maskOf(const KelMask& m) { return rowOf(m.getScanline()); }

KelFloatPtr conditionOf(KelContext& c, const std::vector<float>& values) {
    auto cond = c.newFloat(0);
    for (int x = 0; x < int(values.size()); ++x) cond->getScanline()[c.getInterval().min + x] = values[std::size_t(x)];
    return cond;
}

bool sameBits(const std::vector<float>& a, const std::vector<float>& b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i)
        if (std::memcmp(&a[i], &b[i], sizeof(float)) != 0) return false;
    return true;
}

// A leaf that gives a value made beforehand.
struct ValueNode : KelSyntaxTree {
    KelValuePtr value;
    explicit ValueNode(KelValuePtr v) : value(std::move(v)) {}
    RCShdPtr<KelValue> eval(KelContext&) const override { return value; }
};

}  // namespace

TEST(KelMask, NarrowAgreesWithTheColumnRuleOnRandomMasksAndConditionsOfEveryLength0To37) {
    std::mt19937 rng(1234);
    const float palette[] = {0.0f, -0.0f, 1.0f, -1.0f, kNaN, 0.5f, std::numeric_limits<float>::infinity(), 1e-40f};
    for (int n = 0; n <= 37; ++n) {
        for (int trial = 0; trial < 60; ++trial) {
            for (int invert : {0, 1, 2}) {
                // Start offsets that move the interval's minimum off zero; storage stays aligned.
                const int lo = int(rng() % 9) - 4;
                KelContext c(GeInterval<int>(lo, lo + n), 0);
                std::vector<float> pattern(static_cast<std::size_t>(n)), condition(static_cast<std::size_t>(n));
                const unsigned density = rng() % 4;  // all-active, none-active and mixed masks
                for (int i = 0; i < n; ++i) {
                    pattern[std::size_t(i)] = density == 0 ? 1.0f : density == 1 ? 0.0f : (rng() % 2 ? 1.0f : 0.0f);
                    condition[std::size_t(i)] = palette[rng() % 8];
                }
                setMaskTo(c, pattern);
                const Reference expected = narrowByColumns(maskOf(c.getMask()), condition, invert);
                c.getMask().narrow(conditionOf(c, condition), invert);
                ASSERT_TRUE(sameBits(maskOf(c.getMask()), expected.mask)) << "n " << n << " invert " << invert;
                ASSERT_EQ(c.getMask().noneActive(), expected.noneActive) << "n " << n;
                ASSERT_EQ(c.getMask().allActive(), expected.allActive) << "n " << n;
                ASSERT_EQ(c.getMask().activeScanline() == nullptr, expected.allActive);
                // Issue 8's span: from the first active column to the last, null when all are.
                const GeInterval<int>* span = c.getMask().activeSpan();
                ASSERT_EQ(span == nullptr, expected.allActive);
                if (span) {
                    int first = lo + n, last = lo - 1;
                    for (int i = 0; i < n; ++i)
                        if (expected.mask[std::size_t(i)] != 0.0f) {
                            first = std::min(first, lo + i);
                            last = lo + i;
                        }
                    if (expected.noneActive) EXPECT_TRUE(span->isEmpty());
                    else EXPECT_EQ(*span, GeInterval<int>(first, last + 1)) << "n " << n;
                }
            }
        }
    }
}

TEST(KelMask, FewerThanFourColumnsGoThroughTheTailAndGiveTheSameFlags) {
    for (int n = 1; n < 4; ++n) {
        KelContext c(GeInterval<int>(0, n), 0);
        std::vector<float> cond(std::size_t(n), 1.0f);
        c.getMask().narrow(conditionOf(c, cond), 0);
        EXPECT_TRUE(c.getMask().allActive());
        EXPECT_FALSE(c.getMask().noneActive());
        cond[std::size_t(n - 1)] = 0.0f;
        c.getMask().narrow(conditionOf(c, cond), 0);
        EXPECT_FALSE(c.getMask().allActive());
        EXPECT_EQ(c.getMask().noneActive(), n == 1);
        c.getMask().narrow(conditionOf(c, std::vector<float>(std::size_t(n), 0.0f)), 0);
        EXPECT_TRUE(c.getMask().noneActive());
    }
}

TEST(KelMask, ASingleActivePixelInTheTailKeepsNoneActiveFalse) {
    KelContext c(GeInterval<int>(0, 10), 0);
    std::vector<float> cond(10, 0.0f);
    cond[9] = 1.0f;
    c.getMask().narrow(conditionOf(c, cond), 0);
    EXPECT_FALSE(c.getMask().noneActive());
    EXPECT_FALSE(c.getMask().allActive());
    EXPECT_EQ(c.getMask().isActive(9), 1.0f);
}

TEST(KelMask, ASingleInactivePixelInTheTailClearsAllActive) {
    KelContext c(GeInterval<int>(0, 10), 0);
    std::vector<float> cond(10, 1.0f);
    cond[8] = 0.0f;
    c.getMask().narrow(conditionOf(c, cond), 0);
    EXPECT_FALSE(c.getMask().allActive());
    EXPECT_FALSE(c.getMask().noneActive());
}

TEST(KelMask, AnEmptyIntervalHasBothFlags) {
    KelContext c(GeInterval<int>(5, 5), 0);
    EXPECT_FALSE(c.getMask().noneActive());  // as built
    c.getMask().narrow(c.newFloat(0), 0);
    EXPECT_TRUE(c.getMask().noneActive());
    EXPECT_TRUE(c.getMask().allActive());
}

TEST(KelMask, AConditionOfMinusZeroIsFalse) {
    KelContext c(GeInterval<int>(0, 5), 0);
    c.getMask().narrow(c.newConstantFloat(-0.0f, 0), 0);
    EXPECT_TRUE(c.getMask().noneActive());
    c.setMask(KelMask(c.getInterval()));
    c.getMask().narrow(c.newConstantFloat(-0.0f, 0), 1);
    EXPECT_TRUE(c.getMask().allActive());
}

TEST(KelMask, ANaNConditionIsTrueForThenAndFalseForElse) {
    KelContext c(GeInterval<int>(0, 6), 0);
    c.getMask().narrow(c.newConstantFloat(kNaN, 0), 0);
    EXPECT_TRUE(c.getMask().allActive());
    c.getMask().narrow(c.newConstantFloat(kNaN, 0), 1);
    EXPECT_TRUE(c.getMask().noneActive());
}

TEST(KelMask, ThenAndElseMasksAreDisjointAndMakeUpTheSavedMaskExceptNaNInThenAlone) {
    KelContext c(GeInterval<int>(0, 9), 0);
    setMaskTo(c, {1, 1, 1, 1, 0, 1, 1, 1, 0});
    const KelMask saved(c.getMask());
    auto cond = conditionOf(c, {0.0f, 1.0f, kNaN, -0.0f, 1.0f, 2.0f, 0.0f, kNaN, 0.0f});
    c.getMask().narrow(cond, 0);
    const std::vector<float> thenMask = maskOf(c.getMask());
    c.setMask(saved);
    c.getMask().narrow(cond, 1);
    const std::vector<float> elseMask = maskOf(c.getMask());
    const std::vector<float> savedMask = maskOf(saved);
    for (int x = 0; x < 9; ++x) {
        EXPECT_FALSE(thenMask[x] != 0.0f && elseMask[x] != 0.0f) << x;
        EXPECT_EQ(thenMask[x] + elseMask[x], savedMask[x]) << x;
    }
    EXPECT_EQ(thenMask[2], 1.0f);  // NaN: then
    EXPECT_EQ(elseMask[2], 0.0f);
    EXPECT_EQ(thenMask[7], 1.0f);
}

TEST(KelMask, NarrowWithANullConditionIsANullPointerFailure) {
    KelContext c(GeInterval<int>(0, 4), 0);
    EXPECT_THROW(c.getMask().narrow(KelFloatPtr(), 0), ExNullPtr);
}

TEST(KelMask, TheConditionsUniformFlagPlaysNoPart) {
    KelContext c(GeInterval<int>(0, 5), 0);
    auto cond = c.newConstantFloat(1.0f, 0);
    cond->getScanline()[3] = 0.0f;  // still flagged uniform
    ASSERT_TRUE(cond->isUniform());
    c.getMask().narrow(cond, 0);
    EXPECT_EQ(c.getMask().isActive(3), 0.0f);
    EXPECT_EQ(c.getMask().isActive(2), 1.0f);
}

TEST(KelMask, CopiesKeepFlagsAndPixelsAndAssignmentReusesTheScanline) {
    KelContext c(GeInterval<int>(0, 7), 0);
    setMaskTo(c, {1, 0, 1, 0, 1, 0, 1});
    KelMask copy(c.getMask());
    EXPECT_EQ(maskOf(copy), maskOf(c.getMask()));
    EXPECT_FALSE(copy.allActive());
    EXPECT_NE(copy.getScanline().begin(), c.getMask().getScanline().begin());
    KelMask other(c.getInterval());
    const float* storage = other.getScanline().begin();
    other = copy;
    EXPECT_EQ(other.getScanline().begin(), storage);
    EXPECT_EQ(maskOf(other), maskOf(copy));
    EXPECT_EQ(other.activeScanline(), &other.getScanline());
    EXPECT_EQ(KelMask(c.getInterval()).activeScanline(), nullptr);
    ASSERT_NE(other.activeSpan(), nullptr);
    EXPECT_EQ(*other.activeSpan(), GeInterval<int>(0, 7));
    setMaskTo(c, {0, 0, 1, 0, 1, 0, 0});
    other = c.getMask();
    EXPECT_EQ(*other.activeSpan(), GeInterval<int>(2, 5));
    EXPECT_EQ(*KelMask(other).activeSpan(), GeInterval<int>(2, 5));
    EXPECT_EQ(KelMask(c.getInterval()).activeSpan(), nullptr);
}

// Issue 8's fast path: under a partial mask an operator computes the columns of the active span
// only (outside it, the pool's object keeps what it held), and inside it the same bits as with
// every column active.
TEST(KelMask, OperatorsComputeOnlyInsideTheActiveSpan) {
    KelContext c(GeInterval<int>(0, 9), 0);
    auto a = conditionOf(c, {1, 2, 3, 4, 5, 6, 7, 8, 9});
    auto b = conditionOf(c, {0.5f, -1, kNaN, 1e30f, 3, -0.0f, 2, 7, 1});
    KelNodePtr sum(new ValueNode(a)), product(new ValueNode(b));
    KelNodePtr expression = binary("*", binary("+", sum, product), product);
    const std::vector<float> everywhere = rowOf(rcStaticCast<KelFloat>(expression->eval(c))->getScanline());
    // Fill the pool's float rows with a marker, then evaluate under the mask 0 0 1 0 1 1 0 0 0.
    {
        std::vector<KelFloatPtr> held;
        for (int i = 0; i < 8; ++i) {
            held.push_back(c.newFloat(0));
            IxScanlineUtil::set(held.back()->getScanline(), -42.0f, nullptr);
        }
    }
    setMaskTo(c, {0, 0, 1, 0, 1, 1, 0, 0, 0});
    const std::vector<float> masked = rowOf(rcStaticCast<KelFloat>(expression->eval(c))->getScanline());
    for (int x = 0; x < 9; ++x) {
        if (x >= 2 && x < 6) EXPECT_TRUE(sameBits({masked[std::size_t(x)]}, {everywhere[std::size_t(x)]})) << x;
        else EXPECT_EQ(masked[std::size_t(x)], -42.0f) << x;
    }
}

// ---- Control flow over masks (Part 4.2 through the nodes) ---------------------------------------

TEST(KelMask, IfFalseEverywhereStillEvaluatesThenWhoseStoresAndRandChangeNothing) {
    int thenRuns = 0;
    struct Counter : KelSyntaxTree {
        int* runs;
        explicit Counter(int* r) : runs(r) {}
        RCShdPtr<KelValue> eval(KelContext&) const override {
            ++*runs;
            return nullptr;
        }
    };
    // out = 0.25; if (0) { out = rand(); count }
    KelScriptRun run(mainOf(block({assign("v", "=", num(0.25f)),
                                   ifElse(num(0), block({assign("v", "=", call<FunctionRand>("rand", {})), new Counter(&thenRuns)}))}),
                            {output("float", "v")}));
    run.check();
    run.beginTile(0, 6);
    run.bindFloatOutput("v");
    std::srand(77);
    const int expectedNext = std::rand();
    std::srand(77);
    run.runRow(0);
    EXPECT_EQ(thenRuns, 1);
    for (float v : run.floats("v")) EXPECT_EQ(v, 0.25f);
    EXPECT_EQ(std::rand(), expectedNext);  // no number drawn
}

TEST(KelMask, AWhileWhoseConditionIsNaNKeepsThatPixelInTheLoop) {
    // float k = 0; while (c) { k += 1; c = (k < 3) ... } with c NaN at column 1 only: NaN < 3 is
    // false, so the condition is rebuilt from k; column 1 stays until k reaches 3.
    KelScriptRun run(mainOf(block({declareAs("float", "c", binary("/", num(0), binary("-", var("x"), num(1)))),
                                   assign("v", "=", num(0)),
                                   loopWhile(var("c"), block({assign("v", "+=", num(1)),
                                                              assign("c", "=", binary("<", var("v"), num(3)))}))}),
                            {output("float", "v")}));
    run.check();
    run.beginTile(0, 3);
    run.bindFloatOutput("v");
    run.runRow(0);
    // Column 1: 0 / 0 is NaN, true. Columns 0 and 2: 0 / -1 and 0 / 1 are zeros, false.
    EXPECT_EQ(run.floats("v"), (std::vector<float>{0, 3, 0}));
}

TEST(KelMask, ALoopThatNeverEndsForOnePixelNeverEndsForTheScanline) {
    // while (x == 2) {} : only column 2 loops, for ever; the cancellation point stops it.
    KelScriptRun run(mainOf(block({loopWhile(binary("==", var("x"), num(2)), block({}))}), {}));
    run.check();
    run.beginTile(0, 4);
    PxRequestMgr::getInstance().setCheckBudget(1000);
    EXPECT_THROW(run.runRow(0), ExCancelled);
    PxRequestMgr::getInstance().setCheckBudget(-1);
}

TEST(KelMask, ALoopsMaskOnlyShrinksAndIsRestoredAfterwards) {
    // for (i = 0; i < x; i++) v += 1 : column x runs x passes; the mask is all active after.
    KelScriptRun run(mainOf(block({declare("float", "i"), assign("v", "=", num(0)),
                                   loopFor(assign("i", "=", num(0)), binary("<", var("i"), var("x")), unary("P++", var("i")),
                                           block({assign("v", "+=", num(1))}))}),
                            {output("float", "v")}));
    run.check();
    run.beginTile(0, 5);
    run.bindFloatOutput("v");
    run.runRow(0);
    EXPECT_EQ(run.floats("v"), (std::vector<float>{0, 1, 2, 3, 4}));
    EXPECT_TRUE(run.context().getMask().allActive());
}
