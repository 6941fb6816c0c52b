// The script a command works on, where it came from, and how its messages reach a person:
// compiler-style lines on standard error that name the script and the line, with the line's text.
#pragma once

#include <string>

#include "Peb.h"
#include "ZtCore.h"
#include "kelCommands.h"

namespace Zt::KelApp {

struct Script {
    std::string name;  // the path, or <script> for -e
    std::string text;
};

// The script of SCRIPT or -e, as bytes; UsageError without one or with both, FileError when the
// file can't be read.
Script readScript(const Invocation& in);

// Each error as SCRIPT:LINE: MESSAGE (SCRIPT: MESSAGE for line 0), then the script's line.
void printErrors(const Script& script, const Vector<PebError>& errors);

// An exception's reason on one line, for a one-line message.
std::string readableReason(const ExBase& e);

}  // namespace Zt::KelApp
