// Parts 2.1 Values and 2.2 Execution context.
#include <gtest/gtest.h>

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
