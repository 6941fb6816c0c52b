// What the command adds to the engine's messages for a person: the token a message is about
// when the engine does not give its position (found on the message's line from the name the
// message quotes, or from a form the language lacks), and notes where a hint helps: the nearest
// built-in for an unknown function, the forms of a function called wrongly, what a built-in
// variable is, how to give a parameter, and the forms KEL does not have (`?:`, `%`, exponents).
// The message itself keeps the engine's words; only a trailing "at line N", which the prefix
// already says, is left out.
#pragma once

#include <string>
#include <vector>

#include "Peb.h"
#include "PebController.h"
#include "kelDiagnostics.h"

namespace Zt::KelApp {

struct HintSources {
    std::vector<PebFunctionForm> functions;  // the engine's built-ins
    std::vector<std::string> parameters;     // the node's parameter names, the output's included
};

// The diagnostic for `error`: a warning when the script compiled, else an error.
Diagnostic explain(const PebError& error, bool compiled, const SourceLines& source, const HintSources& hints);

}  // namespace Zt::KelApp
