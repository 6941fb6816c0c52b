// The commands of `kel` (cli.md). The plug-in packages are loaded and initialised first; the
// tool "KEL" gives the controller that compiles on this, the application thread; tiles are
// rendered by the host's PxTileRenderer on worker threads.
#include "kelCommands.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <mutex>
#include <sstream>
#include <thread>

#include "InBuildInfo.h"
#include "PebController.h"
#include "PiPluginLoader.h"
#include "kelImageFiles.h"
#include "kelJson.h"

namespace Zt::KelApp {

namespace fs = std::filesystem;

namespace {

// Wide rows amortise the tree walk (one walk per row of a tile); 16 rows keep enough tiles
// for every core on HD frames. docs/performance.md ("Tile size") compared sizes from 2048x1 to
// 128x128 and found no ordering that held above the shared machine's noise, so this stayed.
constexpr int kDefaultTileWidth = 1024;
constexpr int kDefaultTileHeight = 16;

// A render that ends by PxRequestMgr::cancel(): the time limit, or SIGINT.
volatile std::sig_atomic_t gInterrupted = 0;
extern "C" void onInterrupt(int) {
    gInterrupted = 1;
    PxRequestMgr::getInstance().cancel();
}

void loadPlugins() {
    PiPluginLoader loader;
    const std::string fallback = PiPluginLoader::executableDirectory() + "/" KEL_DEFAULT_PLUGIN_DIR;
    try {
        for (const std::string& directory : PiPluginLoader::directories(std::getenv("KEL_PLUGIN_PATH"), fallback))
            loader.loadDirectory(directory);
        loader.initializePackages();
    } catch (const ExBase& e) {
        throw UsageError(e.getReason());
    }
}

PebController& createController(std::unique_ptr<PiNodeController>& holder) {
    loadPlugins();
    PiToolProtocol* tool = PiToolRegistry::getInstance().find("KEL");
    if (!tool) throw UsageError("the tool KEL is not registered: no plug-in package offers it (KEL_PLUGIN_PATH)");
    holder = tool->createController();
    auto* controller = dynamic_cast<PebController*>(holder.get());
    if (!controller) throw UsageError("the tool KEL has no expression controller");
    controller->nodeCreated();
    return *controller;
}

struct Script {
    std::string name;  // the path, or <script> for -e
    std::string text;
};

Script readScript(const Invocation& in) {
    if (in.hasScriptText && !in.scriptPath.empty()) throw UsageError("give either SCRIPT or -e TEXT, not both");
    if (in.hasScriptText) return {"<script>", in.scriptText};
    if (in.scriptPath.empty()) throw UsageError("no script: give SCRIPT or -e TEXT");
    std::error_code error;
    if (fs::is_directory(in.scriptPath, error)) throw FileError("cannot read " + in.scriptPath + ": it is a directory");
    std::ifstream file(in.scriptPath, std::ios::binary);
    if (!file) throw FileError("cannot read " + in.scriptPath);
    std::string text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    if (file.bad()) throw FileError("cannot read " + in.scriptPath);
    return {in.scriptPath, text};
}

// An ExBase's reason on one line (the host's messages already name types readably, ZtCore.cpp).
std::string readableReason(const ExBase& e) {
    std::string text = e.getReason();
    std::replace(text.begin(), text.end(), '\n', ' ');
    std::replace(text.begin(), text.end(), '\r', ' ');
    return text.empty() ? "unknown failure" : text;
}

// SCRIPT:LINE: MESSAGE (or SCRIPT: MESSAGE for line 0), then the script's line if there is one.
void printErrors(const Script& script, const Vector<PebError>& errors) {
    std::vector<std::string> lines;
    std::istringstream text(script.text);
    for (std::string line; std::getline(text, line);) lines.push_back(line);
    for (const PebError& e : errors) {
        if (e.getLine() <= 0) {
            std::cerr << script.name << ": " << e.getMessage() << "\n";
            continue;
        }
        std::cerr << script.name << ":" << e.getLine() << ": " << e.getMessage() << "\n";
        if (std::size_t(e.getLine()) <= lines.size()) {
            std::string line = lines[std::size_t(e.getLine()) - 1];
            if (!line.empty() && line.back() == '\r') line.pop_back();
            std::cerr << line << "\n";
        }
    }
}

// The parameter list in command-line order, the output last (cli.md).
void addParameters(PebController& controller, const Invocation& in) {
    if (!controller.setOutputName(in.outputName)) throw UsageError("invalid output name '" + in.outputName + "'");
    for (const ParameterOption& p : in.parameters)
        if (!controller.addDynamicInput(p.name, p.type))
            throw UsageError("parameter '" + p.name + "' is given twice (or names the output)");
}

bool compile(PebController& controller, const Invocation& in, const Script& script) {
    addParameters(controller, in);
    controller.setScript(script.text);
    return controller.isCompiled();
}

// Cancels the render after `seconds` unless stopped first.
class Watchdog {
public:
    explicit Watchdog(std::optional<double> seconds) {
        if (!seconds) return;
        _thread = std::thread([this, limit = std::chrono::duration<double>(*seconds)] {
            std::unique_lock lock(_mutex);
            if (!_changed.wait_for(lock, limit, [this] { return _stopped; })) {
                _expired = true;
                PxRequestMgr::getInstance().cancel();
            }
        });
    }
    ~Watchdog() {
        {
            std::lock_guard lock(_mutex);
            _stopped = true;
        }
        _changed.notify_all();
        if (_thread.joinable()) _thread.join();
    }
    bool expired() {
        std::lock_guard lock(_mutex);
        return _expired;
    }

private:
    std::mutex _mutex;
    std::condition_variable _changed;
    bool _stopped = false;
    bool _expired = false;
    std::thread _thread;
};

// A bar on standard error, for long renders only, and only when it is a terminal (cli.md).
class ProgressBar {
public:
    ProgressBar(std::size_t frames) : _enabled(isatty(STDERR_FILENO)), _frames(frames) {}
    ~ProgressBar() { clear(); }
    void clear() {
        if (_shown) std::fprintf(stderr, "\r%60s\r", "");
        _shown = false;
    }
    void update(std::size_t frame, std::size_t done, std::size_t total) {
        using namespace std::chrono;
        if (!_enabled || total == 0) return;
        if (!_shown && (steady_clock::now() - _start < milliseconds(500) || (total < 64 && _frames < 2))) return;
        _shown = true;
        const double fraction = (double(frame) + double(done) / double(total)) / double(_frames);
        const int filled = int(fraction * 40.0);
        std::fprintf(stderr, "\r[%s%s] %3d%%", std::string(std::size_t(filled), '#').c_str(),
                     std::string(std::size_t(40 - filled), ' ').c_str(), int(fraction * 100.0));
        std::fflush(stderr);
    }

private:
    bool _enabled;
    std::size_t _frames;
    bool _shown = false;
    std::chrono::steady_clock::time_point _start = std::chrono::steady_clock::now();
};

bool samePath(const std::string& a, const std::string& b) {
    std::error_code error;
    if (fs::exists(a, error) && fs::exists(b, error)) return fs::equivalent(a, b, error);
    return fs::weakly_canonical(fs::absolute(a), error) == fs::weakly_canonical(fs::absolute(b), error);
}

struct Frame {
    double time;
    std::optional<int> number;
};

int render(PebController& controller, const Invocation& in, const Script& script) {
    const ParameterOption* firstImage = nullptr;
    for (const ParameterOption& p : in.parameters) {
        if (p.type != PebInterpreterTypes::Image) continue;
        if (!p.value) throw UsageError("render needs a file for the image input: -i " + p.name + "=FILE");
        if (!firstImage) firstImage = &p;
    }
    std::vector<Frame> frames;
    if (in.frames)
        for (int f = in.frames->first; f <= in.frames->second; ++f) frames.push_back({double(f), f});
    else
        frames.push_back({in.time, std::nullopt});
    const auto expand = [](const std::string& path, const Frame& frame) {
        return frame.number ? expandFramePath(path, *frame.number) : path;
    };
    // A frame of a sequence input is read at its frame; a still input once, for every frame.
    const auto isSequence = [&in](const ParameterOption& p) { return in.frames && hasFramePattern(*p.value); };

    // Refused before any work: rendering over an input, an output that can't be written, an
    // input (any frame of it) that can't be read.
    for (const Frame& frame : frames) {
        const std::string output = expand(in.outputPath, frame);
        for (const ParameterOption& p : in.parameters)
            if (p.type == PebInterpreterTypes::Image && samePath(output, expand(*p.value, frame)))
                throw UsageError("refusing to render over the input " + expand(*p.value, frame) + " (-i " + p.name + ")");
        checkWritable(output);
    }
    if (!firstImage && !in.size) throw UsageError("--size WxH is required when there is no image input");
    std::vector<PxNodePtr<const PxImageProtocol>> stills(in.parameters.size());
    for (std::size_t i = 0; i < in.parameters.size(); ++i) {
        const ParameterOption& p = in.parameters[i];
        if (p.type != PebInterpreterTypes::Image) continue;
        if (isSequence(p))
            for (const Frame& frame : frames) checkReadable(expand(*p.value, frame));
        else
            stills[i] = readImage(*p.value, PxValidityInterval::getFull());
    }
    // The output's rectangle is the first image input's (host.md); --size only stands in for it.
    if (firstImage && in.size)
        std::cerr << "kel: --size is ignored: the image input " << firstImage->name << " (" << *firstImage->value
                  << ") gives the output's size\n";

    // With --json the report carries the script's messages: no human text then (cli.md).
    const bool ok = compile(controller, in, script);
    if (!in.json) printErrors(script, controller.getErrors());
    if (!ok) {
        if (in.json) std::cout << "{" << jsonStatus(false, controller.getErrors()) << "}\n";
        return kExitRefused;
    }

    PxRequestMgr& requests = PxRequestMgr::getInstance();
    Watchdog watchdog(in.timeout);
    PxTileRenderer renderer(in.threads);
    ProgressBar bar(frames.size());
    std::vector<std::string> reports;
    // Every frame goes to a temporary file; all are renamed into place after the last one, and
    // a failure or cancellation anywhere removes them all (no partial output, cli.md).
    OutputFiles outputs;
    const auto cancelled = [&] {
        bar.clear();
        std::cerr << "kel: render cancelled"
                  << (watchdog.expired() ? " after the time limit of " + (std::ostringstream() << *in.timeout).str() + " s"
                                         : gInterrupted ? " by an interrupt" : "")
                  << "; nothing written to " << in.outputPath << "\n";
        return kExitCancelled;
    };

    for (std::size_t f = 0; f < frames.size(); ++f) {
        const Frame& frame = frames[f];
        // A still input holds for all time; a frame of a sequence at its own time only (host.md).
        const PxValidityInterval instant(frame.time, 2, frame.time, 2);
        Vector<PxNodePtr<const PxImageProtocol>> inputs;
        Vector<double> values;
        for (std::size_t i = 0; i < in.parameters.size(); ++i) {
            const ParameterOption& p = in.parameters[i];
            if (p.type == PebInterpreterTypes::Float) values.push_back(p.value ? parseFloatValue("-f", *p.value) : 0.0);
            if (p.type != PebInterpreterTypes::Image) continue;
            inputs.push_back(isSequence(p) ? readImage(expand(*p.value, frame), instant) : stills[i]);
        }
        PxNodePtr<const PxImageProtocol> first;
        if (!inputs.empty()) first = inputs.front();
        IxPixelFormat format;
        if (in.pixelAspect) {
            format.aspectNum = in.pixelAspect->first;
            format.aspectDen = in.pixelAspect->second;
        } else if (first) {
            format = first->getFormat();
        }
        PxImageContext context;
        context.time = frame.time;
        context.scaleLevel = in.scaleLevel;
        context.tileWidth = in.tile ? in.tile->first : kDefaultTileWidth;
        context.tileHeight = in.tile ? in.tile->second : kDefaultTileHeight;
        PxRODResult rod;
        rod.validity = PxValidityInterval::getFull();
        if (first)
            rod.rect = first->getROD(context).rect;
        else
            rod.rect = GeRectangle<float>(0.0f, float(in.size->first) * format.aspect(), 0.0f, float(in.size->second));

        // The rendered image and the file's buffer, refused before the size overflows an int.
        const double scale = 1.0 / double(1 << in.scaleLevel);
        checkFitsInMemory("cannot render " + expand(in.outputPath, frame),
                          (long long)std::ceil(double(rod.rect.width()) / format.aspect() * scale),
                          (long long)std::ceil(double(rod.rect.height()) * scale), 2 * sizeof(Color));
        const PxNodePtr<const PxImageProtocol> node = controller.createModifierProcNode(inputs, values, rod, format);
        const GeRectangle<int> rect =
            PxImageProtocol::nominalToPixelized(rod.rect, format.aspect(), 1.0f / float(1 << in.scaleLevel));
        renderer.setProgress([&bar, f](std::size_t done, std::size_t total) { bar.update(f, done, total); });
        PxRenderedImage image;
        try {
            image = renderer.render(*node, rect, context);
        } catch (const ExCancelled&) {
            return cancelled();
        }
        if (requests.isCancelled()) return cancelled();
        outputs.write(expand(in.outputPath, frame), image, format);
        if (in.json) reports.push_back(jsonRender(controller.getErrors(), image, in.dump));
    }
    if (requests.isCancelled()) return cancelled();
    bar.clear();
    outputs.commit();
    if (in.json) {
        if (in.frames) {
            std::cout << "{\"frames\": [";
            for (std::size_t i = 0; i < reports.size(); ++i) std::cout << (i ? ", " : "") << reports[i];
            std::cout << "]}\n";
        } else {
            std::cout << reports.front() << "\n";
        }
    }
    return kExitOk;
}

int runCheck(PebController& controller, const Invocation& in, const Script& script) {
    const bool ok = compile(controller, in, script);
    if (in.json)
        std::cout << "{" << jsonStatus(ok, controller.getErrors()) << "}\n";
    else
        printErrors(script, controller.getErrors());
    return ok ? kExitOk : kExitRefused;
}

// Why a tree that compiled has no printed form: the one case of spec Part 4.1, else the reason.
std::string unprintableReason(const ExBase& e) {
    if (dynamic_cast<const ExNullPtr*>(&e))
        return "a 'for' loop without its first or third clause has no printed form";
    return readableReason(e);
}

// Standard output goes to `buffer` while this lives.
class CaptureStandardOutput {
public:
    explicit CaptureStandardOutput(std::ostream& buffer) : _saved(std::cout.rdbuf(buffer.rdbuf())) {}
    ~CaptureStandardOutput() { std::cout.rdbuf(_saved); }
    CaptureStandardOutput(const CaptureStandardOutput&) = delete;
    CaptureStandardOutput& operator=(const CaptureStandardOutput&) = delete;

private:
    std::streambuf* _saved;
};

int runPrint(PebController& controller, const Invocation& in, const Script& script) {
    const bool ok = compile(controller, in, script);
    printErrors(script, controller.getErrors());
    if (!ok) return kExitRefused;
    // The tree reaches standard output only when all of it printed.
    std::ostringstream tree;
    try {
        const CaptureStandardOutput capture(tree);
        controller.printProgram();
    } catch (const ExBase& e) {
        std::cerr << "kel: the tree cannot be printed: " << unprintableReason(e) << "\n";
        return kExitRefused;
    }
    std::cout << tree.str();
    std::cout.flush();
    return kExitOk;
}

int runTools() {
    loadPlugins();
    for (const auto& tool : PiToolRegistry::getInstance().getTools())
        std::cout << tool->getName() << "\t" << tool->getDisplayName() << "\t" << tool->getDescription() << "\n";
    return kExitOk;
}

int runVersion() {
    loadPlugins();
    for (const auto& info : InBuildInfoUtil::getInfos()) {
        std::cout << info->getVendor() << "\n" << info->getLibraryName() << "\n" << info->getCopyrightYear() << "\n"
                  << info->getVersion() << "\n" << info->getStatus() << "\n" << info->getMajorVersion() << "\n"
                  << info->getMinorVersion() << "\n" << info->getReleaseNumber() << "\n" << info->getBuildNumber()
                  << "\n" << info->getBuildDate() << "\n" << info->getBuildPlatform() << "\n";
    }
    return kExitOk;
}

}  // namespace

int runCommand(const Invocation& in) {
    PiAppThread::setCurrent();
    // From here on an interrupt cancels a render, also one that comes before the render starts
    // (while plug-ins load, the script compiles or inputs are read): it exits 3 (cli.md).
    if (in.command == "render") {
        PxRequestMgr::getInstance().reset();
        std::signal(SIGINT, onInterrupt);
    }
    try {
        if (in.command == "tools") return runTools();
        if (in.command == "version") return runVersion();
        const Script script = readScript(in);
        std::unique_ptr<PiNodeController> holder;
        PebController& controller = createController(holder);
        if (in.command == "check") return runCheck(controller, in, script);
        if (in.command == "print") return runPrint(controller, in, script);
        return render(controller, in, script);
    } catch (const FileError& e) {
        std::cerr << "kel: " << e.what() << "\n";
        return kExitUsage;
    } catch (const std::bad_alloc&) {
        std::cerr << "kel: out of memory\n";
        return kExitUsage;
    } catch (const ExCancelled& e) {
        std::cerr << "kel: render cancelled\n";
        return kExitCancelled;
    } catch (const ExBase& e) {
        // A failure of the script at run time, or of the engine: the script was not rendered.
        std::cerr << "kel: " << readableReason(e) << "\n";
        return kExitRefused;
    }
}

}  // namespace Zt::KelApp
