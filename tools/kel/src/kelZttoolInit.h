// Part 6.1: package initialisation and tool registration.
#pragma once

namespace Zt {

// Part 6.1 steps 3 to 5, in that order: the built-in function table, the operator tables, the
// noise tables. `initialize` of the package calls it; tests that link the library call it too.
void kelBuildStaticTables();

}  // namespace Zt
