// The parameters a script declares for itself, in comment lines that the compiler ignores, each
// on a line of its own:
//
//   // @input src "Plate"                an image input, with an optional label
//   // @param gain 1.5 [0, 4] "Gain"     a float input: default, optional range, optional label
//   // @output out                       the name of the output
//
// They let a script render with no flags but its files, and give tools (the live page, pipelines)
// the defaults, ranges and labels to show. A line that starts such a declaration but does not
// read as one (a misspelt keyword included) is reported with its line and column, so a typo is
// never silently ignored.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Zt::KelApp {

struct DeclaredParameter {
    enum class Kind { Image, Float, Output };
    Kind kind = Kind::Float;
    std::string name;
    std::string label;                               // empty when not given
    std::optional<double> defaultValue;              // floats only
    std::optional<std::pair<double, double>> range;  // floats only: [minimum, maximum], minimum < maximum
    int line = 0;
};

// The word that a person would write for a kind: image, float, output.
const char* kindName(DeclaredParameter::Kind kind);

struct DeclarationProblem {
    int line = 0;
    int column = 0;  // from 1: where the declaration stops reading as one
    std::string message;
};

struct ScriptDeclarations {
    std::vector<DeclaredParameter> parameters;  // in the order of the script's lines
    std::vector<DeclarationProblem> problems;

    const DeclaredParameter* find(const std::string& name) const;
    // The declared output's name, if the script declares one.
    std::optional<std::string> outputName() const;
};

// Reads every `// @input`, `// @param` and `// @output` line of `text` (lines end at \n; a \r
// before it is ignored). A name is declared once, and a script has at most one output.
ScriptDeclarations readDeclarations(const std::string& text);

}  // namespace Zt::KelApp
