// Part 6.1: package initialisation and tool registration.
#include "kelZttoolInit.h"

#include "kelFunctions.h"
#include "kelGraph.h"

namespace Zt {

void kelBuildStaticTables() {
    KelFunctionTable::build();
    KelOperatorTables::build();
    KelNoise::buildTables();
}

}  // namespace Zt
