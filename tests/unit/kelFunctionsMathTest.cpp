// Part 5.1: math functions, driven through FunctionNode<F>::eval over small contexts.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <type_traits>

#include "kelFunctionTestSupport.h"

using namespace Zt;
using namespace Zt::test;

namespace {

const float kNaN = std::numeric_limits<float>::quiet_NaN();
const float kSentinel = -12345.0f;

// Evaluates F over one argument row (all columns active) and returns the result row.
template <class F>
std::vector<float> eval1(const std::vector<float>& a) {
    CallHarness h(0, int(a.size()));
    auto node = h.call<F>("f", {h.floats(a)});
    return CallHarness::row(node->eval(h.context));
}

template <class F>
std::vector<float> eval2(const std::vector<float>& a, const std::vector<float>& b) {
    CallHarness h(0, int(a.size()));
    auto node = h.call<F>("f", {h.floats(a), h.floats(b)});
    return CallHarness::row(node->eval(h.context));
}

template <class F>
float one(float a) { return eval1<F>({a})[0]; }
template <class F>
float two(float a, float b) { return eval2<F>({a}, {b})[0]; }

}  // namespace

// Part 5.1's table, one formula each, at a few points.
TEST(KelFunctionsMath, FormulasOfTheTable) {
    const std::vector<float> xs = {-2.5f, -0.75f, -0.0f, 0.0f, 0.3f, 0.5f, 1.0f, 2.5f, 7.25f};
    const std::vector<float> ys = {1.5f, -2.0f, 3.0f, -0.5f, 2.0f, 0.25f, -1.0f, 4.0f, -3.5f};
    // Part 5.1: "required to the accuracy of such a library, not to the last bit": sin, cos and
    // atan2 take the C library's vector functions for whole rows (issue 8), a few ulps from the
    // scalar ones; the other formulas are compared bit for bit.
    auto withinUlps = [](float got, float want, int ulps) {
        if (ulps == 0 || std::isnan(got) || std::isnan(want) || std::signbit(got) != std::signbit(want)) return false;
        return std::abs(std::bit_cast<int32_t>(got) - std::bit_cast<int32_t>(want)) <= ulps;
    };
    auto check1 = [&](auto tag, float (*f)(float), const char* name, int ulps = 0) {
        using F = decltype(tag);
        std::vector<float> got = eval1<F>(xs);
        for (std::size_t i = 0; i < xs.size(); ++i) {
            float want = f(xs[i]);
            EXPECT_TRUE(sameBits(got[i], want) || (std::isnan(got[i]) && std::isnan(want)) || withinUlps(got[i], want, ulps))
                << name << "(" << xs[i] << ") gave " << got[i] << ", want " << want;
        }
    };
    auto check2 = [&](auto tag, float (*f)(float, float), const char* name, int ulps = 0) {
        using F = decltype(tag);
        std::vector<float> got = eval2<F>(xs, ys);
        for (std::size_t i = 0; i < xs.size(); ++i) {
            float want = f(xs[i], ys[i]);
            EXPECT_TRUE(sameBits(got[i], want) || (std::isnan(got[i]) && std::isnan(want)) || withinUlps(got[i], want, ulps))
                << name << "(" << xs[i] << ", " << ys[i] << ") gave " << got[i] << ", want " << want;
        }
    };
    check1(FunctionSin(), [](float a) { return sinf(a); }, "sin", 4);
    check1(FunctionCos(), [](float a) { return cosf(a); }, "cos", 4);
    check1(FunctionTan(), [](float a) { return tanf(a); }, "tan");
    check1(FunctionASin(), [](float a) { return asinf(a); }, "asin");
    check1(FunctionACos(), [](float a) { return acosf(a); }, "acos");
    check1(FunctionATan(), [](float a) { return atanf(a); }, "atan");
    check2(FunctionATan2(), [](float a, float b) { return atan2f(a, b); }, "atan2", 4);
    check1(FunctionSinh(), [](float a) { return sinhf(a); }, "sinh");
    check1(FunctionCosh(), [](float a) { return coshf(a); }, "cosh");
    check1(FunctionTanh(), [](float a) { return tanhf(a); }, "tanh");
    check1(FunctionDegrees(), [](float a) { return a * 57.29578f; }, "degrees");
    check1(FunctionRadians(), [](float a) { return a * 0.017453292f; }, "radians");
    check1(FunctionExp(), [](float a) { return expf(a); }, "exp");
    check1(FunctionLog(), [](float a) { return logf(a); }, "log");
    check1(FunctionLog10(), [](float a) { return log10f(a); }, "log10");
    check2(FunctionPow(), [](float a, float b) { return powf(a, b); }, "pow");
    check1(FunctionPow10(), [](float a) { return powf(10.0f, a); }, "pow10");
    check1(FunctionSqrt(), [](float a) { return sqrtf(a); }, "sqrt");
    check1(FunctionAbs(), [](float a) { return std::fabs(a); }, "abs");
    check1(FunctionFloor(), [](float a) { return floorf(a); }, "floor");
    check1(FunctionCeil(), [](float a) { return ceilf(a); }, "ceil");
    check1(FunctionRound(), [](float a) { return floorf(a + 0.5f); }, "round");
    check2(FunctionMod(), [](float a, float b) { return fmodf(a, b); }, "mod");
    check2(FunctionMin(), [](float a, float b) { return b > a ? a : b; }, "min");
    check2(FunctionMax(), [](float a, float b) { return a > b ? a : b; }, "max");
    check2(FunctionHypot(), [](float a, float b) { return sqrtf(a * a + b * b); }, "hypot");
}

TEST(KelFunctionsMath, RoundHalvesGoUpward) {
    EXPECT_EQ(one<FunctionRound>(-2.5f), -2.0f);
    EXPECT_EQ(one<FunctionRound>(2.5f), 3.0f);
    float r = one<FunctionRound>(-0.5f);
    EXPECT_EQ(r, 0.0f);
    EXPECT_FALSE(std::signbit(r));
    // 0.49999997 + 0.5 rounds to 1.0 in single precision.
    EXPECT_EQ(one<FunctionRound>(0.49999997f), 1.0f);
}

TEST(KelFunctionsMath, ModHasTheSignOfTheFirstArgument) {
    EXPECT_EQ(two<FunctionMod>(-7.0f, 3.0f), -1.0f);
    EXPECT_EQ(two<FunctionMod>(7.0f, -3.0f), 1.0f);
    EXPECT_TRUE(std::isnan(two<FunctionMod>(1.0f, 0.0f)));
}

TEST(KelFunctionsMath, AbsClearsTheSignBitOfNaNAndMinusZero) {
    EXPECT_TRUE(sameBits(one<FunctionAbs>(-0.0f), 0.0f));
    float negativeNaN = -kNaN;
    ASSERT_TRUE(std::signbit(negativeNaN));
    float r = one<FunctionAbs>(negativeNaN);
    EXPECT_TRUE(std::isnan(r));
    EXPECT_FALSE(std::signbit(r));
    EXPECT_EQ(one<FunctionAbs>(-3.5f), 3.5f);
}

TEST(KelFunctionsMath, MinAndMaxFallToTheSecondArgumentOnNaN) {
    EXPECT_TRUE(std::isnan(two<FunctionMin>(1.0f, kNaN)));
    EXPECT_TRUE(std::isnan(two<FunctionMax>(1.0f, kNaN)));
    EXPECT_EQ(two<FunctionMin>(kNaN, 1.0f), 1.0f);
    EXPECT_EQ(two<FunctionMax>(kNaN, 1.0f), 1.0f);
    EXPECT_EQ(two<FunctionMin>(2.0f, 3.0f), 2.0f);
    EXPECT_EQ(two<FunctionMax>(2.0f, 3.0f), 3.0f);
    // Equal arguments give b: -0.0 and 0.0 compare equal.
    EXPECT_TRUE(sameBits(two<FunctionMin>(-0.0f, 0.0f), 0.0f));
    EXPECT_TRUE(sameBits(two<FunctionMax>(0.0f, -0.0f), -0.0f));
}

TEST(KelFunctionsMath, HypotIsThePlainFormulaAndOverflows) {
    EXPECT_EQ(two<FunctionHypot>(3.0f, 4.0f), 5.0f);
    EXPECT_TRUE(std::isinf(two<FunctionHypot>(3e20f, 4e20f)));
}

TEST(KelFunctionsMath, Atan2TakesYFirst) {
    EXPECT_FLOAT_EQ(two<FunctionATan2>(0.0f, -1.0f), 3.14159265f);
    EXPECT_FLOAT_EQ(two<FunctionATan2>(1.0f, 0.0f), 1.5707964f);
}

TEST(KelFunctionsMath, DegreesOfRadiansIsNotExactlyTheIdentity) {
    CallHarness h(0, 1);
    // 30 is one of the values where the two single-precision constants don't cancel.
    auto inner = h.call<FunctionRadians>("radians", {h.constant(30.0f)});
    auto outer = h.call<FunctionDegrees>("degrees", {KelNodePtr(inner)});
    float r = CallHarness::row(outer->eval(h.context))[0];
    EXPECT_EQ(r, 30.0000019f);
    EXPECT_NEAR(r, 30.0f, 1e-5f);
}

TEST(KelFunctionsMath, Pow10AndExpAreUnguarded) {
    EXPECT_TRUE(std::isinf(one<FunctionPow10>(100.0f)));
    EXPECT_TRUE(std::isinf(one<FunctionExp>(1000.0f)));
    EXPECT_EQ(one<FunctionPow10>(2.0f), 100.0f);
}

TEST(KelFunctionsMath, DomainErrorsGiveNaNOrInfinity) {
    EXPECT_TRUE(std::isnan(one<FunctionSqrt>(-1.0f)));
    EXPECT_TRUE(std::isinf(one<FunctionLog>(0.0f)));
    EXPECT_TRUE(std::isnan(one<FunctionLog>(-1.0f)));
    EXPECT_TRUE(std::isnan(one<FunctionASin>(2.0f)));
    EXPECT_TRUE(std::isnan(one<FunctionACos>(-2.0f)));
}

// Inside a partly active `if`, sqrt of a negative number at an inactive column isn't computed:
// the column keeps what the pool's object held.
TEST(KelFunctionsMath, InactiveColumnsAreNotWritten) {
    CallHarness h(3, 9);  // absolute columns 3..8
    auto arg = h.floats({4.0f, -1.0f, 9.0f, -4.0f, 16.0f, 25.0f});
    auto node = h.call<FunctionSqrt>("sqrt", {arg});
    h.narrowTo({1, 0, 1, 0, 1, 0});
    h.prefillFloat(kSentinel);
    std::vector<float> got = CallHarness::row(node->eval(h.context));
    EXPECT_EQ(got, (std::vector<float>{2.0f, kSentinel, 3.0f, kSentinel, 4.0f, kSentinel}));
}

// Part 5.1: sin, cos and atan2 go through a whole-row function into a scratch row; under a
// partial mask only the active columns are stored, and the inactive ones keep what the pool's
// object held. The active columns are those of the all-active path, bit for bit. A row of 11
// columns at an odd offset covers the vector groups and their tail.
TEST(KelFunctionsMath, RowFunctionsLeaveInactiveColumnsAsThePoolHeldThem) {
    std::vector<float> as, bs, active;
    for (int i = 0; i < 11; ++i) {
        as.push_back(-2.5f + 0.61f * float(i));
        bs.push_back(1.75f - 0.43f * float(i));
        active.push_back(i % 3 == 1 || i == 10 ? 0.0f : 1.0f);
    }
    auto run = [&](auto tag, const char* name, bool masked) {
        using F = decltype(tag);
        CallHarness h(5, 16);
        KelNodePtr node;
        if constexpr (std::is_same_v<F, FunctionATan2>) node = h.call<F>(name, {h.floats(as), h.floats(bs)});
        else node = h.call<F>(name, {h.floats(as)});
        if (masked) h.narrowTo(active);
        h.prefillFloat(kSentinel);
        return CallHarness::row(node->eval(h.context));
    };
    auto check = [&](auto tag, const char* name) {
        const std::vector<float> all = run(tag, name, false);
        const std::vector<float> masked = run(tag, name, true);
        ASSERT_EQ(masked.size(), active.size());
        for (std::size_t i = 0; i < active.size(); ++i) {
            if (active[i] != 0.0f)
                EXPECT_TRUE(sameBits(masked[i], all[i])) << name << " column " << i << ": " << masked[i] << " vs " << all[i];
            else
                EXPECT_TRUE(sameBits(masked[i], kSentinel)) << name << " column " << i << " was written: " << masked[i];
            EXPECT_FALSE(sameBits(all[i], kSentinel)) << name << " column " << i;
        }
    };
    check(FunctionSin(), "sin");
    check(FunctionCos(), "cos");
    check(FunctionATan2(), "atan2");
}

TEST(KelFunctionsMath, TwoArgumentFormsAreMaskedToo) {
    CallHarness h(0, 4);
    auto node = h.call<FunctionPow>("pow", {h.floats({2, 2, 2, 2}), h.floats({1, 2, 3, 4})});
    h.narrowTo({0, 1, 1, 0});
    h.prefillFloat(kSentinel);
    EXPECT_EQ(CallHarness::row(node->eval(h.context)), (std::vector<float>{kSentinel, 4.0f, 8.0f, kSentinel}));
}

// The whole-row path (every column active) and the masked loop agree at the active columns.
TEST(KelFunctionsMath, AllActivePathAgreesWithTheMaskedLoop) {
    std::vector<float> xs;
    for (int i = 0; i < 37; ++i) xs.push_back(-3.0f + 0.173f * float(i));
    std::vector<float> active(xs.size(), 1.0f);
    active[36] = 0.0f;  // one inactive column is enough to take the masked loop
    auto run = [&](bool masked) {
        CallHarness h(100, 137);
        auto node = h.call<FunctionHypot>("hypot", {h.floats(xs), h.constant(0.5f)});
        if (masked) h.narrowTo(active);
        EXPECT_EQ(h.context.getMask().allActive(), !masked);
        return CallHarness::row(node->eval(h.context));
    };
    std::vector<float> all = run(false), masked = run(true);
    for (std::size_t i = 0; i + 1 < xs.size(); ++i) EXPECT_TRUE(sameBits(all[i], masked[i])) << i;
}

TEST(KelFunctionsMath, ConstantArgumentGivesAVaryingResultInAnotherObject) {
    CallHarness h(0, 3);
    auto arg = h.constant(0.25f);
    auto node = h.call<FunctionSqrt>("sqrt", {arg});
    KelValuePtr result = node->eval(h.context);
    EXPECT_FALSE(result->isUniform());
    EXPECT_NE(result.get(), h.held(arg).get());
    EXPECT_EQ(CallHarness::row(result), (std::vector<float>{0.5f, 0.5f, 0.5f}));
    EXPECT_EQ(result->getType(), KelValueTypes::Float);
}

TEST(KelFunctionsMath, ArgumentsAreEvaluatedOnceEach) {
    CallHarness h(0, 2);
    auto a = h.floats({1, 2});
    auto b = h.floats({3, 4});
    auto node = h.call<FunctionMax>("max", {a, b});
    node->eval(h.context);
    EXPECT_EQ(static_cast<HeldValueNode*>(a.get())->evalCount, 1);
    EXPECT_EQ(static_cast<HeldValueNode*>(b.get())->evalCount, 1);
}

// Temporaries go back to the pool: a second run reuses the same objects.
TEST(KelFunctionsMath, ResultsGoBackToThePool) {
    CallHarness h(0, 8);
    auto node = h.call<FunctionSin>("sin", {h.constant(1.0f)});
    node->eval(h.context);
    std::size_t size = h.context.poolSize();
    for (int i = 0; i < 5; ++i) node->eval(h.context);
    EXPECT_EQ(h.context.poolSize(), size);
}
