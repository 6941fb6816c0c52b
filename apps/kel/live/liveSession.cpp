#include "liveSession.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <new>
#include <sstream>

#include "kelCancellation.h"
#include "kelFrame.h"
#include "farm/kelProgram.h"
#include "kelImageIO.h"
#include "kelPlugins.h"
#include "kelRender.h"
#include "kelScript.h"

namespace Zt::KelApp {

namespace {

std::string listSignature(const std::vector<ParameterOption>& list) {
    std::string signature;
    for (const ParameterOption& p : list) signature += std::to_string(int(p.type)) + p.name + ",";
    return signature;
}

}  // namespace

LiveSession::LiveSession(const Invocation& in, const std::string& script)
    : _in(in), _renderer(in.threads), _inputs(in) {
    _controller = &createController(_holder);
    _views.push_back(in.outputName);
    _views.insert(_views.end(), _inputs.names().begin(), _inputs.names().end());
    if (!_inputs.firstSize() && !in.size) throw UsageError("--size WxH is required when there is no image input");
    const auto [width, height] = _inputs.firstSize() ? *_inputs.firstSize() : *in.size;
    const auto pixels = [&](int level) {
        const long long scale = 1LL << level;
        return ((width + scale - 1) / scale) * ((height + scale - 1) / scale);
    };
    _proxyLevel = in.scaleLevel;
    while (pixels(_proxyLevel) > kProxyPixels && _proxyLevel < 16) ++_proxyLevel;
    std::vector<ScriptMessage> messages;
    compile(liveParameters(in, script), script, messages);
}

std::optional<int> LiveSession::frameAt(double time) const {
    if (_in.frames.empty()) return std::nullopt;
    if (!std::isfinite(time)) return _in.frames.front();
    // The slider runs over every time; the picture is that of the nearest frame rendered.
    return *std::min_element(_in.frames.begin(), _in.frames.end(),
                             [time](int a, int b) { return std::abs(a - time) < std::abs(b - time); });
}

bool LiveSession::compile(const LiveParameters& parameters, const std::string& script,
                          std::vector<ScriptMessage>& messages) {
    const std::string signature = listSignature(parameters.list);
    if (!_compiled || _compiled->first != signature || _compiled->second != script) {
        _controller->reset();
        if (!_controller->setOutputName(_in.outputName)) throw UsageError("invalid output name '" + _in.outputName + "'");
        // Only the command line can repeat a name (liveParameters leaves out a declared name that
        // is taken), and then the session's first compile refuses it, before the page is served.
        for (const ParameterOption& p : parameters.list)
            if (!_controller->addDynamicInput(p.name, p.type))
                throw UsageError("parameter '" + p.name + "' is given twice (or names the output)");
        _controller->setScript(script);
        _compiled.emplace(signature, script);
    }
    for (const DeclarationProblem& problem : parameters.declarations.problems)
        messages.push_back({problem.line, 0, problem.message, true});
    if (const DeclaredParameter* clash = parameters.declarations.find(_in.outputName))
        if (clash->kind == DeclaredParameter::Kind::Float)
            messages.push_back({clash->line, 0, "'" + clash->name + "' is the output's name, not a parameter", true});
    const bool ok = _controller->isCompiled();
    for (const PebError& e : _controller->getErrors()) {
        const PebSourcePosition& at = e.getPosition();
        messages.push_back({e.getLine(), at.line == e.getLine() ? at.column : 0, e.getMessage(), ok});
    }
    // In the order of the script's lines, the compiler's own order kept within a line.
    std::stable_sort(messages.begin(), messages.end(), [](const auto& a, const auto& b) { return a.line < b.line; });
    return ok;
}

Preview LiveSession::preview(const PageState& state) {
    const auto start = std::chrono::steady_clock::now();
    Preview result = previewFrom(state);
    result.milliseconds = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    return result;
}

Preview LiveSession::previewFrom(const PageState& state) {
    Preview result;
    const LiveParameters parameters = liveParameters(_in, state.script);
    result.compiled = compile(parameters, state.script, result.messages);
    const bool output = state.view.empty() || state.view == _in.outputName;
    if (output && !result.compiled) {
        result.outcome = Preview::Outcome::Refused;
        return result;
    }
    const std::optional<int> frame = frameAt(state.time);
    const double time = frame ? double(*frame) : state.time;
    result.scaleLevel = state.proxy ? _proxyLevel : _in.scaleLevel;
    PxRequestMgr& requests = PxRequestMgr::getInstance();
    Watchdog watchdog(_in.timeout);
    try {
        if (output) {
            FrameRequest request;
            request.time = time;
            request.scaleLevel = result.scaleLevel;
            request.pixelAspect = _in.pixelAspect;
            request.size = _in.size;
            request.tile = _in.tile;
            result.image = renderFrame(*_controller, _renderer, _inputs.at(frame.value_or(0)),
                                       parameters.values(state.values), request, "the picture")
                               .image;
        } else {
            const PxNodePtr<const PxImageProtocol> input = _inputs.find(state.view, frame.value_or(0));
            if (!input) throw UsageError("there is no view '" + state.view + "'");
            result.image = renderInput(*input, time, result.scaleLevel);
        }
        result.outcome = requests.isCancelled() ? Preview::Outcome::Cancelled : Preview::Outcome::Rendered;
    } catch (const ExCancelled&) {
        result.outcome = Preview::Outcome::Cancelled;
    } catch (const ExBase& e) {
        result.reason = readableReason(e);
    } catch (const std::bad_alloc&) {
        result.reason = "out of memory";
    } catch (const std::runtime_error& e) {  // FileError, UsageError
        result.reason = e.what();
    }
    if (result.outcome == Preview::Outcome::Cancelled) {
        result.image = {};
        if (watchdog.expired())
            result.reason = "after the time limit of " + (std::ostringstream() << *_in.timeout).str() + " s";
    }
    return result;
}

PxRenderedImage LiveSession::renderInput(const PxImageProtocol& input, double time, int scaleLevel) const {
    PxImageContext context;
    context.time = time;
    context.scaleLevel = scaleLevel;
    context.tileWidth = _in.tile ? _in.tile->first : kDefaultTileWidth;
    context.tileHeight = _in.tile ? _in.tile->second : kDefaultTileHeight;
    const float scale = 1.0f / float(1 << scaleLevel);
    const GeRectangle<int> rect =
        PxImageProtocol::nominalToPixelized(input.getROD(context).rect, input.getFormat().aspect(), scale);
    return _renderer.render(input, rect, context);
}

namespace {

// The file's history records the render as the `kel render` command that makes the same file,
// so that a picture saved from the page can be made again on a farm.
std::string renderCommandLine(const Invocation& in) {
    std::string line = "kel render " + shellWord(in.scriptPath);
    for (const ParameterOption& p : in.parameters) {
        const char* flag = p.type == PebInterpreterTypes::Image ? " -i " : p.type == PebInterpreterTypes::Float ? " -f " : " -c ";
        line += flag + shellWord(p.name + (p.value ? "=" + *p.value : ""));
    }
    line += " -o " + shellWord(in.outputPath);
    if (in.time != 0.0) line += " --time " + (std::ostringstream() << in.time).str();
    if (in.seed != 0) line += " --seed " + std::to_string(in.seed);
    return line;
}

}  // namespace

int LiveSession::renderToFile(const PageState& state, const std::string& path) {
    Invocation in = _in;
    in.command = "render";
    const std::optional<int> frame = frameAt(state.time);
    const LiveParameters parameters = liveParameters(_in, state.script);
    in.parameters = _inputs.pathsAt(parameters.withValues(state.values), frame.value_or(0));
    in.outputPath = path;
    in.frames.clear();
    in.time = frame ? double(*frame) : state.time;
    in.json = in.dump = false;
    in.write.history = renderCommandLine(in);
    // runRender gives the controller its own parameter list; the next preview compiles again.
    _controller->reset();
    _compiled.reset();
    return runRender(*_controller, in, Script{_in.scriptPath, state.script});
}

}  // namespace Zt::KelApp
