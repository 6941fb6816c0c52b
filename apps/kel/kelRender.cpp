#include "kelRender.h"

#include <cmath>
#include <filesystem>
#include <future>
#include <iostream>
#include <sstream>

#include "kelCancellation.h"
#include "kelColorParameters.h"
#include "kelFrame.h"
#include "kelImageIO.h"
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

// The parameter list in command-line order, the output last.
void addParameters(PebController& controller, const Invocation& in) {
    if (!controller.setOutputName(in.outputName)) throw UsageError("invalid output name '" + in.outputName + "'");
    for (const ParameterOption& p : in.parameters)
        if (!controller.addDynamicInput(p.name, p.type))
            throw UsageError("parameter '" + p.name + "' is given twice (or names the output)");
}

// An image input: its file and read options, and, for a still, the image read once.
struct ImageParameter {
    std::string name;
    ImageSource source;
    bool sequence = false;
    ReadImage still;
};

// The images of one frame, in parameter order, and what the first of them carries; or why
// they could not be read, kept for the frame's turn since they are read ahead of it.
struct FrameInputs {
    Vector<PxNodePtr<const PxImageProtocol>> images;
    std::optional<ImageFileInfo> first;
    std::exception_ptr failure;
};

void warnIgnoredChannels(const ImageParameter& input, const ReadImage& read, bool quiet) {
    if (quiet || read.ignoredChannels.empty()) return;
    std::string names;
    for (const std::string& n : read.ignoredChannels) names += (names.empty() ? "" : ", ") + n;
    std::cerr << "kel: warning: -i " << input.name << ": channels " << names << " of " << input.source.path
              << " are ignored (choose a layer with :layer=NAME)\n";
}

}  // namespace

bool compile(PebController& controller, const Invocation& in, const Script& script) {
    addParameters(controller, in);
    controller.setScript(script.text);
    return controller.isCompiled();
}

int runRender(PebController& controller, const Invocation& in, const Script& script) {
    std::vector<ImageParameter> images;
    for (const ParameterOption& p : in.parameters) {
        if (p.type != PebInterpreterTypes::Image) continue;
        if (!p.value) throw UsageError("render needs a file for the image input: -i " + p.name + "=FILE");
        images.push_back({p.name, parseImageSource(*p.value, "-i " + p.name), false, {}});
    }
    const bool sequence = !in.frames.empty();
    std::vector<Frame> frames;
    for (int f : in.frames) frames.push_back({double(f), f});
    if (!sequence) frames.push_back({in.time, std::nullopt});
    const auto expand = [](const std::string& path, const Frame& frame) {
        return frame.number ? expandFramePath(path, *frame.number) : path;
    };
    // A frame of a sequence input is read at its frame; a still input once, for every frame.
    for (ImageParameter& image : images) image.sequence = sequence && hasFramePattern(image.source.path);
    const auto sourceAt = [&expand](const ImageParameter& image, const Frame& frame) {
        return ImageSource{expand(image.source.path, frame), image.source.options};
    };
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
    // input (any frame of it) that can't be read, an output setting its format lacks. With
    // --each-frame, a frame whose input can't be read fails alone, when its turn comes.
    for (const Frame& frame : frames) {
        const std::string output = expand(in.outputPath, frame);
        for (const ImageParameter& image : images)
            if (samePath(output, expand(image.source.path, frame)))
                throw UsageError("refusing to render over the input " + expand(image.source.path, frame) + " (-i " + image.name + ")");
        checkWritable(output);
    }
    if (images.empty() && !in.size) throw UsageError("--size WxH is required when there is no image input");
    std::optional<ImageFileInfo> firstInfo;
    for (ImageParameter& image : images) {
        if (image.sequence) {
            for (const Frame& frame : frames) {
                std::optional<ImageFileInfo> info;
                try {
                    info = checkReadable(sourceAt(image, frame));
                } catch (const FileError&) {
                    if (!in.eachFrame) throw;
                }
                if (!firstInfo && info && &image == &images.front()) firstInfo = std::move(info);
            }
        } else {
            image.still = readImage(image.source, PxValidityInterval::getFull());
            warnIgnoredChannels(image, image.still, in.quiet);
            if (&image == &images.front()) firstInfo = image.still.info;
        }
    }
    ImageWriteOptions writeOptions = in.write;
    writeOptions.software = std::string("kel ") + KEL_VERSION;
    resolveOutput(expand(in.outputPath, frames.front()), writeOptions, firstInfo ? &*firstInfo : nullptr);
    // The output's rectangle is the first image input's; --size only stands in for it.
    if (!images.empty() && in.size && !in.quiet)
        std::cerr << "kel: --size is ignored: the image input " << images.front().name << " (" << images.front().source.path
                  << ") gives the output's size\n";

    // With --json the report carries the script's messages: no human text then.
    const bool ok = compile(controller, in, script);
    if (!in.json) printErrors(script, controller, !in.quiet);
    if (!ok) {
        if (in.json) std::cout << "{" << jsonStatus(false, controller.getErrors()) << "}\n";
        return kExitRefused;
    }
    if (const auto used = colorParametersUsed(script, in); !used.empty()) {
        std::cerr << "kel: " << colorParameterMessage(used.front()) << "\n";
        return kExitRefused;
    }

    // A frame's images: stills as read, a sequence's frame read now. Channels of a sequence's
    // later frames are warned about with its first frame only.
    const auto readFrame = [&](const Frame& frame, bool warn) {
        const PxValidityInterval instant(frame.time, 2, frame.time, 2);
        FrameInputs inputs;
        try {
            for (const ImageParameter& image : images) {
                if (!image.sequence) {
                    inputs.images.push_back(image.still.image);
                    if (!inputs.first) inputs.first = image.still.info;
                    continue;
                }
                ReadImage read = readImage(sourceAt(image, frame), instant);
                if (warn) warnIgnoredChannels(image, read, in.quiet);
                inputs.images.push_back(read.image);
                if (!inputs.first) inputs.first = std::move(read.info);
            }
        } catch (...) {
            inputs.failure = std::current_exception();
        }
        return inputs;
    };

    PxRequestMgr& requests = PxRequestMgr::getInstance();
    Watchdog watchdog(in.timeout);
    PxTileRenderer renderer(in.threads);
    RenderProgress progress(frames.size(), sequence, in.quiet);
    std::vector<std::string> reports;
    // Every frame goes to a temporary file; all are renamed into place after the last one, and
    // a failure or cancellation anywhere removes them all (no partial output). With --each-frame
    // each is renamed into place as soon as it is written, and a frame that fails is reported
    // and the next one rendered.
    OutputFiles outputs;
    std::size_t written = 0, failed = 0;
    // While a frame renders, the next one is read and the last one written, each on a thread of
    // its own: two frame buffers take turns. Declared after `outputs`, so that leaving early
    // waits for them before the temporaries are removed.
    RenderedFrame rendered[2];
    std::future<FrameInputs> reading;
    struct PendingWrite {
        std::future<void> done;
        std::size_t index = 0;
        std::string output;
    } writing;
    const auto cancelled = [&] {
        // The reader and the writer finish first, so that the message is the last word and no
        // temporary appears after the cancellation has removed them.
        if (reading.valid()) reading.wait();
        if (writing.done.valid()) writing.done.wait();
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
    // A frame's failure, wherever it happened (reading ahead, rendering, writing behind), names
    // the frame. It ends the render, unless --each-frame reports it and goes on to the next.
    const auto frameFailure = [&](std::size_t index, const std::string& output, std::exception_ptr failure) {
        std::string message;
        try {
            std::rethrow_exception(failure);
        } catch (const ExCancelled&) {
            throw;
        } catch (const FileError& e) {
            if (!sequence) throw;
            message = failedFrame(frames[index], output) + e.what();
            if (!in.eachFrame) throw FileError(message);
        } catch (const ExBase& e) {
            if (!sequence) throw;
            message = failedFrame(frames[index], output) + readableReason(e);
            if (!in.eachFrame) throw ExBase("kel", 0, message);
        }
        progress.clear();
        std::cerr << "kel: " << message << "\n";
        ++failed;
    };
    const auto finishWriting = [&] {
        if (!writing.done.valid()) return;
        try {
            writing.done.get();
        } catch (...) {
            return frameFailure(writing.index, writing.output, std::current_exception());
        }
        ++written;
        progress.frameDone(writing.index, frames[writing.index].number.value_or(0), writing.output);
    };

    FrameInputs current = readFrame(frames.front(), true);
    for (std::size_t f = 0; f < frames.size(); ++f) {
        const Frame& frame = frames[f];
        const std::string output = expand(in.outputPath, frame);
        if (f + 1 < frames.size())
            reading = std::async(std::launch::async, readFrame, frames[f + 1], false);
        Vector<double> values;
        for (const ParameterOption& p : in.parameters)
            if (p.type == PebInterpreterTypes::Float) values.push_back(p.value ? parseFloatValue("-f", *p.value) : 0.0);
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
        // The other buffer is the last frame's, still being written.
        RenderedFrame& out = rendered[f % 2];
        try {
            if (current.failure) std::rethrow_exception(current.failure);
            renderFrame(controller, renderer, current.images, values, request, output, out);
        } catch (const ExCancelled&) {
            return cancelled();
        } catch (...) {
            frameFailure(f, output, std::current_exception());
            finishWriting();  // the next frame renders into the buffer being written
            if (reading.valid()) current = reading.get();
            continue;
        }
        if (requests.isCancelled()) return cancelled();
        if (in.json) reports.push_back(jsonRender(controller.getErrors(), out.image, in.dump));

        finishWriting();
        const ImageFileInfo* first = current.first ? &*current.first : nullptr;
        const OutputFrame target = outputFrame(out.image, out.format, first, in.scaleLevel);
        const OutputSettings settings = resolveOutput(output, writeOptions, first);
        writing.index = f;
        writing.output = output;
        writing.done = std::async(std::launch::async, [&outputs, output, target, settings, commit = in.eachFrame] {
            outputs.write(output, target, settings);
            if (commit) outputs.commit();
        });
        if (reading.valid()) current = reading.get();
    }
    finishWriting();
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
