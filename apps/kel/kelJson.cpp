#include "kelJson.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace Zt::KelApp {

namespace {

// Length of the valid UTF-8 sequence at text[i], 0 if it isn't one.
std::size_t utf8Length(const std::string& text, std::size_t i) {
    const auto byte = [&](std::size_t k) { return (unsigned char)text[k]; };
    const unsigned char c = byte(i);
    std::size_t n = c >= 0xF0 && c <= 0xF4 ? 4 : c >= 0xE0 ? 3 : c >= 0xC2 && c <= 0xDF ? 2 : 0;
    if (n == 0 || i + n > text.size()) return 0;
    for (std::size_t k = 1; k < n; ++k)
        if ((byte(i + k) & 0xC0) != 0x80) return 0;
    return n;
}

std::string nonFinite(double value) { return std::isnan(value) ? "\"nan\"" : value > 0 ? "\"inf\"" : "\"-inf\""; }

}  // namespace

std::string jsonString(const std::string& text) {
    std::string out = "\"";
    char buffer[8];
    for (std::size_t i = 0; i < text.size(); ++i) {
        const unsigned char c = (unsigned char)text[i];
        if (c == '"' || c == '\\') {
            out += '\\';
            out += char(c);
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\t') {
            out += "\\t";
        } else if (c == '\r') {
            out += "\\r";
        } else if (c < 0x20 || c == 0x7F) {
            std::snprintf(buffer, sizeof buffer, "\\u%04x", c);
            out += buffer;
        } else if (c < 0x80) {
            out += char(c);
        } else if (std::size_t n = utf8Length(text, i)) {
            out.append(text, i, n);
            i += n - 1;
        } else {
            std::snprintf(buffer, sizeof buffer, "\\u%04x", c);
            out += buffer;
        }
    }
    return out + "\"";
}

std::string jsonFloat(float value) {
    if (!std::isfinite(value)) return nonFinite(value);
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "%.9g", double(value));
    return buffer;
}

std::string jsonDouble(double value) {
    if (!std::isfinite(value)) return nonFinite(value);
    char buffer[40];
    std::snprintf(buffer, sizeof buffer, "%.17g", value);
    return buffer;
}

std::string jsonStatus(bool ok, const Vector<PebError>& errors) {
    std::string out = std::string("\"ok\": ") + (ok ? "true" : "false") + ", \"errors\": [";
    for (std::size_t i = 0; i < errors.size(); ++i) {
        if (i) out += ", ";
        out += "{\"line\": " + std::to_string(errors[i].getLine()) + ", \"message\": " + jsonString(errors[i].getMessage()) + "}";
    }
    return out + "]";
}

std::string jsonRender(const Vector<PebError>& errors, const PxRenderedImage& image, bool dump) {
    std::string out = "{" + jsonStatus(true, errors);
    out += ", \"width\": " + std::to_string(image.rect.width()) + ", \"height\": " + std::to_string(image.rect.height());
    out += ", \"validity\": [" + jsonDouble(image.validity.begin) + ", " + jsonDouble(image.validity.end) + "]";
    if (dump) {
        out += ", \"pixels\": [";
        for (int y = image.rect.yMin; y < image.rect.yMax; ++y) {
            out += y > image.rect.yMin ? ", [" : "[";
            for (int x = image.rect.xMin; x < image.rect.xMax; ++x) {
                const Color& c = image.at(x, y);
                out += x > image.rect.xMin ? ", [" : "[";
                out += jsonFloat(c.r) + ", " + jsonFloat(c.g) + ", " + jsonFloat(c.b) + ", " + jsonFloat(c.a) + "]";
            }
            out += "]";
        }
        out += "]";
    }
    return out + "}";
}

}  // namespace Zt::KelApp

namespace Zt::KelApp {

namespace {

// The fewest digits that read back to the same double: a declared 0.1 is written 0.1.
std::string shortestNumber(double value) {
    char buffer[40];
    for (int digits = 1; digits <= 17; ++digits) {
        std::snprintf(buffer, sizeof buffer, "%.*g", digits, value);
        if (std::strtod(buffer, nullptr) == value) break;
    }
    return buffer;
}

}  // namespace

std::string jsonDeclarations(const ScriptDeclarations& declarations) {
    std::string out = "{\"parameters\": [";
    for (std::size_t i = 0; i < declarations.parameters.size(); ++i) {
        const DeclaredParameter& p = declarations.parameters[i];
        out += i ? ", " : "";
        out += "{\"name\": " + jsonString(p.name) + ", \"kind\": " + jsonString(kindName(p.kind));
        out += ", \"label\": " + (p.label.empty() ? std::string("null") : jsonString(p.label));
        out += ", \"default\": " + (p.defaultValue ? shortestNumber(*p.defaultValue) : "null");
        out += ", \"range\": " +
               (p.range ? "[" + shortestNumber(p.range->first) + ", " + shortestNumber(p.range->second) + "]" : "null");
        out += ", \"line\": " + std::to_string(p.line) + "}";
    }
    out += "], \"problems\": [";
    for (std::size_t i = 0; i < declarations.problems.size(); ++i) {
        const DeclarationProblem& p = declarations.problems[i];
        out += i ? ", " : "";
        out += "{\"line\": " + std::to_string(p.line) + ", \"column\": " + std::to_string(p.column) +
               ", \"message\": " + jsonString(p.message) + "}";
    }
    return out + "]}";
}

}  // namespace Zt::KelApp
