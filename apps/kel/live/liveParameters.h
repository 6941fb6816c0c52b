// The parameter list of the live page: the command line's -i, -f and -c in their order, then the
// float parameters that the script declares in `// @param` lines and the command line does not
// give (nor names the output). It follows the script as it is typed, so a new declaration is a new slider at once. Each
// float carries the range its slider shows: the declared one, else one around its value.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "kelCommands.h"
#include "kelDeclarations.h"

namespace Zt::KelApp {

struct LiveFloat {
    std::string name;
    std::string label;  // the declared label, else the name
    double value = 0.0;  // the command line's, else the declared default, else 0
    double minimum = 0.0;
    double maximum = 1.0;
};

struct LiveParameters {
    std::vector<ParameterOption> list;  // the node's parameter list, the output excluded
    std::vector<LiveFloat> floats;      // in the list's order
    ScriptDeclarations declarations;

    // The float values in the list's order: `chosen` by name where it holds one, else the default.
    std::vector<double> values(const std::map<std::string, double>& chosen) const;
    // The list with each float's VALUE set from values(chosen), as `kel render` takes it.
    std::vector<ParameterOption> withValues(const std::map<std::string, double>& chosen) const;
};

// The parameters of `script` for the command line `in` (its -i, -f, -c and --out).
LiveParameters liveParameters(const Invocation& in, const std::string& script);

}  // namespace Zt::KelApp
