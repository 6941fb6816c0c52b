#include "kelParameterList.h"

#include <algorithm>
#include <cstdio>

namespace Zt::KelApp {

namespace {

using Kind = DeclaredParameter::Kind;

// How each flag is written, and the kind of declaration it answers.
struct Flag {
    PebInterpreterTypes::Type type;
    const char* option;
    const char* value;
    std::optional<Kind> kind;
};
constexpr Flag kFlags[] = {
    {PebInterpreterTypes::Image, "-i", "FILE",    Kind::Image},
    {PebInterpreterTypes::Float, "-f", "VALUE",   Kind::Float},
    {PebInterpreterTypes::Color, "-c", "R,G,B,A", std::nullopt},
};

const Flag& flagOf(PebInterpreterTypes::Type type) {
    for (const Flag& f : kFlags)
        if (f.type == type) return f;
    return kFlags[1];
}

const Flag& flagOf(Kind kind) {
    for (const Flag& f : kFlags)
        if (f.kind == kind) return f;
    return kFlags[1];
}

std::string text(double value, const char* format = "%.17g") {
    char buffer[40];
    std::snprintf(buffer, sizeof buffer, format, value);
    return buffer;
}

std::string line(const DeclaredParameter& d) { return "line " + std::to_string(d.line); }

// The value a float takes in render: its flag's, else the declared default, else 0 with a warning.
void settleFloat(ParameterOption& p, const DeclaredParameter* declared, bool flagged, std::vector<std::string>& warnings) {
    if (!p.value && declared && declared->defaultValue) p.value = text(*declared->defaultValue);
    if (!p.value) {
        p.value = "0";
        warnings.push_back((flagged ? "-f " + p.name + " has no value" : p.name + " has no value") +
                           (declared ? " and its declaration (" + line(*declared) + ") no default" : "") +
                           ": 0 is used; write -f " + p.name + "=VALUE");
    }
    if (declared && declared->range) {
        const double value = parseFloatValue("-f", *p.value);
        const auto [low, high] = *declared->range;
        if (value < low || value > high)
            warnings.push_back(p.name + " = " + *p.value + " is outside the range [" + text(low, "%g") + ", " +
                               text(high, "%g") + "] declared at " + line(*declared));
    }
}

}  // namespace

ParameterList buildParameterList(const ScriptDeclarations& declarations, const Invocation& in) {
    const bool render = in.command == "render";
    ParameterList list;
    list.outputName = in.outputNameGiven ? in.outputName : declarations.outputName().value_or(in.outputName);
    std::vector<std::string> flagged;
    for (ParameterOption p : in.parameters) {
        const Flag& flag = flagOf(p.type);
        const DeclaredParameter* declared = declarations.find(p.name);
        if (declared && declared->kind == Kind::Output) declared = nullptr;
        if (declared && flag.kind != declared->kind) {
            const Flag& wanted = flagOf(declared->kind);
            throw UsageError(std::string(flag.option) + " " + p.name + ": the script declares " + p.name + " as " +
                             (declared->kind == Kind::Image ? "an image input" : "a float") + " (" + line(*declared) +
                             "); give it with " + wanted.option + " " + p.name + "=" + wanted.value);
        }
        if (render && p.type == PebInterpreterTypes::Float) settleFloat(p, declared, true, list.warnings);
        flagged.push_back(p.name);
        list.parameters.push_back(p);
    }
    for (const DeclaredParameter& d : declarations.parameters) {
        if (d.kind == Kind::Output || std::find(flagged.begin(), flagged.end(), d.name) != flagged.end()) continue;
        const Flag& flag = flagOf(d.kind);
        ParameterOption p{flag.type, d.name, std::nullopt};
        if (render && d.kind == Kind::Image)
            throw UsageError("the script declares the image input " + d.name + " (" + line(d) + "): add -i " + d.name + "=FILE");
        if (render) settleFloat(p, &d, false, list.warnings);
        list.parameters.push_back(p);
    }
    return list;
}

}  // namespace Zt::KelApp
