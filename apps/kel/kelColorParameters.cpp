#include "kelColorParameters.h"

#include <cctype>
#include <set>

namespace Zt::KelApp {

namespace {

bool identifierStart(char c) { return std::isalpha((unsigned char)c) || c == '_'; }
bool identifierPart(char c) { return std::isalnum((unsigned char)c) || c == '_'; }

// The names that the code uses, skipping comments, numbers and declarations `color NAME`.
std::set<std::string> namesUsed(const std::string& text) {
    std::set<std::string> used;
    std::string previous;
    for (std::size_t i = 0; i < text.size();) {
        if (text.compare(i, 2, "//") == 0) {
            i = text.find('\n', i);
            if (i == std::string::npos) break;
        } else if (text.compare(i, 2, "/*") == 0) {
            i = text.find("*/", i + 2);
            if (i == std::string::npos) break;
            i += 2;
        } else if (identifierStart(text[i])) {
            std::size_t end = i;
            while (end < text.size() && identifierPart(text[end])) ++end;
            std::string name = text.substr(i, end - i);
            if (previous != "color") used.insert(name);
            previous = std::move(name);
            i = end;
        } else if (std::isdigit((unsigned char)text[i]) || text[i] == '.') {
            // 1e5 and 2.5f are numbers, not the names e5 and f.
            while (i < text.size() && (identifierPart(text[i]) || text[i] == '.')) ++i;
            previous.clear();
        } else {
            if (!std::isspace((unsigned char)text[i])) previous.clear();
            ++i;
        }
    }
    return used;
}

}  // namespace

std::vector<std::string> colorParametersUsed(const Script& script, const Invocation& in) {
    std::vector<std::string> found;
    std::set<std::string> used;
    bool scanned = false;
    for (const ParameterOption& p : in.parameters) {
        if (p.type != PebInterpreterTypes::Color) continue;
        if (!scanned) used = namesUsed(script.text), scanned = true;
        if (used.count(p.name)) found.push_back(p.name);
    }
    return found;
}

std::string colorParameterMessage(const std::string& name) {
    return "the colour parameter " + name + " (-c " + name +
           ") has no value while the script runs, so the script cannot use it; give the colour as three float "
           "parameters (-f " + name + "_r=R -f " + name + "_g=G -f " + name + "_b=B) and build it with color(" + name +
           "_r, " + name + "_g, " + name + "_b, 1)";
}

}  // namespace Zt::KelApp
