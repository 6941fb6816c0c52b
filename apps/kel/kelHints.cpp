#include "kelHints.h"

#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <regex>

#include "kelSpelling.h"

namespace Zt::KelApp {

namespace {

bool isWordChar(char c) { return std::isalnum((unsigned char)c) || c == '_'; }

// The line without its `//` comment, so that a `?` in a remark is never taken for code.
std::string codeOf(const std::string& line) { return line.substr(0, line.find("//")); }

// The column (from 1) of `word` standing alone on `line`, followed by `(` when `call`; 0 if absent.
int findWord(const std::string& line, const std::string& word, bool call) {
    const std::string code = codeOf(line);
    for (std::size_t at = code.find(word); at != std::string::npos; at = code.find(word, at + 1)) {
        const std::size_t end = at + word.size();
        if ((at > 0 && isWordChar(code[at - 1])) || (end < code.size() && isWordChar(code[end]))) continue;
        if (call && code.find_first_not_of(" \t", end) != code.find('(', end)) continue;
        return int(at) + 1;
    }
    return 0;
}

// The length of the token that starts at `column`: a whole name or number, else one character.
std::size_t tokenLength(const std::string& line, int column) {
    std::size_t at = std::size_t(column) - 1, end = at;
    while (end < line.size() && (isWordChar(line[end]) || line[end] == '.')) ++end;
    return std::max<std::size_t>(1, end - at);
}

const char* countWord(std::size_t n) {
    static const char* const words[] = {"no", "one", "two", "three", "four", "five", "six", "seven", "eight"};
    return n < std::size(words) ? words[n] : nullptr;
}

std::string formText(const PebFunctionForm& form) {
    std::string text = form.name + "(";
    for (std::size_t i = 0; i < form.argumentTypes.size(); ++i) text += (i ? ", " : "") + form.argumentTypes[i];
    return text + ")";
}

// ---- Messages that quote a name ----------------------------------------------------------------

struct Found {
    const std::smatch& match;
    const HintSources& hints;
};

using Explainer = void (*)(const Found& found, Diagnostic& d);

void unknownFunction(const Found& f, Diagnostic& d) {
    std::vector<std::string> names;
    for (const PebFunctionForm& form : f.hints.functions) names.push_back(form.name);
    if (const auto nearest = nearestName(f.match[1], names)) d.notes.push_back("did you mean `" + *nearest + "`?");
}

void wrongCall(const Found& f, Diagnostic& d) {
    const std::string name = f.match[1];
    std::vector<const PebFunctionForm*> forms;
    for (const PebFunctionForm& form : f.hints.functions)
        if (form.name == name) forms.push_back(&form);
    if (forms.empty()) return;
    if (forms.size() == 1) {
        const std::size_t n = forms.front()->argumentTypes.size();
        const std::string count = countWord(n) ? countWord(n) : std::to_string(n);
        d.notes.push_back("`" + name + "` takes " + count + (n == 1 ? " argument: " : " arguments: ") +
                          formText(*forms.front()));
        return;
    }
    std::string text = "`" + name + "` is called as ";
    for (std::size_t i = 0; i < forms.size(); ++i) text += (i == 0 ? "" : i + 1 == forms.size() ? " or " : ", ") + formText(*forms[i]);
    d.notes.push_back(text);
}

void undefinedVariable(const Found& f, Diagnostic& d) {
    const std::string name = f.match[1];
    std::vector<std::string> known = f.hints.parameters;
    known.insert(known.end(), {"x", "y", "t"});
    if (const auto nearest = nearestName(name, known))
        d.notes.push_back("did you mean `" + *nearest + "`?");
    else
        d.notes.push_back("a parameter is given with -f " + name + "=VALUE (-i " + name +
                          "=FILE for an image), or declared in the script: // @param " + name + " 0");
}

void takenName(const Found& f, Diagnostic& d) {
    static const struct {
        const char* name;
        const char* meaning;
    } kBuiltinVariables[] = {
        {"x", "the pixel's horizontal position"},
        {"y", "the pixel's vertical position"},
        {"t", "the time"},
    };
    const std::string name = f.match[1];
    for (const auto& v : kBuiltinVariables)
        if (name == v.name) return d.notes.push_back("`" + name + "` is " + v.meaning + "; choose another name");
    for (const std::string& p : f.hints.parameters)
        if (name == p) return d.notes.push_back("`" + name + "` is a parameter of the node; choose another name");
}

void noNote(const Found&, Diagnostic&) {}

struct NameRule {
    std::regex pattern;  // group 1: the name the message is about
    bool call;           // the name stands before `(` on the line
    Explainer explain;
};

const std::vector<NameRule>& nameRules() {
    static const std::vector<NameRule> rules = {
        {std::regex("^Function undefined : (\\w+)"),                              true,  unknownFunction},
        {std::regex("^No overloaded function for '(\\w+)'"),                      true,  wrongCall},
        {std::regex("^Void type argument is not valid for function '(\\w+)'"),   true,  wrongCall},
        {std::regex("^The parameter #\\d+ cannot be used in the function (\\w+)"), true,  wrongCall},
        {std::regex("^(?:Variable not defined|Undefined variable): (\\w+)"),      false, undefinedVariable},
        {std::regex("^Variable already defined: (\\w+)"),                         false, takenName},
        {std::regex("^Cannot assign a const variable: (\\w+)"),                   false, noNote},
    };
    return rules;
}

// ---- Forms the language does not have, behind a syntax error ---------------------------------

std::string exponentNote(const std::string& literal) {
    const double value = std::strtod(literal.c_str(), nullptr);
    char text[400];
    std::snprintf(text, sizeof text, "%.*f", std::max(0, 15 - int(std::floor(std::log10(std::fabs(value) + 1e-300)))), value);
    std::string plain = text;
    if (plain.find('.') != std::string::npos) {
        plain.erase(plain.find_last_not_of('0') + 1);
        if (plain.back() == '.') plain.pop_back();
    }
    return "numbers have no exponent: write " + plain;
}

struct MissingForm {
    std::regex pattern;
    std::string (*note)(const std::string& match);
};

const std::vector<MissingForm>& missingForms() {
    static const std::vector<MissingForm> forms = {
        {std::regex("\\?"), [](const std::string&) { return std::string("KEL has no `?:`: use if/else"); }},
        {std::regex("%"), [](const std::string&) { return std::string("KEL has no `%`: use mod(a, b)"); }},
        {std::regex("(?:\\b[0-9]+\\.?[0-9]*|\\.[0-9]+)[eE][-+]?[0-9]+"), exponentNote},
    };
    return forms;
}

// The line's code without its comment and trailing blanks.
std::string trimmedCode(const std::string& line) {
    std::string code = codeOf(line);
    code.erase(code.find_last_not_of(" \t\r") + 1);
    return code;
}

// The last line before `before` that holds code, 0 when none does.
int lastCodeLine(const SourceLines& source, int before) {
    int line = before - 1;
    while (line > 0 && trimmedCode(source.line(line)).find_first_not_of(" \t") == std::string::npos) --line;
    return line;
}

// Why the parser stopped: the script ended, a form the language lacks stands at the token (or,
// when the column is unknown, anywhere on the line), or the statement before lacks its `;`.
void explainSyntax(const SourceLines& source, Diagnostic& d) {
    const std::string code = trimmedCode(source.line(d.line));
    if (d.line == lastCodeLine(source, int(source.count()) + 1) && d.column > int(code.size()))
        return d.notes.push_back("the script ends here: a `;` or a `}` may be missing");
    for (const MissingForm& form : missingForms()) {
        for (auto it = std::sregex_iterator(code.begin(), code.end(), form.pattern); it != std::sregex_iterator(); ++it) {
            const int start = int(it->position()) + 1, end = start + int(it->length());
            // The parser stops at the form itself, inside a number at its exponent's `e`, or at
            // the token after a character that the scanner passed over.
            const std::size_t next = code.find_first_not_of(" \t", std::size_t(end - 1));
            const int after = next == std::string::npos ? int(code.size()) + 1 : int(next) + 1;
            if (d.column > 0 && (d.column < start || (d.column >= end && d.column != after))) continue;
            if (d.column == 0 || d.column >= end) {  // point at the form, not past it
                d.column = start;
                d.length = std::size_t(it->length());
            }
            return d.notes.push_back(form.note(it->str()));
        }
    }
    // Stopped at the first word of a line: the line before may be the one that lacks its `;`.
    const int first = int(code.find_first_not_of(" \t")) + 1;
    if (d.message.ends_with("expected ;") && d.column <= first)
        if (const int before = lastCodeLine(source, d.line)) {
            const std::string previous = trimmedCode(source.line(before));
            if (!previous.ends_with(";") && !previous.ends_with("{") && !previous.ends_with("}"))
                d.notes.push_back("a `;` may be missing at the end of line " + std::to_string(before));
        }
}

std::string withoutLineSuffix(const std::string& message, int line) {
    const std::string suffix = " at line " + std::to_string(line);
    return message.ends_with(suffix) ? message.substr(0, message.size() - suffix.size()) : message;
}

}  // namespace

Diagnostic explain(const PebError& error, bool compiled, const SourceLines& source, const HintSources& hints) {
    Diagnostic d;
    d.severity = compiled ? Diagnostic::Severity::Warning : Diagnostic::Severity::Error;
    d.message = withoutLineSuffix(error.getMessage(), error.getLine());
    const PebSourcePosition& position = error.getPosition();
    d.line = position.line > 0 ? position.line : error.getLine();
    d.column = position.line > 0 ? position.column : 0;
    if (d.line <= 0) return d;
    // Past the last line, the script ended before the parser was done: point after its last word.
    if (std::size_t(d.line) > source.count()) {
        const int last = lastCodeLine(source, d.line);
        if (last == 0) return d;
        d.line = last;
        d.column = int(trimmedCode(source.line(last)).size()) + 1;
    }
    const std::string& line = source.line(d.line);
    if (d.column > 0) d.length = tokenLength(line, d.column);
    std::smatch match;
    for (const NameRule& rule : nameRules()) {
        if (!std::regex_search(d.message, match, rule.pattern)) continue;
        if (d.column == 0 && (d.column = findWord(line, match[1], rule.call)) > 0) d.length = match[1].length();
        rule.explain(Found{match, hints}, d);
        return d;
    }
    if (d.message.starts_with("Syntax Error: ")) explainSyntax(source, d);
    return d;
}

}  // namespace Zt::KelApp
