// Part 5.2: colour and channel functions, driven through FunctionNode<F>::eval.
#include <gtest/gtest.h>

#include <bit>
#include <cstdint>

#include "kelFunctionTestSupport.h"

using namespace Zt;
using namespace Zt::test;

namespace {

const float kSentinel = -777.0f;

std::vector<Color> sampleColors() {
    return {Color(0.1f, 0.2f, 0.3f, 0.4f), Color(1, 2, 3, 4), Color(-1, -2, -3, -4), Color(5, 6, 7, 8)};
}

template <class F>
std::vector<float> readChannel(const char* name, bool masked) {
    CallHarness h(10, 14);
    auto node = h.call<F>(name, {h.colors(sampleColors())});
    if (masked) h.narrowTo({1, 0, 0, 1});
    h.prefillFloat(kSentinel);
    return CallHarness::row(node->eval(h.context));
}

std::vector<float> channelOf(int k) {
    std::vector<float> out;
    for (const Color& c : sampleColors()) out.push_back(c[k]);
    return out;
}

}  // namespace

// `r(p)` inside an `if` computes all columns, also the inactive ones.
TEST(KelFunctionsColor, ReadersGiveTheirChannelAtAllColumns) {
    for (bool masked : {false, true}) {
        EXPECT_EQ(readChannel<FunctionR>("r", masked), channelOf(0));
        EXPECT_EQ(readChannel<FunctionG>("g", masked), channelOf(1));
        EXPECT_EQ(readChannel<FunctionB>("b", masked), channelOf(2));
        EXPECT_EQ(readChannel<FunctionA>("a", masked), channelOf(3));
    }
}

// `x(p)` and `r(p)` are the same class under two names.
TEST(KelFunctionsColor, AliasesShareTheClassAndTheResult) {
    CallHarness h(0, 4);
    auto p = h.colors(sampleColors());
    auto byR = h.call<FunctionR>("r", {p});
    auto byX = h.call<FunctionR>("x", {p});
    EXPECT_EQ(CallHarness::row(byX->eval(h.context)), CallHarness::row(byR->eval(h.context)));
    EXPECT_EQ(byX->getName(), "x");
    EXPECT_EQ(byR->getName(), "r");
}

// `setA(p, 0.5)` inside an `if` changes the alpha of p at the active pixels only, in place.
TEST(KelFunctionsColor, SetterWritesTheChannelInPlaceAtActiveColumns) {
    CallHarness h(0, 4);
    auto p = h.colors(sampleColors());
    auto node = h.call<FunctionSetA>("setA", {p, h.constant(0.5f)});
    h.narrowTo({1, 0, 1, 0});
    KelValuePtr result = node->eval(h.context);
    EXPECT_TRUE(result.isNull());
    std::vector<Color> want = sampleColors();
    want[0].a = 0.5f;
    want[2].a = 0.5f;
    EXPECT_EQ(CallHarness::colorRow(h.held(p)), want);
}

TEST(KelFunctionsColor, EachSetterWritesItsOwnChannel) {
    auto run = [](auto tag, int channel) {
        using F = decltype(tag);
        CallHarness h(0, 4);
        auto p = h.colors(sampleColors());
        h.call<F>("set", {p, h.floats({9, 9, 9, 9})})->eval(h.context);
        std::vector<Color> want = sampleColors();
        for (Color& c : want) c[channel] = 9.0f;
        EXPECT_EQ(CallHarness::colorRow(h.held(p)), want) << channel;
    };
    run(FunctionSetR(), 0);
    run(FunctionSetG(), 1);
    run(FunctionSetB(), 2);
    run(FunctionSetA(), 3);
}

TEST(KelFunctionsColor, SetterLeavesTheUniformFlagAsItWas) {
    CallHarness h(0, 3);
    auto p = h.constantColor(Color(1, 1, 1, 1));
    ASSERT_TRUE(h.held(p)->isUniform());
    h.call<FunctionSetG>("setG", {p, h.floats({0, 1, 2})})->eval(h.context);
    EXPECT_TRUE(h.held(p)->isUniform());
    EXPECT_EQ(CallHarness::colorRow(h.held(p))[2], Color(1, 2, 1, 1));
}

// `color(1, 2, 3, 4)` with constant arguments gives a varying colour, at all columns.
TEST(KelFunctionsColor, NewColorWritesAllColumnsInArgumentOrder) {
    CallHarness h(5, 8);
    auto node = h.call<FunctionNewColor>(
        "color", {h.floats({1, 10, 100}), h.constant(2.0f), h.floats({3, 30, 300}), h.constant(4.0f)});
    h.narrowTo({0, 1, 0});
    h.prefillColor(Color(kSentinel));
    KelValuePtr result = node->eval(h.context);
    EXPECT_FALSE(result->isUniform());
    EXPECT_EQ(result->getType(), KelValueTypes::Color);
    EXPECT_EQ(CallHarness::colorRow(result),
              (std::vector<Color>{Color(1, 2, 3, 4), Color(10, 2, 30, 4), Color(100, 2, 300, 4)}));
}

// The four-column transpose of `color` gives the per-column loop's bits at every row length and
// start (the remainder per column), NaN payloads and -0.0 included.
TEST(KelFunctionsColor, NewColorFastPathAgreesWithThePerColumnRule) {
    for (int lo : {-3, 0, 5})
        for (int n = 0; n <= 13; ++n) {
            CallHarness h(lo, lo + n);
            std::vector<std::vector<float>> channels(4, std::vector<float>(std::size_t(n)));
            for (int c = 0; c < 4; ++c)
                for (int i = 0; i < n; ++i)
                    channels[std::size_t(c)][std::size_t(i)] =
                        (i + c) % 5 == 0 ? std::bit_cast<float>(0x7fc00000u + unsigned(i)) : (i % 3 == 1 ? -0.0f : float(i * 10 + c));
            auto node = h.call<FunctionNewColor>("color", {h.floats(channels[0]), h.floats(channels[1]), h.floats(channels[2]),
                                                           h.floats(channels[3])});
            const std::vector<Color> row = CallHarness::colorRow(node->eval(h.context));
            ASSERT_EQ(row.size(), std::size_t(n));
            for (int i = 0; i < n; ++i)
                for (int c = 0; c < 4; ++c)
                    ASSERT_EQ(std::bit_cast<std::uint32_t>(row[std::size_t(i)][c]),
                              std::bit_cast<std::uint32_t>(channels[std::size_t(c)][std::size_t(i)]))
                        << "lo " << lo << " n " << n << " column " << i << " channel " << c;
        }
}

// Part 5.2: `color(1, 2, 3, 4)` with four constant (uniform) arguments still gives a varying
// colour: `_uniform` is false, even when the pool reissues an object that was uniform before.
TEST(KelFunctionsColor, NewColorOfFourConstantsIsNotUniform) {
    CallHarness h(2, 6);
    auto node = h.call<FunctionNewColor>("color", {h.constant(1.0f), h.constant(2.0f), h.constant(3.0f), h.constant(4.0f)});
    const KelValue* previousObject = nullptr;
    {
        // The pool's next colour object was a uniform constant colour.
        KelColorPtr previous = h.context.newConstantColor(Color(kSentinel), 0);
        ASSERT_TRUE(previous->isUniform());
        previousObject = previous.get();
    }
    KelValuePtr result = node->eval(h.context);
    EXPECT_EQ(result.get(), previousObject) << "the premise: the pool reissued the uniform object";
    EXPECT_FALSE(result->isUniform());
    EXPECT_EQ(result->getType(), KelValueTypes::Color);
    EXPECT_EQ(CallHarness::colorRow(result), std::vector<Color>(4, Color(1, 2, 3, 4)));
}

// dot counts alpha: (1, 0, 0, 1) with itself is 2.0.
TEST(KelFunctionsColor, DotIsFourDimensional) {
    CallHarness h(0, 2);
    auto p = h.colors({Color(1, 0, 0, 1), Color(1, 2, 3, 4)});
    auto q = h.colors({Color(1, 0, 0, 1), Color(5, 6, 7, 8)});
    auto node = h.call<FunctionDot>("dot", {p, q});
    EXPECT_EQ(CallHarness::row(node->eval(h.context)), (std::vector<float>{2.0f, 5.0f + 12.0f + 21.0f + 32.0f}));
}

// Inactive columns of dot hold 0.0 (the result starts from newConstantFloat(0.0, 0)), whatever
// the pool's object held before.
TEST(KelFunctionsColor, DotInactiveColumnsAreZero) {
    CallHarness h(0, 4);
    auto p = h.colors(sampleColors());
    auto node = h.call<FunctionDot>("dot", {p, p});
    h.narrowTo({0, 1, 1, 0});
    h.prefillFloat(kSentinel);
    std::vector<float> got = CallHarness::row(node->eval(h.context));
    EXPECT_EQ(got, (std::vector<float>{0.0f, 1 + 4 + 9 + 16, 1 + 4 + 9 + 16, 0.0f}));
}

// The whole-row path and the masked loop agree at the active columns.
TEST(KelFunctionsColor, DotAllActivePathAgreesWithTheMaskedLoop) {
    std::vector<Color> ps, qs;
    for (int i = 0; i < 9; ++i) {
        ps.emplace_back(0.1f * i, -0.3f * i, 1.7f, 0.01f * i * i);
        qs.emplace_back(3.1f, 0.7f * i, -0.2f * i, 1.3f);
    }
    auto run = [&](bool masked) {
        CallHarness h(0, 9);
        auto node = h.call<FunctionDot>("dot", {h.colors(ps), h.colors(qs)});
        if (masked) h.narrowTo({1, 1, 1, 1, 1, 1, 1, 1, 0});
        return CallHarness::row(node->eval(h.context));
    };
    std::vector<float> all = run(false), masked = run(true);
    for (int i = 0; i < 8; ++i) EXPECT_TRUE(sameBits(all[i], masked[i])) << i;
}
