// `kel render`: reads the inputs, compiles the script against the parameter list, renders every
// frame on the worker threads and writes the outputs all or nothing.
#pragma once

#include "PebController.h"
#include "kelCommands.h"
#include "kelScript.h"

namespace Zt::KelApp {

// Returns the exit status; throws UsageError or FileError before any output is written.
int runRender(PebController& controller, const Invocation& in, const Script& script);

// Adds the parameter list (command-line order, the output last) and compiles the script;
// returns whether it compiled.
bool compile(PebController& controller, const Invocation& in, const Script& script);

}  // namespace Zt::KelApp
