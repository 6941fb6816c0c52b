// Colour parameters (-c) have no value while a script runs: the engine gives them none. A script
// that only declares one works; one that uses it would fail in the middle of a render with an
// internal null value. This finds, before any render, the colour parameters that a script's code
// names, so that `check` warns and `render` refuses in plain words.
#pragma once

#include <string>
#include <vector>

#include "kelCommands.h"
#include "kelScript.h"

namespace Zt::KelApp {

// The -c parameters whose name stands in the script's code (outside comments) other than in a
// declaration `color NAME`, in command-line order.
std::vector<std::string> colorParametersUsed(const Script& script, const Invocation& in);

// The plain-words message for one of them.
std::string colorParameterMessage(const std::string& name);

}  // namespace Zt::KelApp
