// The commands of `kel` (render, check, print, params, tools, version) over the invocation that the command
// line gave, and the exit statuses they end with.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "kelImageIO.h"
#include "kelOptions.h"

namespace Zt::KelApp {

// Exit statuses: what a script or a farm job can tell apart without reading the messages.
constexpr int kExitOk = 0;
constexpr int kExitRefused = 1;
constexpr int kExitUsage = 2;
constexpr int kExitCancelled = 3;
constexpr int kExitFramesFailed = 4;  // some frames of a sequence were not written; the others were

// `kel submit`: the render's own arguments, which every farm task repeats, and the farm's settings.
struct FarmOptions {
    std::vector<std::string> renderArguments;  // as given, without --frames (each task has its own)
    int chunk = 0;
    std::string partition;
    std::string job;  // submit status
};

struct Invocation {
    std::string command;
    std::string scriptPath;
    std::string scriptText;
    bool hasScriptText = false;
    std::vector<ParameterOption> parameters;  // the flags, in command-line order
    std::string outputName = "out";
    bool outputNameGiven = false;  // by --out, which overrides the script's @output
    std::string outputPath;
    std::optional<std::pair<int, int>> size;
    double time = 0.0;
    std::vector<int> frames;  // empty: one frame at `time`, without --frames
    unsigned seed = 0;
    bool quiet = false;  // no progress and no warnings
    bool eachFrame = false;     // each frame written when done; a frame that fails does not stop the others
    bool skipExisting = false;  // frames whose output exists are not rendered
    int scaleLevel = 0;
    std::optional<std::pair<int, int>> pixelAspect;
    int threads = 0;
    std::optional<std::pair<int, int>> tile;
    std::optional<double> timeout;
    bool json = false;
    bool dump = false;
    // How the output files are written (-d, --compression, --channels, --out-colorspace,
    // --no-metadata), and the command line for their history.
    ImageWriteOptions write;
    FarmOptions farm;
};

// Runs the command; returns the exit status. Throws UsageError for a usage error.
int runCommand(const Invocation& invocation);

}  // namespace Zt::KelApp
