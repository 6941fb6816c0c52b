#include "kelScript.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>
#include <vector>

#include "kelImageIO.h"

namespace Zt::KelApp {

namespace fs = std::filesystem;

Script readScript(const Invocation& in) {
    if (in.hasScriptText && !in.scriptPath.empty()) throw UsageError("give either SCRIPT or -e TEXT, not both");
    if (in.hasScriptText) return {"<script>", in.scriptText};
    if (in.scriptPath.empty()) throw UsageError("no script: give SCRIPT or -e TEXT");
    std::error_code error;
    if (fs::is_directory(in.scriptPath, error)) throw FileError("cannot read " + in.scriptPath + ": it is a directory");
    std::ifstream file(in.scriptPath, std::ios::binary);
    if (!file) throw FileError("cannot read " + in.scriptPath);
    std::string text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    if (file.bad()) throw FileError("cannot read " + in.scriptPath);
    return {in.scriptPath, text};
}

void printErrors(const Script& script, const Vector<PebError>& errors) {
    std::vector<std::string> lines;
    std::istringstream text(script.text);
    for (std::string line; std::getline(text, line);) lines.push_back(line);
    for (const PebError& e : errors) {
        if (e.getLine() <= 0) {
            std::cerr << script.name << ": " << e.getMessage() << "\n";
            continue;
        }
        std::cerr << script.name << ":" << e.getLine() << ": " << e.getMessage() << "\n";
        if (std::size_t(e.getLine()) <= lines.size()) {
            std::string line = lines[std::size_t(e.getLine()) - 1];
            if (!line.empty() && line.back() == '\r') line.pop_back();
            std::cerr << line << "\n";
        }
    }
}

std::string readableReason(const ExBase& e) {
    std::string text = e.getReason();
    std::replace(text.begin(), text.end(), '\n', ' ');
    std::replace(text.begin(), text.end(), '\r', ' ');
    return text.empty() ? "unknown failure" : text;
}

}  // namespace Zt::KelApp
