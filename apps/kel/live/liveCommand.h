// `kel live`: serves the page on which an artist edits a script and watches its picture change
// as they type (docs/live.md). It takes the parameters and render options of `kel render`, binds
// 127.0.0.1 only, prints the page's address and opens it in the user's browser when there is a
// display; an interrupt (or SIGTERM, SIGHUP) stops it cleanly.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

#include "kelCommands.h"

namespace Zt::KelApp {

// The option texts of `kel live`, parsed by runLive.
struct LiveOptions {
    std::string port, size, time, frames, scaleLevel, pixelAspect, threads, tile, timeout;
    bool noBrowser = false;
};

// Adds `kel live`'s own options (the script and the parameters are the caller's).
void addLiveOptions(CLI::App& command, LiveOptions& options);

// Parses the options into `in` and serves until interrupted; returns the exit status. Throws
// UsageError for a bad option.
int runLive(Invocation in, const LiveOptions& options);

}  // namespace Zt::KelApp
