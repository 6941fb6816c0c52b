#include "kelOptions.h"

#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <numeric>
#include <regex>
#include <set>

namespace Zt::KelApp {

namespace {

[[noreturn]] void bad(const std::string& option, const std::string& text, const std::string& expected) {
    throw UsageError("invalid value '" + text + "' for " + option + ": expected " + expected);
}

bool parseDouble(const std::string& text, double& value) {
    if (text.empty() || std::isspace((unsigned char)text[0])) return false;
    char* end = nullptr;
    value = std::strtod(text.c_str(), &end);
    return end == text.c_str() + text.size();
}

bool parseInt(const std::string& text, long long& value) {
    static const std::regex integer("[-+]?[0-9]{1,12}");
    if (!std::regex_match(text, integer)) return false;
    value = std::stoll(text);
    return true;
}

const std::regex kFramePattern("#+|%0?[0-9]*d");

}  // namespace

ParameterOption parseParameter(PebInterpreterTypes::Type type, const std::string& text) {
    const char* option = type == PebInterpreterTypes::Image ? "-i" : type == PebInterpreterTypes::Float ? "-f" : "-c";
    ParameterOption p{type, text, std::nullopt};
    if (const std::size_t eq = text.find('='); eq != std::string::npos) {
        p.name = text.substr(0, eq);
        p.value = text.substr(eq + 1);
    }
    static const std::regex identifier("[A-Za-z_][A-Za-z0-9_]*");
    if (!std::regex_match(p.name, identifier))
        bad(option, text, "NAME[=VALUE] with NAME an identifier");
    if (type == PebInterpreterTypes::Float && p.value) parseFloatValue(option, *p.value);
    if (type == PebInterpreterTypes::Color && p.value) parseColorValue(option, *p.value);
    return p;
}

double parseFloatValue(const std::string& option, const std::string& text) {
    double value = 0.0;
    if (!parseDouble(text, value)) bad(option, text, "a number");
    return value;
}

std::vector<double> parseColorValue(const std::string& option, const std::string& text) {
    std::vector<double> channels;
    std::size_t start = 0;
    while (true) {
        const std::size_t comma = text.find(',', start);
        double value = 0.0;
        if (!parseDouble(text.substr(start, comma - start), value)) bad(option, text, "R,G,B,A");
        channels.push_back(value);
        if (comma == std::string::npos) break;
        start = comma + 1;
    }
    if (channels.size() == 3) channels.push_back(1.0);
    if (channels.size() != 4) bad(option, text, "R,G,B,A");
    return channels;
}

std::pair<int, int> parseSize(const std::string& option, const std::string& text) {
    static const std::regex size("([0-9]{1,6})[xX]([0-9]{1,6})");
    std::smatch m;
    if (!std::regex_match(text, m, size) || std::stoi(m[1]) < 1 || std::stoi(m[2]) < 1)
        bad(option, text, "WxH with positive W and H");
    return {std::stoi(m[1]), std::stoi(m[2])};
}

namespace {

// The times that a validity interval can hold (PxValidityInterval::kMinTime, kMaxTime).
std::string timeLimits() {
    char text[96];
    std::snprintf(text, sizeof text, "from %.0f to %.0f", PxValidityInterval::kMinTime, PxValidityInterval::kMaxTime);
    return text;
}

bool withinTimeLimits(double time) {
    return std::isfinite(time) && time >= PxValidityInterval::kMinTime && time <= PxValidityInterval::kMaxTime;
}

}  // namespace

double parseTime(const std::string& option, const std::string& text) {
    double value = 0.0;
    if (!parseDouble(text, value) || !withinTimeLimits(value)) bad(option, text, "a time " + timeLimits());
    return value;
}

std::vector<int> parseFrames(const std::string& text) {
    static const std::regex item("(-?[0-9]{1,9})(?:-(-?[0-9]{1,9})(?:x([0-9]{1,9}))?)?");
    const std::string form = "A, A-B or A-BxS, or a comma-separated list of them";
    std::vector<int> frames;
    std::set<int> seen;
    std::size_t start = 0;
    while (true) {
        const std::size_t comma = text.find(',', start);
        const std::string part = text.substr(start, comma - start);
        std::smatch m;
        if (!std::regex_match(part, m, item)) bad("--frames", text, form);
        const long long a = std::stoll(m[1]), b = m[2].matched ? std::stoll(m[2]) : a, step = m[3].matched ? std::stoll(m[3]) : 1;
        if (!withinTimeLimits(double(a)) || !withinTimeLimits(double(b))) bad("--frames", text, "frames " + timeLimits());
        if (b < a) bad("--frames", text, "A-B with A <= B");
        if (step < 1) bad("--frames", text, "a step S of at least 1 in A-BxS");
        for (long long f = a; f <= b; f += step) {
            if (!seen.insert(int(f)).second) bad("--frames", text, "each frame once (" + std::to_string(f) + " is listed twice)");
            frames.push_back(int(f));
        }
        if (comma == std::string::npos) break;
        start = comma + 1;
    }
    return frames;
}

std::pair<int, int> parseRatio(const std::string& option, const std::string& text) {
    static const std::regex ratio("([0-9]{1,6})(?:/([0-9]{1,6})|\\.([0-9]{1,6}))?");
    const std::string form = "N/D or a decimal, positive (1.5 or 3/2)";
    std::smatch m;
    if (!std::regex_match(text, m, ratio)) bad(option, text, form);
    long long n = std::stoll(m[1]), d = m[2].matched ? std::stoll(m[2]) : 1;
    if (m[3].matched) {
        // 1.25 is 125/100 before reduction.
        for (char digit : m[3].str()) {
            n = n * 10 + (digit - '0');
            d *= 10;
        }
    }
    if (n < 1 || d < 1) bad(option, text, form);
    const long long divisor = std::gcd(n, d);
    n /= divisor;
    d /= divisor;
    if (n > 999999 || d > 999999) bad(option, text, "a ratio whose reduced N/D are at most 999999");
    return {int(n), int(d)};
}

int parseInteger(const std::string& option, const std::string& text, int minimum, int maximum) {
    long long value = 0;
    if (!parseInt(text, value) || value < minimum || value > maximum)
        bad(option, text, "an integer from " + std::to_string(minimum) + " to " + std::to_string(maximum));
    return int(value);
}

double parseSeconds(const std::string& option, const std::string& text) {
    double value = 0.0;
    if (!parseDouble(text, value) || !std::isfinite(value) || value <= 0.0) bad(option, text, "a positive number of seconds");
    return value;
}

bool hasFramePattern(const std::string& path) { return std::regex_search(path, kFramePattern); }

std::string expandFramePath(const std::string& path, int frame) {
    std::string out;
    auto begin = std::sregex_iterator(path.begin(), path.end(), kFramePattern);
    std::size_t last = 0;
    for (auto it = begin; it != std::sregex_iterator(); ++it) {
        const std::smatch& m = *it;
        out.append(path, last, std::size_t(m.position()) - last);
        const std::string token = m.str();
        char buffer[64];
        if (token[0] == '#') {
            std::snprintf(buffer, sizeof buffer, "%0*d", int(token.size()), frame);
        } else {
            const std::string digits = token.substr(1, token.size() - 2);
            const int width = digits.empty() ? 0 : std::min(std::atoi(digits.c_str()), 32);
            std::snprintf(buffer, sizeof buffer, digits.starts_with("0") ? "%0*d" : "%*d", width, frame);
        }
        out += buffer;
        last = std::size_t(m.position() + m.length());
    }
    out.append(path, last, std::string::npos);
    return out;
}

}  // namespace Zt::KelApp
