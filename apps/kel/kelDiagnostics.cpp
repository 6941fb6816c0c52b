#include "kelDiagnostics.h"

#include <sstream>

namespace Zt::KelApp {

namespace {

// A line of a megabyte-long script is shown as a window around the column, not whole.
constexpr std::size_t kShownWidth = 160;

const std::string kEmpty;

}  // namespace

SourceLines::SourceLines(const std::string& text) {
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        _lines.push_back(std::move(line));
    }
}

const std::string& SourceLines::line(int number) const {
    return number >= 1 && std::size_t(number) <= _lines.size() ? _lines[std::size_t(number) - 1] : kEmpty;
}

void printDiagnostic(std::ostream& out, const std::string& name, const SourceLines& source, const Diagnostic& d) {
    const char* severity = d.severity == Diagnostic::Severity::Error ? "error" : "warning";
    out << name;
    if (d.line > 0) out << ":" << d.line;
    if (d.line > 0 && d.column > 0) out << ":" << d.column;
    out << ": " << severity << ": " << d.message << "\n";
    const std::string& text = source.line(d.line);
    if (d.line > 0 && !text.empty()) {
        std::size_t first = 0;
        const std::size_t column = d.column > 0 ? std::size_t(d.column) - 1 : 0;
        if (text.size() > kShownWidth) first = column > kShownWidth / 2 ? column - kShownWidth / 2 : 0;
        const std::string shown = text.substr(first, kShownWidth);
        out << shown << "\n";
        if (d.column > 0 && column >= first) {
            std::string caret;
            // A column past the end of the line (the script ended early) puts the caret after it.
            for (std::size_t i = first; i < column; ++i) caret += i < text.size() && text[i] == '\t' ? '\t' : ' ';
            out << caret << "^" << std::string(d.length > 1 ? d.length - 1 : 0, '~') << "\n";
        }
    }
    for (const std::string& note : d.notes) out << "note: " << note << "\n";
}

}  // namespace Zt::KelApp
