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
