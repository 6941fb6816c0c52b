// The script a command works on, where it came from, and how its messages reach a person:
// compiler-style lines on standard error that name the script, the line and the column, quote
// the line with a caret under the token, and add a hint where one helps (kelHints.h).
#pragma once

#include <string>
#include <vector>

#include "Peb.h"
#include "PebController.h"
#include "ZtCore.h"
#include "kelCommands.h"
#include "kelDeclarations.h"

namespace Zt::KelApp {

struct Script {
    std::string name;  // the path, <script> for -e, <stdin> for -
    std::string text;
};

// The script of SCRIPT (standard input for -) or -e, as bytes; UsageError without one or with
// both, FileError when it can't be read.
Script readScript(const Invocation& in);

// The controller's errors in order, as errors when the script was refused and as warnings when
// it compiled; the warnings are left out when `warnings` is false.
void printErrors(const Script& script, const PebController& controller, bool warnings = true);

// Malformed declarations, as errors at their line and column.
void printDeclarationProblems(const Script& script, const std::vector<DeclarationProblem>& problems);

// An exception's reason on one line, for a one-line message.
std::string readableReason(const ExBase& e);

}  // namespace Zt::KelApp
