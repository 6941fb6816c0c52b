#include "liveParameters.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace Zt::KelApp {

namespace {

// Without a declared range, a slider from 0 (or from -R for a negative value) to R = the
// larger of 1 and twice the value's size: the value sits inside, with room to go up.
std::pair<double, double> defaultRange(double value) {
    const double reach = std::max(1.0, 2.0 * std::fabs(value));
    return {value < 0 ? -reach : 0.0, reach};
}

// A value written so that parseFloatValue reads back the same double.
std::string exactText(double value) {
    char text[40];
    std::snprintf(text, sizeof text, "%.17g", value);
    return text;
}

}  // namespace

LiveParameters liveParameters(const Invocation& in, const std::string& script) {
    LiveParameters result;
    result.declarations = readDeclarations(script);
    result.list = in.parameters;
    for (const DeclaredParameter& p : result.declarations.parameters) {
        const bool given = p.name == in.outputName || std::any_of(in.parameters.begin(), in.parameters.end(),
                                                                  [&](const ParameterOption& o) { return o.name == p.name; });
        if (p.kind == DeclaredParameter::Kind::Float && !given)
            result.list.push_back({PebInterpreterTypes::Float, p.name, std::nullopt});
    }
    for (const ParameterOption& o : result.list) {
        if (o.type != PebInterpreterTypes::Float) continue;
        const DeclaredParameter* declared = result.declarations.find(o.name);
        LiveFloat f;
        f.name = o.name;
        f.label = declared && !declared->label.empty() ? declared->label : o.name;
        if (o.value) f.value = parseFloatValue("-f", *o.value);
        else if (declared && declared->defaultValue) f.value = *declared->defaultValue;
        std::tie(f.minimum, f.maximum) = declared && declared->range ? *declared->range : defaultRange(f.value);
        result.floats.push_back(f);
    }
    return result;
}

std::vector<double> LiveParameters::values(const std::map<std::string, double>& chosen) const {
    std::vector<double> result;
    for (const LiveFloat& f : floats) {
        const auto it = chosen.find(f.name);
        result.push_back(it != chosen.end() ? it->second : f.value);
    }
    return result;
}

std::vector<ParameterOption> LiveParameters::withValues(const std::map<std::string, double>& chosen) const {
    std::vector<ParameterOption> result = list;
    const std::vector<double> chosenValues = values(chosen);
    std::size_t next = 0;
    for (ParameterOption& o : result)
        if (o.type == PebInterpreterTypes::Float) o.value = exactText(chosenValues[next++]);
    return result;
}

}  // namespace Zt::KelApp
