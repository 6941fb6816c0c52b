// The host's own packages, which a tool package lists as its dependencies:
// their tag types, and records of the generic InInit that order them. They have nothing to do at
// initialisation in this host; they exist so that the dependency order is the real one.
#pragma once

#include "InPackage.h"

namespace Zt::ZtInit {

struct peb {};                 // the expression tool base: PebController, PebInterpreter
struct internalInterface {};   // the internal interface
struct primitives {};          // geometry, colours, scanlines, tiles
struct resourceManagement {};  // counted pointers, memory
struct pluginInterface {};     // the Pi protocols and the tool registry
struct baseLibrary {};         // exceptions, assertions, strings, threads

}  // namespace Zt::ZtInit
