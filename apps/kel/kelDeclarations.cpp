#include "kelDeclarations.h"

#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <sstream>

#include "kelSpelling.h"

namespace Zt::KelApp {

namespace {

using Kind = DeclaredParameter::Kind;

// Reads one declaration's words left to right; every reader returns false on a malformed word
// and leaves `at()` where the fault is.
class DeclarationReader {
public:
    DeclarationReader(const std::string& text, std::size_t at) : _text(text), _at(at) {}

    std::size_t at() const { return _at; }
    bool atEnd() {
        skipSpaces();
        return _at >= _text.size();
    }
    bool name(std::string& out) {
        skipSpaces();
        std::size_t end = _at;
        while (end < _text.size() && (std::isalnum((unsigned char)_text[end]) || _text[end] == '_')) ++end;
        out = _text.substr(_at, end - _at);
        if (out.empty() || std::isdigit((unsigned char)out[0])) return false;
        _at = end;
        return true;
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
        if (close == std::string::npos) {
            --_at;
            return false;
        }
        out = _text.substr(_at, close - _at);
        _at = close + 1;
        return true;
    }

private:
    void skipSpaces() {
        while (_at < _text.size() && (_text[_at] == ' ' || _text[_at] == '\t')) ++_at;
    }
    const std::string& _text;
    std::size_t _at;
};

struct Keyword {
    const char* word;
    Kind kind;
    const char* form;  // what follows the keyword, for the message of a malformed line
};
constexpr Keyword kKeywords[] = {
    {"input",  Kind::Image,  "NAME [\"LABEL\"]"},
    {"param",  Kind::Float,  "NAME [DEFAULT] [[MIN, MAX]] [\"LABEL\"]"},
    {"output", Kind::Output, "NAME"},
};

std::string number(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%g", value);
    return text;
}

struct Fault {
    std::size_t at;  // in the line, from 0
    std::string message;
};

// Reads what follows the name; the fault of a line that does not read, if any.
std::optional<Fault> readRest(DeclarationReader& reader, DeclaredParameter& p, const Keyword& keyword) {
    const auto malformed = [&] { return Fault{reader.at(), std::string("@") + keyword.word + " reads " + keyword.form}; };
    if (p.kind == Kind::Float) {
        double value = 0;
        std::size_t defaultAt = 0;
        if (!reader.peek('[') && !reader.peek('"') && !reader.atEnd()) {
            defaultAt = reader.at();
            if (!reader.number(value)) return malformed();
            p.defaultValue = value;
        }
        if (reader.peek('[')) {
            const std::size_t rangeAt = reader.at();
            double low = 0, high = 0;
            if (!reader.expect('[') || !reader.number(low) || !reader.expect(',') || !reader.number(high) || !reader.expect(']'))
                return malformed();
            const std::string range = "[" + number(low) + ", " + number(high) + "]";
            if (!(low < high)) return Fault{rangeAt, "the range " + range + " is empty: write [MIN, MAX] with MIN < MAX"};
            p.range = {low, high};
            if (p.defaultValue && (*p.defaultValue < low || *p.defaultValue > high))
                return Fault{defaultAt, "the default " + number(*p.defaultValue) + " is outside the range " + range};
        }
    }
    if (p.kind != Kind::Output && reader.peek('"') && !reader.quoted(p.label)) return malformed();
    if (!reader.atEnd()) return malformed();
    return std::nullopt;
}

}  // namespace

const char* kindName(Kind kind) {
    switch (kind) {
        case Kind::Image: return "image";
        case Kind::Float: return "float";
        case Kind::Output: return "output";
    }
    return "?";
}

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
    static const std::vector<std::string> words = [] {
        std::vector<std::string> result;
        for (const Keyword& k : kKeywords) result.emplace_back(k.word);
        return result;
    }();
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
        DeclarationReader reader(line, at + 1);
        std::string word;
        reader.name(word);
        const auto problem = [&](std::size_t where, const std::string& message) {
            result.problems.push_back({number, int(where) + 1, message});
        };
        const Keyword* keyword = nullptr;
        for (const Keyword& k : kKeywords)
            if (word == k.word) keyword = &k;
        if (!keyword) {
            // Other @words are free for the script's own notes; one close to a keyword is a typo.
            if (nearestName(word, words))
                problem(at, "unknown declaration @" + word + ": the declarations are @input, @param and @output");
            continue;
        }
        DeclaredParameter p;
        p.kind = keyword->kind;
        p.line = number;
        std::optional<Fault> fault;
        if (!reader.name(p.name))
            fault = Fault{reader.at(), std::string("@") + keyword->word + " reads " + keyword->form};
        else
            fault = readRest(reader, p, *keyword);
        if (fault) {
            problem(fault->at, fault->message);
        } else if (const DeclaredParameter* earlier = result.find(p.name)) {
            problem(at, p.name + " is already declared at line " + std::to_string(earlier->line));
        } else if (p.kind == Kind::Output && result.outputName()) {
            problem(at, "the output is already declared at line " + std::to_string(result.find(*result.outputName())->line));
        } else {
            result.parameters.push_back(p);
        }
    }
    return result;
}

}  // namespace Zt::KelApp
