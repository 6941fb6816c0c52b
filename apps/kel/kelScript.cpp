#include "kelScript.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>

#include "kelHints.h"
#include "kelImageFiles.h"

namespace Zt::KelApp {

namespace fs = std::filesystem;

Script readScript(const Invocation& in) {
    if (in.hasScriptText && !in.scriptPath.empty()) throw UsageError("give either SCRIPT or -e TEXT, not both");
    if (in.hasScriptText) return {"<script>", in.scriptText};
    if (in.scriptPath.empty()) throw UsageError("no script: give SCRIPT, - for standard input, or -e TEXT");
    if (in.scriptPath == "-") {
        std::string text{std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>()};
        if (std::cin.bad()) throw FileError("cannot read the script from standard input");
        return {"<stdin>", text};
    }
    std::error_code error;
    if (fs::is_directory(in.scriptPath, error)) throw FileError("cannot read " + in.scriptPath + ": it is a directory");
    std::ifstream file(in.scriptPath, std::ios::binary);
    if (!file) throw FileError("cannot read " + in.scriptPath);
    std::string text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    if (file.bad()) throw FileError("cannot read " + in.scriptPath);
    return {in.scriptPath, text};
}

void printErrors(const Script& script, const PebController& controller, bool warnings) {
    const bool compiled = controller.isCompiled();
    if (controller.getErrors().empty() || (compiled && !warnings)) return;
    HintSources hints{controller.describeFunctions(), {}};
    for (const PebParameterInfo& p : controller.getParameters()) hints.parameters.push_back(p.getName());
    const SourceLines source(script.text);
    for (const PebError& e : controller.getErrors())
        printDiagnostic(std::cerr, script.name, source, explain(e, compiled, source, hints));
}

void printDeclarationProblems(const Script& script, const std::vector<DeclarationProblem>& problems) {
    const SourceLines source(script.text);
    for (const DeclarationProblem& p : problems) {
        Diagnostic d;
        d.line = p.line;
        d.column = p.column;
        d.message = p.message;
        printDiagnostic(std::cerr, script.name, source, d);
    }
}

std::string readableReason(const ExBase& e) {
    std::string text = e.getReason();
    std::replace(text.begin(), text.end(), '\n', ' ');
    std::replace(text.begin(), text.end(), '\r', ' ');
    return text.empty() ? "unknown failure" : text;
}

}  // namespace Zt::KelApp
