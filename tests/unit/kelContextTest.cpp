// Parts 2.1 Values and 2.2 Execution context.
#include <gtest/gtest.h>

#include <memory>

#include "kelContext.h"

using namespace Zt;

TEST(KelContext, BuiltInVariablesHaveIds0To2) {
    KelContext c(GeInterval<int>(0, 8), 0);
    EXPECT_EQ(c.getVariableId("x"), 0);
    EXPECT_EQ(c.getVariableId("y"), 1);
    EXPECT_EQ(c.getVariableId("t"), 2);
    EXPECT_EQ(c.declareVariable("a"), 3);
}

// Control flow's saved masks are reused from row to row (no allocation in the steady state),
// and a saved copy holds the mask as it was when saved.
TEST(KelContext, SavedMasksAreReusedInNestingOrder) {
    KelContext c(GeInterval<int>(0, 5), 0);
    const KelMask* outerFirst;
    const KelMask* innerFirst;
    {
        KelSavedMask outer(c);
        auto cond = c.newConstantFloat(0.0f, 0);
        cond->getScanline()[2] = 1.0f;
        c.getMask().narrow(cond, 0);
        KelSavedMask inner(c);
        outerFirst = &outer.mask();
        innerFirst = &inner.mask();
        EXPECT_TRUE(outer.mask().allActive());
        EXPECT_FALSE(inner.mask().allActive());
        EXPECT_EQ(inner.mask().isActive(2), 1.0f);
        EXPECT_EQ(inner.mask().isActive(1), 0.0f);
        c.setMask(outer.mask());
    }
    KelSavedMask again(c);
    KelSavedMask againInner(c);
    EXPECT_EQ(&again.mask(), outerFirst);
    EXPECT_EQ(&againInner.mask(), innerFirst);
    EXPECT_TRUE(againInner.mask().allActive());
    EXPECT_EQ(againInner.mask().isActive(1), 1.0f);
}

// ---- Part 2.2: edge cases ----------------------------------------------------------------------

TEST(KelContext, BuiltInsHaveIds0To2InTheCheckSettingToo) {
    KelContext check(GeInterval<int>(0, 1), 0);
    EXPECT_EQ(check.getVariableId("x"), 0);
    EXPECT_EQ(check.getVariableId("y"), 1);
    EXPECT_EQ(check.getVariableId("t"), 2);
    EXPECT_EQ(check.declareVariable("first"), 3);
    EXPECT_EQ(check.variableCount(), 4);
    // The built-ins are the first three values of the pool, const, not filled, not uniform.
    EXPECT_EQ(check.poolSize(), 3u);
    for (int id = 0; id < 3; ++id) {
        EXPECT_EQ(check.getVariable(id)->id(), id);
        EXPECT_TRUE(check.getVariable(id)->isConst());
        EXPECT_FALSE(check.getVariable(id)->isUniform());
    }
}

TEST(KelContext, TileContextDeclaresTheSameIdsAndKeepsTheRemainingSlots) {
    KelContext tile(GeInterval<int>(0, 8), 6);
    EXPECT_EQ(tile.variableCount(), 6);
    EXPECT_EQ(tile.getVariableId("t"), 2);
    EXPECT_EQ(tile.declareVariable("p"), 3);
    EXPECT_EQ(tile.variableCount(), 6);
    EXPECT_TRUE(tile.getVariable(5).isNull());
}

TEST(KelContext, GetVariableOfADeclaredVariableWithoutValueIsNull) {
    KelContext c(GeInterval<int>(0, 2), 0);
    int id = c.declareVariable("a");
    EXPECT_TRUE(c.getVariable(id).isNull());
}

TEST(KelContext, PopScopeOnAnEmptyScopeStackDoesNothing) {
    KelContext c(GeInterval<int>(0, 2), 0);
    c.popScope();
    c.popScope();
    EXPECT_EQ(c.getVariableId("x"), -1);
    c.pushScope();
    EXPECT_EQ(c.declareVariable("again"), 3);
    EXPECT_EQ(c.getVariableId("again"), 3);
}

TEST(KelContext, WithFewerSlotsThanDeclarationsDeclareVariableAppendsSlots) {
    KelContext c(GeInterval<int>(0, 2), 4);
    EXPECT_EQ(c.declareVariable("a"), 3);
    EXPECT_EQ(c.declareVariable("b"), 4);
    EXPECT_EQ(c.declareVariable("c"), 5);
    EXPECT_EQ(c.variableCount(), 6);
    c.setVariable(5, c.newFloat(1));
    EXPECT_FALSE(c.getVariable(5).isNull());
}

TEST(KelContext, AFloatRequestNeverTakesAColoursOrAnImagesId) {
    KelContext c(GeInterval<int>(0, 2), 0);
    int colorId, imageId;
    {
        auto col = c.newColor(0);
        auto img = c.newVaryingImage(0);
        colorId = col->id();
        imageId = img->id();
    }
    auto f = c.newFloat(0);
    EXPECT_NE(f->id(), colorId);
    EXPECT_NE(f->id(), imageId);
    EXPECT_TRUE(f->isType(KelValueTypes::Float));
    EXPECT_EQ(c.newColor(0)->id(), colorId);
    EXPECT_EQ(c.newImage(1, 0)->id(), imageId);
}

TEST(KelContext, AfterReleasingIds5And3TheNextRequestsGet3Then5) {
    KelContext c(GeInterval<int>(0, 2), 0);
    auto a = c.newFloat(0);  // 3
    auto b = c.newFloat(0);  // 4
    auto d = c.newFloat(0);  // 5
    ASSERT_EQ(a->id(), 3);
    ASSERT_EQ(d->id(), 5);
    d = nullptr;
    a = nullptr;
    auto next = c.newFloat(0);
    auto after = c.newFloat(0);
    EXPECT_EQ(next->id(), 3);
    EXPECT_EQ(after->id(), 5);
    EXPECT_EQ(b->id(), 4);
}

TEST(KelContext, GetVariableIdFindsOpenScopesAndNotPoppedOnes) {
    KelContext c(GeInterval<int>(0, 2), 0);
    c.pushScope();
    int outer = c.declareVariable("outer");
    c.pushScope();
    int inner = c.declareVariable("inner");
    EXPECT_EQ(c.getVariableId("outer"), outer);
    EXPECT_EQ(c.getVariableId("inner"), inner);
    c.popScope();
    EXPECT_EQ(c.getVariableId("inner"), -1);
    EXPECT_EQ(c.getVariableId("outer"), outer);
    // A later scope's declaration of the same name takes a fresh id.
    c.pushScope();
    EXPECT_EQ(c.declareVariable("inner"), inner + 1);
}

TEST(KelContext, OutOfRangeIdsFireTheAssertionsAtLines514And598) {
    KelContext c(GeInterval<int>(0, 2), 0);
    try {
        c.getVariable(3);
        ADD_FAILURE();
    } catch (const ExAssertionFailed& e) {
        EXPECT_EQ(e.getReason(), "id < _variables.size()");
        EXPECT_EQ(e.getSourceLine(), 514);
        EXPECT_EQ(e.getFile(), "tools\\kel\\src\\kelContext");
    }
    try {
        c.setVariable(-1, nullptr);
        ADD_FAILURE();
    } catch (const ExAssertionFailed& e) {
        EXPECT_EQ(e.getReason(), "id < _variables.size()");
        EXPECT_EQ(e.getSourceLine(), 598);
    }
}

TEST(KelContext, SettingASlotToItsOwnValueChangesNothing) {
    KelContext c(GeInterval<int>(0, 2), 0);
    int id = c.declareVariable("a");
    c.setVariable(id, c.newFloat(1));
    KelValue* v = c.getVariable(id).get();
    const int count = v->refCount();
    c.setVariable(id, c.getVariable(id));
    EXPECT_EQ(c.getVariable(id).get(), v);
    EXPECT_EQ(v->refCount(), count);
}

TEST(KelContext, FillingFactoriesWriteTheWholeIntervalWhateverTheMask) {
    KelContext c(GeInterval<int>(0, 5), 0);
    auto cond = c.newConstantFloat(0.0f, 0);
    c.getMask().narrow(cond, 0);
    ASSERT_TRUE(c.getMask().noneActive());
    auto f = c.newConstantFloat(2.5f, 0);
    auto col = c.newConstantColor(Color(1, 2, 3, 4), 0);
    auto img = c.newImage(7.0f, 0);
    for (int x = 0; x < 5; ++x) {
        EXPECT_EQ(f->getScanline()[x], 2.5f);
        EXPECT_EQ(col->getScanline()[x], Color(1, 2, 3, 4));
        EXPECT_EQ(img->getScanline()[x], 7.0f);
    }
    EXPECT_EQ(f->writable(), 0);
    EXPECT_EQ(c.newConstantFloat(1.0f, 1)->writable(), 1);
}

TEST(KelContext, AddImageSharesTheEntrysPointers) {
    KelContext c(GeInterval<int>(0, 3), 0);
    KelImageEntry entry;
    entry.scanline = new IxScanline<Color>(GeInterval<int>(0, 3), IxPaddingPolicy<Color>{0, Color::ZERO});
    entry.pixelAspectRatio = 2.0f;
    c.addImage(entry);
    EXPECT_EQ(c.imageCount(), 1u);
    EXPECT_EQ(c.getImage(0).scanline.get(), entry.scanline.get());
    EXPECT_EQ(c.getImage(0).pixelAspectRatio, 2.0f);
}

TEST(KelContext, SetMaskCopiesFlagsAndPixelsBack) {
    KelContext c(GeInterval<int>(0, 6), 0);
    const KelMask saved(c.getMask());
    auto cond = c.newConstantFloat(0.0f, 0);
    cond->getScanline()[4] = 1.0f;
    c.getMask().narrow(cond, 0);
    EXPECT_FALSE(c.getMask().allActive());
    c.setMask(saved);
    EXPECT_TRUE(c.getMask().allActive());
    EXPECT_FALSE(c.getMask().noneActive());
    for (int x = 0; x < 6; ++x) EXPECT_EQ(c.getMask().isActive(x), 1.0f);
    EXPECT_EQ(c.getInterval(), GeInterval<int>(0, 6));
}

TEST(KelContext, UsedNamesAreASet) {
    KelContext c(GeInterval<int>(0, 1), 0);
    c.addUsedName("x");
    c.addUsedName("sample1");
    c.addUsedName("x");
    EXPECT_EQ(c.usedNames().size(), 2u);
    EXPECT_EQ(c.usedNames().count("sample1"), 1u);
}

TEST(KelContext, RaiseErrorThrowsKelParseExWithTheLineAtLine847) {
    KelContext c(GeInterval<int>(0, 1), 0);
    try {
        c.raiseError("Variable already defined: a", 12);
        ADD_FAILURE();
    } catch (const KelParseEx& e) {
        EXPECT_EQ(e.getReason(), "Variable already defined: a at line 12");
        EXPECT_EQ(e.getLine(), 12);
        EXPECT_EQ(e.getSourceLine(), 847);
        EXPECT_EQ(e.getFile(), "tools\\kel\\src\\kelContext");
        std::unique_ptr<ExBase> copy(e.clone());
        EXPECT_EQ(dynamic_cast<KelParseEx&>(*copy).getLine(), 12);
        EXPECT_THROW(copy->raise(), KelParseEx);
    }
}
