// Part 2.1: values. Type numbers, scanline buffers and their padding policies, the reference
// count with its two thresholds, reissue from the pool, `_writable` and `_uniform`.
#include <gtest/gtest.h>

#include <cstdint>

#include "kelContext.h"
#include "kelTreeBuilder.h"

using namespace Zt;
using namespace Zt::test;

namespace {
const Color kOpaqueBlack(0, 0, 0, 1);
}

TEST(KelValues, TypeNumbersAreFloat1Image3Colour4) {
    KelContext c(GeInterval<int>(0, 4), 0);
    EXPECT_EQ(c.newFloat(0)->getType(), 1);
    EXPECT_EQ(c.newVaryingImage(0)->getType(), 3);
    EXPECT_EQ(c.newColor(0)->getType(), 4);
    EXPECT_TRUE(c.newImage(2, 0)->isType(KelValueTypes::Image));
    EXPECT_FALSE(c.newImage(2, 0)->isType(KelValueTypes::Float));
    EXPECT_EQ(KelValueTypes::Void, 5);
}

TEST(KelValues, ScanlinesCoverTheContextsIntervalWithModeFourPadding) {
    KelContext c(GeInterval<int>(-3, 9), 0);
    auto f = c.newFloat(0);
    auto col = c.newColor(0);
    auto img = c.newVaryingImage(0);
    EXPECT_EQ(f->getScanline().getInterval(), GeInterval<int>(-3, 9));
    EXPECT_EQ(f->getScanline().getPolicy().mode, 4);
    EXPECT_EQ(f->getScanline().getPolicy().padValue, 0.0f);
    EXPECT_EQ(img->getScanline().getPolicy().padValue, 0.0f);
    EXPECT_EQ(col->getScanline().getPolicy().mode, 4);
    EXPECT_EQ(col->getScanline().getPolicy().padValue, kOpaqueBlack);
}

TEST(KelValues, FloatStorageAtTheIntervalsMinimumIsAligned16) {
    for (int lo : {-7, -1, 0, 1, 3, 5}) {
        IxScanline<float> s(GeInterval<int>(lo, lo + 9), IxPaddingPolicy<float>{4, 0.0f});
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(&s.data()[lo]) % 16, 0u) << lo;
        EXPECT_EQ(&s.data()[lo], s.begin());
    }
}

TEST(KelValues, SetOnAReissuedValueOverwritesEveryColumn) {
    KelContext c(GeInterval<int>(2, 9), 0);
    KelValue* first;
    {
        auto v = c.newConstantColor(Color(5, 6, 7, 8), 0);
        first = v.get();
    }
    auto again = c.newColor(0);
    ASSERT_EQ(again.get(), first);
    IxScanlineUtil::set(again->getScanline(), Color(1, 2, 3, 4), nullptr);
    for (int x = 2; x < 9; ++x) EXPECT_EQ(again->getScanline()[x], Color(1, 2, 3, 4));
}

TEST(KelValues, AReleasedAndReissuedValueStillHoldsTheOldPixelsWithUniformFalse) {
    KelContext c(GeInterval<int>(0, 5), 0);
    KelValue* first;
    {
        auto v = c.newConstantFloat(3.5f, 1);
        EXPECT_TRUE(v->isUniform());
        first = v.get();
    }
    EXPECT_TRUE(first->isUniform());  // a free value keeps its flags until reissued
    auto again = c.newFloat(0);
    ASSERT_EQ(again.get(), first);
    EXPECT_FALSE(again->isUniform());
    EXPECT_TRUE(again->isConst());
    for (int x = 0; x < 5; ++x) EXPECT_EQ(again->getScanline()[x], 3.5f);
}

TEST(KelValues, AValueWithWritable0StoredInASlotStaysConst) {
    KelContext c(GeInterval<int>(0, 2), 0);
    for (const char* name : {"x", "y", "t"}) {
        KelValuePtr v = c.getVariable(c.getVariableId(name));
        EXPECT_TRUE(v->isConst()) << name;
        EXPECT_EQ(v->writable(), 0) << name;
    }
    int id = c.declareVariable("k");
    c.setVariable(id, c.newConstantFloat(1.0f, 0));
    EXPECT_TRUE(c.getVariable(id)->isConst());
    int w = c.declareVariable("w");
    c.setVariable(w, c.newFloat(1));
    EXPECT_FALSE(c.getVariable(w)->isConst());
}

TEST(KelValues, DroppingTheLastReferenceOtherThanThePoolsRecyclesOnceAndKeepsTheObject) {
    KelContext c(GeInterval<int>(0, 3), 0);
    KelIdSet& freeColors = c.freeIds(KelValueTypes::Color);
    auto v = c.newColor(0);
    const int id = v->id();
    KelValue* raw = v.get();
    EXPECT_EQ(raw->refCount(), 2);
    EXPECT_FALSE(freeColors.contains(id));
    const std::size_t before = freeColors.size();
    v = nullptr;
    EXPECT_EQ(raw->refCount(), 1);
    EXPECT_TRUE(freeColors.contains(id));
    EXPECT_EQ(freeColors.size(), before + 1);
    EXPECT_EQ(c.poolSize(), 4u);  // x, y, t and this one: nothing deleted
}

TEST(KelValues, ReinsertingAFreeIdChangesNothing) {
    KelContext c(GeInterval<int>(0, 3), 0);
    auto v = c.newFloat(0);
    const int id = v->id();
    v = nullptr;
    KelIdSet& freeFloats = c.freeIds(KelValueTypes::Float);
    const std::size_t size = freeFloats.size();
    freeFloats.insert(id);
    EXPECT_EQ(freeFloats.size(), size);
}

TEST(KelValues, CountReachingZeroOutsideTerminationIsTheAssertionAtLine157) {
    KelContext c(GeInterval<int>(0, 1), 0);
    auto* v = new KelType<float>(&c, 99, 0);
    v->addRef();
    try {
        v->removeRef();
        ADD_FAILURE() << "no assertion";
    } catch (const ExAssertionFailed& e) {
        EXPECT_EQ(e.getReason(), "_context->isTerminating()");
        EXPECT_EQ(e.getFile(), "tools\\kel\\src\\kelContext");
        EXPECT_EQ(e.getSourceLine(), 157);
    }
    delete v;
}

TEST(KelValues, AnImageMadeWithAFillValueIsUniformAndAfterAnAssignmentNot) {
    // main(image src) { image j = src; } : the same id in every column, yet no longer uniform.
    KelScriptRun run(mainOf(block({declare("image", "j"), assign("j", "=", var("src"))}), {input("image", "src")}));
    run.check();
    run.beginTile(0, 4);
    run.bindImage("src", [](int, int) { return Color(); });
    KelValuePtr src = run.context().getVariable(run.idOf("src"));
    EXPECT_TRUE(src->isUniform());
    run.runRow(0);
    // Locals are known by the id that the check gave them: after x, y, t and src.
    KelValuePtr j = run.context().getVariable(4);
    ASSERT_TRUE(j->isType(KelValueTypes::Image));
    EXPECT_FALSE(j->isUniform());
    for (float id : rowOf(rcStaticCast<KelImage>(j)->getScanline())) EXPECT_EQ(id, 2.0f);
}

TEST(KelValues, FactoryFillsAreUniformAndThePlainFormsAreNot) {
    KelContext c(GeInterval<int>(0, 6), 0);
    EXPECT_TRUE(c.newConstantFloat(1, 0)->isUniform());
    EXPECT_TRUE(c.newConstantColor(kOpaqueBlack, 0)->isUniform());
    EXPECT_TRUE(c.newImage(1, 0)->isUniform());
    EXPECT_FALSE(c.newFloat(0)->isUniform());
    EXPECT_FALSE(c.newColor(0)->isUniform());
    EXPECT_FALSE(c.newVaryingImage(0)->isUniform());
}

TEST(KelValues, DestroyingTheContextWithValuesStillInSlotsPassesTheAssertion) {
    auto c = std::make_unique<KelContext>(GeInterval<int>(0, 4), 5);
    int a = c->declareVariable("a");
    c->setVariable(a, c->newConstantFloat(2.0f, 1));
    int b = c->declareVariable("b");
    c->setVariable(b, c->newColor(1));
    auto temporary = c->newImage(3, 0);
    temporary = nullptr;  // free, held by the pool alone
    EXPECT_NO_THROW(c.reset());
}
