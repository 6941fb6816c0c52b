// What a live session renders, and how: the controller, the inputs and the tile renderer, all
// used on the render thread only (RenderThread). A preview compiles the script when it or its
// parameter list changed since the last one and renders the chosen view (the output, or one of
// the image inputs) at full resolution or at a proxy scale, through renderFrame, the path of
// `kel render`: the output at full resolution is the same pixels as `kel render` writes. A render
// to a file runs `kel render` itself (runRender) on the page's state.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "PebController.h"
#include "PxTileRenderer.h"
#include "kelCommands.h"
#include "liveInputs.h"
#include "liveParameters.h"

namespace Zt::KelApp {

// What the page shows: a script, its float values by name, the time and the view.
struct PageState {
    std::string script;
    std::map<std::string, double> values;
    double time = 0.0;
    bool proxy = false;
    std::string view;  // the output's name or an image input's; empty: the output
};

// A message of the compiler, or about a `// @param` line, at a line of the script (0: none).
struct ScriptMessage {
    int line = 0;
    int column = 0;  // of the token the message is about; 0 when unknown
    std::string message;
    bool warning = false;  // it did not stop the script from compiling
};

struct Preview {
    enum class Outcome { Rendered, Refused, Cancelled, Failed };
    Outcome outcome = Outcome::Failed;
    std::string reason;  // why it was cancelled or failed
    bool compiled = false;
    std::vector<ScriptMessage> messages;
    int scaleLevel = 0;
    PxRenderedImage image;  // when rendered
    double milliseconds = 0.0;  // compiling and rendering, on the render thread
};

class LiveSession {
public:
    // Render thread. Loads the plug-ins, reads the inputs and compiles `script` once, so that a
    // bad command line is refused before the page is served: UsageError, FileError.
    LiveSession(const Invocation& in, const std::string& script);

    // Any thread: these never change.
    const Invocation& invocation() const { return _in; }
    // The output's name, then each image input's.
    const std::vector<std::string>& views() const { return _views; }
    // The scale level of a proxy: a level above the full one, with at most kProxyPixels pixels.
    int proxyLevel() const { return _proxyLevel; }
    static constexpr long long kProxyPixels = 512 * 512;
    // The frame shown at `time`: with --frames, the nearest frame of the range; else none.
    std::optional<int> frameAt(double time) const;

    // Render thread.
    Preview preview(const PageState& state);
    // Renders the output to `path` as `kel render` does; returns its exit status (kExitOk,
    // kExitRefused, kExitCancelled); UsageError and FileError for what it refuses.
    int renderToFile(const PageState& state, const std::string& path);

private:
    Preview previewFrom(const PageState& state);
    bool compile(const LiveParameters& parameters, const std::string& script, std::vector<ScriptMessage>& messages);
    PxRenderedImage renderInput(const PxImageProtocol& input, double time, int scaleLevel) const;

    Invocation _in;
    std::unique_ptr<PiNodeController> _holder;
    PebController* _controller = nullptr;
    PxTileRenderer _renderer;
    LiveInputs _inputs;
    std::vector<std::string> _views;
    int _proxyLevel = 0;
    // What the controller compiled last: the parameter list's names and types, and the script.
    std::optional<std::pair<std::string, std::string>> _compiled;
};

}  // namespace Zt::KelApp
