#include "kelDeclarations.h"

#include <cctype>
#include <cmath>
#include <cstdlib>
#include <sstream>

namespace Zt::KelApp {

namespace {

// Reads one declaration's words left to right; every reader returns false on a malformed word.
class DeclarationReader {
public:
    explicit DeclarationReader(const std::string& text) : _text(text) {}

    bool atEnd() {
        skipSpaces();
        return _at >= _text.size();
    }
    bool name(std::string& out) {
        skipSpaces();
        const std::size_t start = _at;
        while (_at < _text.size() && (std::isalnum((unsigned char)_text[_at]) || _text[_at] == '_')) ++_at;
        out = _text.substr(start, _at - start);
        return !out.empty() && !std::isdigit((unsigned char)out[0]);
    }
    bool number(double& out) {
        skipSpaces();
        const char* begin = _text.c_str() + _at;
        char* end = nullptr;
        out = std::strtod(begin, &end);
        if (end == begin || !std::isfinite(out)) return false;
        _at += std::size_t(end - begin);
        return true;
    }
    bool peek(char c) {
        skipSpaces();
        return _at < _text.size() && _text[_at] == c;
    }
    bool expect(char c) {
        if (!peek(c)) return false;
        ++_at;
        return true;
    }
    bool quoted(std::string& out) {
        if (!expect('"')) return false;
        const std::size_t close = _text.find('"', _at);
        if (close == std::string::npos) return false;
        out = _text.substr(_at, close - _at);
        _at = close + 1;
        return true;
    }

private:
    void skipSpaces() {
        while (_at < _text.size() && (_text[_at] == ' ' || _text[_at] == '\t')) ++_at;
    }
    const std::string& _text;
    std::size_t _at = 0;
};

using Kind = DeclaredParameter::Kind;

struct Keyword {
    const char* word;
    Kind kind;
    const char* form;  // for the message of a malformed line
};
constexpr Keyword kKeywords[] = {
    {"input",  Kind::Image,  "// @input NAME [\"Label\"]"},
    {"param",  Kind::Float,  "// @param NAME [DEFAULT] [[MIN, MAX]] [\"Label\"]"},
    {"output", Kind::Output, "// @output NAME"},
};

bool readRest(DeclarationReader& reader, DeclaredParameter& p) {
    if (p.kind == Kind::Float) {
        double value = 0;
        if (!reader.peek('[') && !reader.peek('"') && !reader.atEnd()) {
            if (!reader.number(value)) return false;
            p.defaultValue = value;
        }
        if (reader.expect('[')) {
            double low = 0, high = 0;
            if (!reader.number(low) || !reader.expect(',') || !reader.number(high) || !reader.expect(']') || !(low < high))
                return false;
            p.range = {low, high};
        }
    }
    if (p.kind != Kind::Output && reader.peek('"') && !reader.quoted(p.label)) return false;
    return reader.atEnd();
}

}  // namespace

const DeclaredParameter* ScriptDeclarations::find(const std::string& name) const {
    for (const DeclaredParameter& p : parameters)
        if (p.name == name) return &p;
    return nullptr;
}

std::optional<std::string> ScriptDeclarations::outputName() const {
    for (const DeclaredParameter& p : parameters)
        if (p.kind == Kind::Output) return p.name;
    return std::nullopt;
}

ScriptDeclarations readDeclarations(const std::string& text) {
    ScriptDeclarations result;
    std::istringstream lines(text);
    int number = 0;
    for (std::string line; std::getline(lines, line);) {
        ++number;
        if (!line.empty() && line.back() == '\r') line.pop_back();
        const std::size_t start = line.find_first_not_of(" \t");
        if (start == std::string::npos || line.compare(start, 2, "//") != 0) continue;
        const std::size_t at = line.find_first_not_of(" \t", start + 2);
        if (at == std::string::npos || line[at] != '@') continue;
        for (const Keyword& keyword : kKeywords) {
            const std::string word = keyword.word;
            const std::size_t end = at + 1 + word.size();
            if (line.compare(at + 1, word.size(), word) != 0 || (end < line.size() && line[end] != ' ' && line[end] != '\t'))
                continue;
            const std::string rest = line.substr(end);
            DeclarationReader reader(rest);
            DeclaredParameter p;
            p.kind = keyword.kind;
            p.line = number;
            if (!reader.name(p.name) || !readRest(reader, p)) {
                result.problems.push_back({number, std::string("this declaration reads ") + keyword.form});
            } else if (result.find(p.name)) {
                result.problems.push_back({number, "'" + p.name + "' is declared twice"});
            } else {
                result.parameters.push_back(p);
            }
            break;
        }
    }
    return result;
}

}  // namespace Zt::KelApp
