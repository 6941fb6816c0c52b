#include "kelRender.h"

#include <cmath>
#include <filesystem>
#include <iostream>
#include <sstream>

#include "kelCancellation.h"
#include "kelFrame.h"
#include "kelImageFiles.h"
#include "kelJson.h"
#include "kelProgress.h"

namespace Zt::KelApp {

namespace fs = std::filesystem;

namespace {

bool samePath(const std::string& a, const std::string& b) {
    std::error_code error;
    if (fs::exists(a, error) && fs::exists(b, error)) return fs::equivalent(a, b, error);
    return fs::weakly_canonical(fs::absolute(a), error) == fs::weakly_canonical(fs::absolute(b), error);
}

struct Frame {
    double time;
    std::optional<int> number;
};

// A failure in a sequence names its frame, so that the log of a long render says which one.
std::string failedFrame(const Frame& frame, const std::string& output) {
    return "frame " + std::to_string(frame.number.value_or(0)) + " (" + output + ") failed: ";
}

// With --each-frame a frame that fails is reported, and the next one rendered.
void frameFailed(RenderProgress& progress, const std::string& message, std::size_t& failed) {
    progress.clear();
    std::cerr << "kel: " << message << "\n";
    ++failed;
}

// The parameter list in command-line order, the output last.
void addParameters(PebController& controller, const Invocation& in) {
    if (!controller.setOutputName(in.outputName)) throw UsageError("invalid output name '" + in.outputName + "'");
    for (const ParameterOption& p : in.parameters)
        if (!controller.addDynamicInput(p.name, p.type))
            throw UsageError("parameter '" + p.name + "' is given twice (or names the output)");
}

}  // namespace

bool compile(PebController& controller, const Invocation& in, const Script& script) {
    addParameters(controller, in);
    controller.setScript(script.text);
    return controller.isCompiled();
}

int runRender(PebController& controller, const Invocation& in, const Script& script) {
    const ParameterOption* firstImage = nullptr;
    for (const ParameterOption& p : in.parameters) {
        if (p.type != PebInterpreterTypes::Image) continue;
        if (!p.value) throw UsageError("render needs a file for the image input: -i " + p.name + "=FILE");
        if (!firstImage) firstImage = &p;
    }
    const bool sequence = !in.frames.empty();
    std::vector<Frame> frames;
    for (int f : in.frames) frames.push_back({double(f), f});
    if (!sequence) frames.push_back({in.time, std::nullopt});
    const auto expand = [](const std::string& path, const Frame& frame) {
        return frame.number ? expandFramePath(path, *frame.number) : path;
    };
    // A frame of a sequence input is read at its frame; a still input once, for every frame.
    const auto isSequence = [sequence](const ParameterOption& p) { return sequence && hasFramePattern(*p.value); };
    // A frame whose file exists is complete (frames are renamed into place whole): a task run
    // again does only what is missing.
    if (in.skipExisting)
        std::erase_if(frames, [&](const Frame& frame) {
            const std::string output = expand(in.outputPath, frame);
            if (!fs::exists(output)) return false;
            if (!in.quiet) std::cerr << "kel: frame " << frame.number.value_or(0) << " skipped: " << output << " exists\n";
            return true;
        });
    if (frames.empty()) return kExitOk;

    // Refused before any work: rendering over an input, an output that can't be written, an
    // input (any frame of it) that can't be read; with --each-frame, a frame whose input can't
    // be read fails alone, when its turn comes.
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
        if (isSequence(p)) {
            if (!in.eachFrame)
                for (const Frame& frame : frames) checkReadable(expand(*p.value, frame));
        } else {
            stills[i] = readImage(*p.value, PxValidityInterval::getFull());
        }
    }
    // The output's rectangle is the first image input's; --size only stands in for it.
    if (firstImage && in.size && !in.quiet)
        std::cerr << "kel: --size is ignored: the image input " << firstImage->name << " (" << *firstImage->value
                  << ") gives the output's size\n";

    // With --json the report carries the script's messages: no human text then.
    const bool ok = compile(controller, in, script);
    if (!in.json) printErrors(script, controller, !in.quiet);
    if (!ok) {
        if (in.json) std::cout << "{" << jsonStatus(false, controller.getErrors()) << "}\n";
        return kExitRefused;
    }

    PxRequestMgr& requests = PxRequestMgr::getInstance();
    Watchdog watchdog(in.timeout);
    PxTileRenderer renderer(in.threads);
    RenderProgress progress(frames.size(), sequence, in.quiet);
    std::vector<std::string> reports;
    // Every frame goes to a temporary file; all are renamed into place after the last one, and
    // a failure or cancellation anywhere removes them all (no partial output). With --each-frame
    // each is renamed into place as soon as it is written.
    OutputFiles outputs;
    std::size_t written = 0, failed = 0;
    const auto cancelled = [&] {
        progress.clear();
        std::cerr << "kel: render cancelled"
                  << (watchdog.expired() ? " after the time limit of " + (std::ostringstream() << *in.timeout).str() + " s"
                                         : cancellingSignal() ? std::string(" by ") + cancellingSignal() : "");
        if (in.eachFrame)
            std::cerr << "; " << written << " of " << frames.size() << " frames written before it\n";
        else
            std::cerr << "; nothing written to " << in.outputPath << "\n";
        return kExitCancelled;
    };

    for (std::size_t f = 0; f < frames.size(); ++f) {
        const Frame& frame = frames[f];
        // A still input holds for all time; a frame of a sequence at its own time only.
        const PxValidityInterval instant(frame.time, 2, frame.time, 2);
        FrameRequest request;
        request.time = frame.time;
        request.scaleLevel = in.scaleLevel;
        request.pixelAspect = in.pixelAspect;
        request.size = in.size;
        request.tile = in.tile;
        request.seed = in.seed;
        request.progress = [&progress, f](std::size_t done, std::size_t total, std::size_t pixels) {
            progress.update(f, done, total, pixels);
        };
        const std::string output = expand(in.outputPath, frame);
        RenderedFrame rendered;
        try {
            Vector<PxNodePtr<const PxImageProtocol>> inputs;
            Vector<double> values;
            for (std::size_t i = 0; i < in.parameters.size(); ++i) {
                const ParameterOption& p = in.parameters[i];
                if (p.type == PebInterpreterTypes::Float) values.push_back(p.value ? parseFloatValue("-f", *p.value) : 0.0);
                if (p.type != PebInterpreterTypes::Image) continue;
                inputs.push_back(isSequence(p) ? readImage(expand(*p.value, frame), instant) : stills[i]);
            }
            rendered = renderFrame(controller, renderer, inputs, values, request, output);
            if (requests.isCancelled()) return cancelled();
            outputs.write(output, rendered.image, rendered.format);
            if (in.eachFrame) outputs.commit();
        } catch (const ExCancelled&) {
            return cancelled();
        } catch (const FileError& e) {
            if (!sequence) throw;
            if (!in.eachFrame) throw FileError(failedFrame(frame, output) + e.what());
            frameFailed(progress, failedFrame(frame, output) + e.what(), failed);
            continue;
        } catch (const ExBase& e) {
            if (!sequence) throw;
            if (!in.eachFrame) throw ExBase("kel", 0, failedFrame(frame, output) + readableReason(e));
            frameFailed(progress, failedFrame(frame, output) + readableReason(e), failed);
            continue;
        }
        ++written;
        progress.frameDone(f, frame.number.value_or(0), output);
        if (in.json) reports.push_back(jsonRender(controller.getErrors(), rendered.image, in.dump));
    }
    if (requests.isCancelled()) return cancelled();
    progress.clear();
    outputs.commit();
    if (in.json) {
        if (sequence) {
            std::cout << "{\"frames\": [";
            for (std::size_t i = 0; i < reports.size(); ++i) std::cout << (i ? ", " : "") << reports[i];
            std::cout << "]}\n";
        } else {
            std::cout << reports.front() << "\n";
        }
    }
    return failed > 0 ? kExitFramesFailed : kExitOk;
}

}  // namespace Zt::KelApp
