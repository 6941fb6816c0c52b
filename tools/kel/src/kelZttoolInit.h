// Package initialisation and tool registration. The package record itself is a static
// object of kelZttoolInit.cpp, built while the library loads.
#pragma once

#include "InPackage.h"

namespace Zt {

namespace ZtInit {
struct kelZttool {};  // the package's tag type
}

// Fills the built-in function table, then the noise tables. `initialize` of the package calls it; tests that link the library call it too.
void kelBuildStaticTables();

// The flag that the record's setInitialized stores.
bool kelZttoolIsInitialized();

}  // namespace Zt
