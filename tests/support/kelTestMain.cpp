// The main of every unit test: the static tables are built once, before any test, as the
// package initialisation does, and this thread is the application thread.
#include <gtest/gtest.h>

#include "ZtCore.h"
#include "kelZttoolInit.h"

int main(int argc, char** argv) {
    Zt::PiAppThread::setCurrent();
    Zt::kelBuildStaticTables();
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
