// Part 6.1: package initialisation and tool registration. The package record itself is a static
// object of kelZttoolInit.cpp, built while the library loads.
#pragma once

#include "InPackage.h"

namespace Zt {

namespace ZtInit {
struct kelZttool {};  // the package's tag type
}

// Part 6.1 steps 3 to 5, in that order: the built-in function table, the operator tables, the
// noise tables. `initialize` of the package calls it; tests that link the library call it too.
void kelBuildStaticTables();

// The flag that the record's setInitialized stores.
bool kelZttoolIsInitialized();

}  // namespace Zt
