// The values of `kel`'s options: parsers that turn option text into values or throw
// UsageError with a one-line message (exit status 2), and the frame-number patterns of paths.
#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "Peb.h"

namespace Zt::KelApp {

struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// One -i, -f or -c option, in command-line order.
struct ParameterOption {
    PebInterpreterTypes::Type type;
    std::string name;
    std::optional<std::string> value;  // FILE, VALUE or R,G,B,A as given
};

ParameterOption parseParameter(PebInterpreterTypes::Type type, const std::string& text);
double parseFloatValue(const std::string& option, const std::string& text);
// R,G,B,A (or R,G,B with A=1).
std::vector<double> parseColorValue(const std::string& option, const std::string& text);
// WxH, both positive.
std::pair<int, int> parseSize(const std::string& option, const std::string& text);
// A time: a finite number within the validity limits (PxValidityInterval::kMinTime, kMaxTime).
double parseTime(const std::string& option, const std::string& text);
// A comma-separated list of frames or ranges: A, A-B or A-BxS (every S-th frame from A to B),
// each frame within the validity limits and listed once; the frames in the order given.
std::vector<int> parseFrames(const std::string& text);
// N/D, N, or a decimal (1.5 is 3/2), reduced; N and D positive and at most 999999.
std::pair<int, int> parseRatio(const std::string& option, const std::string& text);
int parseInteger(const std::string& option, const std::string& text, int minimum, int maximum);
double parseSeconds(const std::string& option, const std::string& text);

// Whether `path` holds a frame pattern: a run of '#' or a printf %d / %0Nd.
bool hasFramePattern(const std::string& path);
// Each run of '#' becomes the frame number zero-padded to the run's length, each %0Nd / %d the
// number as printf writes it.
std::string expandFramePath(const std::string& path, int frame);

}  // namespace Zt::KelApp
