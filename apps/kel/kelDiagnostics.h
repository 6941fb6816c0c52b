// How one message about a script reaches a person, in the form compilers use:
//
//   grade.kel:3:24: error: Variable not defined: offset
//   color c = src * gain + offset;
//                          ^~~~~~
//   note: a parameter is given with -f offset=VALUE (-i offset=FILE for an image), or ...
//
// The prefix names the script, the line and the column (no column when it is not known, neither
// line nor column for a message about the whole script); the script's line follows with a caret
// under the token, tabs kept so that the caret stands under it in any terminal.
#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace Zt::KelApp {

struct Diagnostic {
    enum class Severity { Error, Warning };
    Severity severity = Severity::Error;
    int line = 0;             // from 1; 0: the script as a whole
    int column = 0;           // from 1; 0: unknown
    std::size_t length = 1;   // of the token under the caret
    std::string message;
    std::vector<std::string> notes;
};

// The script's text by lines, for quoting them under their messages.
class SourceLines {
public:
    explicit SourceLines(const std::string& text);
    std::size_t count() const { return _lines.size(); }
    // Line `number` (from 1) without its end of line; empty past the end.
    const std::string& line(int number) const;

private:
    std::vector<std::string> _lines;
};

// Writes `d` about the script `name` (its path, or <script>).
void printDiagnostic(std::ostream& out, const std::string& name, const SourceLines& source, const Diagnostic& d);

}  // namespace Zt::KelApp
