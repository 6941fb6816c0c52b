// The `kel` command: compiles a KEL script against a parameter list through the tool
// "KEL" that the plug-in package registered, and renders it over image files. This file holds
// the command line only: what each option means and how it reaches the Invocation that
// kelCommands.cpp and kelRender.cpp carry out (imageio/ reads and writes the image files).
#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>
#include <map>

#include "farm/kelProgram.h"
#include "kelCommands.h"
#include "kelFileSupport.h"
#include "liveCommand.h"

using namespace Zt::KelApp;

namespace {

// The script and the node's parameter list, shared by render, check, print and params.
void addScriptOption(CLI::App& command, Invocation& in) {
    command.add_option("SCRIPT", in.scriptPath, "the script file, read as bytes; - reads it from standard input")
        ->type_name("FILE")->group("Script");
    command.add_option("-e", in.scriptText, "the script text itself, instead of SCRIPT (named <script> in messages)")
        ->type_name("TEXT")->group("Script");
}

void addParameterOptions(CLI::App& command, Invocation& in, bool render) {
    const std::string image = render ? "an image input; FILE is required here (any format OpenImageIO reads), "
                                       "optionally followed by :layer=NAME, :subimage=N and :colorspace=NAME"
                                     : "an image input; FILE is not needed here";
    const std::string number = render ? "a float input; without VALUE, render takes the script's declared default, else 0 with a warning"
                                       : "a float input; VALUE is not needed here";
    const struct {
        const char* name;
        const char* type;
        std::string description;
    } parameters[] = {{"-i", "NAME[=FILE]", image},
                      {"-f", "NAME[=VALUE]", number},
                      {"-c", "NAME[=R,G,B,A]", "a colour input (accepted; the engine gives it no value, so a script may declare it but not use it)"}};
    for (const auto& p : parameters)
        command.add_option(p.name, [](const CLI::results_t&) { return true; })
            ->type_size(1)->expected(1)->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
            ->type_name(p.type)->description(p.description)->group("Parameters, in command-line order");
    command.add_option("--out", in.outputName,
                       "the name of the output, a varying colour output, last in the list; default: the script's "
                       "@output, else out")
        ->type_name("NAME")->group("Parameters, in command-line order");
}

const char* const kParametersFooter =
    "The parameter list is the -i, -f and -c options in the order given, then the parameters that\n"
    "the script declares (// @input NAME, // @param NAME DEFAULT [MIN, MAX] \"Label\") and no option\n"
    "names, then the output; a flag overrides a declaration. Errors are printed to standard error\n"
    "as SCRIPT:LINE:COLUMN: error: MESSAGE (warning: for a script that compiled), then the line with\n"
    "a caret under the token, and a note: line where a hint helps.";

// -i, -f and -c in command-line order, which is the parameter list's order: the script's
// image inputs bind to the node's inputs by rank.
void collectParameters(CLI::App& command, Invocation& in) {
    std::map<const CLI::Option*, std::size_t> taken;
    for (const CLI::Option* option : command.parse_order()) {
        const std::string name = option->get_name();
        Zt::PebInterpreterTypes::Type type;
        if (name == "-i") type = Zt::PebInterpreterTypes::Image;
        else if (name == "-f") type = Zt::PebInterpreterTypes::Float;
        else if (name == "-c") type = Zt::PebInterpreterTypes::Color;
        else continue;
        const std::size_t index = taken[option]++;
        in.parameters.push_back(parseParameter(type, option->results().at(index)));
    }
}

const char* const kUsage =
    "usage: kel COMMAND ...\n"
    "  render   compile a script and render it over image files\n"
    "  check    compile only, and report\n"
    "  print    print the compiled script's syntax tree\n"
    "  params   list the parameters that a script declares, as JSON\n"
    "  submit   render a sequence on a Slurm cluster, and report its frames\n"
    "  tools    list the registered tools\n"
    "  version  print the versions\n"
    "  help     print the help of kel or of a command\n"
    "Run kel --help for more, kel help COMMAND for one command.\n";

CLI::App* findCommand(CLI::App& app, const std::string& name) {
    for (CLI::App* command : app.get_subcommands([](CLI::App*) { return true; }))
        if (command->get_name() == name) return command;
    return nullptr;
}

}  // namespace

int main(int argc, char** argv) {
    keepMessagesAudible();
    CLI::App app{"kel: compile KEL effect scripts against a parameter list, and render them over image files", "kel"};
    app.require_subcommand(1);
    app.set_version_flag("--version", std::string("kel ") + KEL_VERSION, "print kel's version and exit");
    Invocation in;
    std::string size, frames, pixelAspect, threads, tile, timeout, scaleLevel, time, seed, helpTopic;

    CLI::App* render = app.add_subcommand(
        "render", "kel render (SCRIPT | -e TEXT) [PARAMETERS] -o OUTPUT [OPTIONS]\n"
                  "Compile the script and write the output image (or a sequence with --frames).");
    addScriptOption(*render, in);
    addParameterOptions(*render, in, true);
    const char* const options = "Render options";
    render->add_option("-o", in.outputPath,
                       "the output file; the format follows the extension (see the output file options)")
        ->type_name("FILE")->required()->group(options);
    render->add_option("--size", size,
                       "the output's full-resolution size in pixels; required when there is no image input; with "
                       "one, the first image input gives the size and --size is ignored with a warning")
        ->type_name("WxH")->group(options);
    render->add_option("--time", time,
                       "the context's time, the value of t; default 0; from -31536000 to 31536000; not with --frames")
        ->type_name("T")->group(options);
    render->add_option("--frames", frames,
                       "the frames to render, the time being the frame number: A-B, A-BxS (every S-th), or a "
                       "comma-separated list of them (1,5,9 or 1-10x2,20); # (one per digit) or %0Nd in -i and -o "
                       "paths stand for the frame number (-o needs one for more than one frame, and has none "
                       "without --frames); all frames are written, or none")
        ->type_name("LIST")->group(options);
    render->add_option("--scale-level", scaleLevel, "render at a scale of 1/2^N (a proxy); default 0")
        ->type_name("N")->group(options);
    render->add_option("--pixel-aspect", pixelAspect,
                       "the pixel aspect of the output format, a ratio N/D or a decimal (3/2 or 1.5); default: the "
                       "first image input's (each input keeps its own), else 1")
        ->type_name("N/D")->group(options);
    render->add_option("--seed", seed, "the seed of rand(): the same seed gives the same values; default 0")
        ->type_name("N")->group(options);
    render->add_option("--threads", threads, "worker threads; default: all cores")->type_name("N")->group(options);
    render->add_option("--tile", tile, "the tile size in pixels; default 1024x16")->type_name("WxH")->group(options);
    render->add_option("--timeout", timeout, "cancel the render after that long (exit status 3, nothing written)")
        ->type_name("SECONDS")->group(options);
    render->add_flag("--quiet", in.quiet, "no progress and no warnings; errors are still printed")->group(options);
    render->add_flag("--each-frame", in.eachFrame,
                     "write each frame of --frames as soon as it is rendered (whole, or not at all), and go on past "
                     "a frame that fails: one line names it and why, and the exit status is 4; for farm tasks")
        ->group(options);
    render->add_flag("--skip-existing", in.skipExisting,
                     "skip the frames whose output file exists, so that a task run again renders only what is missing")
        ->group(options);
    render->add_flag("--json", in.json,
                     "print a JSON report on standard output instead of human text: ok, errors, width, height, "
                     "validity (frames: a list of such reports); usage and file errors and cancellations still "
                     "print their line on standard error")
        ->group(options);
    render->add_flag("--dump", in.dump, "with --json: include every output pixel, rows from the bottom up, as [r, g, b, a]")
        ->group(options);
    // Output files (docs/files.md).
    std::string depth, channels, compression, outColorspace;
    bool noMetadata = false;
    const char* const files = "Output file options";
    render->add_option("-d", depth,
                       "the output's sample depth: half, float, uint8, uint16 or uint10, what its format stores; "
                       "default: the first image input's where the format has it, else the format's own (EXR float)")
        ->type_name("DEPTH")->group(files);
    render->add_option("--compression", compression,
                       "the output's compression (zip, piz, dwaa:45, none...); default: the first image input's when "
                       "the formats match, else the format's own (EXR zip)")
        ->type_name("NAME")->group(files);
    render->add_option("--channels", channels, "RGB or RGBA; default: the first image input's (RGBA without one)")
        ->type_name("RGB|RGBA")->group(files);
    render->add_option("--out-colorspace", outColorspace,
                       "the output's colour space; default: sRGB for integer depths, else linear (the working space)")
        ->type_name("NAME")->group(files);
    render->add_flag("--no-metadata", noMetadata, "don't carry the first image input's metadata to the output")
        ->group(files);

    render->footer(std::string(kParametersFooter) +
                   "\n\nNothing is written to the output unless the render succeeds; a failed or cancelled render\n"
                   "leaves an earlier file untouched (with --each-frame: the frames finished before it are\n"
                   "kept), and rendering over an input is refused. On a terminal a\n"
                   "long render shows a progress bar; otherwise a --frames render prints one line per frame\n"
                   "(its number, time and output), and a single frame nothing unless it fails.\n\n"
                   "Exit status: 0 written, 1 script refused, 2 usage or file error, 3 cancelled, 4 some frames\n"
                   "failed (--each-frame; the others are written).\n\n"
                   "Example: kel render grade.kel -i src=plate.exr -f gain=1.5 -o graded.exr");

    CLI::App* check = app.add_subcommand("check", "kel check (SCRIPT | -e TEXT) [PARAMETERS] [--json]\n"
                                                  "Compile only, and report the errors.");
    addScriptOption(*check, in);
    addParameterOptions(*check, in, false);
    check->add_flag("--json", in.json,
                    "print a JSON report on standard output instead of the messages on standard error: {\"ok\": true|false, \"errors\": [{\"line\": N, \"message\": TEXT}]}")
        ->group("Report");
    check->footer(std::string(kParametersFooter) +
                  "\n\nExit status 0 when the script compiles (errors listed then are warnings), 1 when it is\n"
                  "refused, 2 for a usage error, an unreadable script or a declaration that does not read.");

    CLI::App* print = app.add_subcommand("print", "kel print (SCRIPT | -e TEXT) [PARAMETERS]\n"
                                                  "Compile and, on success, write the script's syntax tree to standard output.");
    addScriptOption(*print, in);
    addParameterOptions(*print, in, false);
    print->footer(std::string(kParametersFooter) +
                  "\n\nThe tree is written only when all of it prints: a 'for' without its first or third\n"
                  "clause has no printed form (exit status 1, nothing on standard output).\n\n"
                  "Exit status 0 printed, 1 refused or not printable, 2 for a usage error or an unreadable script.");

    // kel submit: the render's command line on a farm, a chunk of frames per task.
    std::string chunk;
    CLI::App* submit = app.add_subcommand("submit", "kel submit (slurm | status) ...\n"
                                                    "Render a sequence on a Slurm cluster, and follow it.");
    submit->require_subcommand(1);
    CLI::App* submitSlurm = submit->add_subcommand(
        "slurm", "kel submit slurm (SCRIPT | -e TEXT) [PARAMETERS] -o OUT.####.exr --frames LIST --chunk N "
                 "[--partition P] [RENDER OPTIONS]\n"
                 "Submit the sequence as one Slurm job array, a task per chunk of N frames, and print the job id.");
    submitSlurm->allow_extras();
    submitSlurm->add_option("--frames", frames, "the frames of the sequence, as kel render takes them; a chunk is N "
                                                "consecutive frames of this list")
        ->type_name("LIST")->required();
    submitSlurm->add_option("--chunk", chunk, "frames per task")->type_name("N")->required();
    submitSlurm->add_option("--partition", in.farm.partition, "the Slurm partition; default: the cluster's")
        ->type_name("P");
    submitSlurm->footer(
        "Every other argument is kel render's, and is checked as kel render checks it: each task runs\n"
        "kel render with them, --frames of its chunk, --each-frame and --skip-existing, in this\n"
        "directory, so paths must be reachable from the cluster's nodes. --threads N asks Slurm for N\n"
        "CPUs a task; without it a task uses the CPUs Slurm gives it. Chunks whose frames all exist\n"
        "are not submitted, so the same command again submits only what is missing. Other sbatch\n"
        "settings come from its environment variables (SBATCH_ACCOUNT, SBATCH_TIMELIMIT, SBATCH_OUTPUT...).\n\n"
        "Exit status: 0 submitted (or nothing missing), 1 script refused, 2 usage or file error, or\n"
        "sbatch refused the job.");
    CLI::App* submitStatus = submit->add_subcommand(
        "status", "kel submit status JOB\n"
                  "Report the frames of a job of kel submit slurm: done (written), failed (missing, and its task\n"
                  "has ended), pending (its task is queued or running); then a line for each chunk with frames\n"
                  "failed or pending: the frames and the state of its task.");
    submitStatus->add_option("JOB", in.farm.job, "the job id that kel submit slurm printed")->required();
    submitStatus->footer("Exit status: 0 no frame failed, 4 some frames failed, 2 a job that Slurm does not know.");

    // kel live (apps/kel/live/): the script in the browser, beside the picture it renders.
    LiveOptions liveOptions;
    CLI::App* live = app.add_subcommand("live", "kel live SCRIPT [PARAMETERS] [--port N] [--no-browser] [OPTIONS]\n"
                                                "Serve a page that edits the script and shows its picture as you type.");
    addScriptOption(*live, in);
    live->remove_option(live->get_option("-e"));  // the page saves to SCRIPT: there must be one
    addParameterOptions(*live, in, true);
    addLiveOptions(*live, liveOptions);
    live->footer("The parameter list is the -i, -f and -c options in the order given, then the float\n"
                 "parameters the script declares (// @param NAME DEFAULT [MIN, MAX] \"Label\"), then the output.\n\n"
                 "The page is served on 127.0.0.1 only. It writes the script when you save and an image\n"
                 "when you render to a file (inside the script's folder), nothing else. Ctrl-C stops it.\n\n"
                 "Example: kel live grade.kel -i src=plate.exr -f gain=1.5");

    CLI::App* params = app.add_subcommand("params", "kel params (SCRIPT | -e TEXT)\n"
                                                    "Print the parameters that the script declares, as JSON.");
    addScriptOption(*params, in);
    params->footer("Prints {\"parameters\": [...], \"problems\": [...]}: each parameter with its name, kind (image,\n"
                   "float or output), label, default, range ([MIN, MAX]) and line, null for what its\n"
                   "declaration leaves out; each problem with its line, column and message.\n\n"
                   "Exit status 0, or 2 when a declaration does not read (also printed on standard error).");

    app.add_subcommand("tools", "kel tools\nList the tools that the loaded packages registered: name, display name and "
                                "description, one tool a line, tab-separated.");
    app.add_subcommand("version", "kel version\nPrint kel's version, then the build record of each plug-in package, "
                                  "one labelled field a line.");
    CLI::App* help = app.add_subcommand("help", "kel help [COMMAND]\nPrint the help of kel, or of one command.");
    help->add_option("COMMAND", helpTopic, "the command whose help to print");

    app.footer("Run kel COMMAND --help (or kel help COMMAND) for the options of a command.\n\n"
               "Exit status:\n"
               "  0  success (check: also when the errors listed are only warnings)\n"
               "  1  the script was refused: it does not compile\n"
               "  2  a usage error, or a file that can't be read or written\n"
               "  3  the render was cancelled (--timeout, or an interrupt)\n"
               "  4  render --each-frame: some frames failed, the others were written\n\n"
               "Plug-ins are loaded from the directories of KEL_PLUGIN_PATH (colon-separated), by default\n"
               "from ../plugins beside the kel executable (its real path, symbolic links followed).\n"
               "The language: docs/language.md.");

    if (argc < 2) {
        std::cerr << kUsage;
        return kExitUsage;
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForVersion& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        const std::string first = argv[1];
        if (!first.starts_with("-") && !findCommand(app, first))
            std::cerr << "kel: unknown command '" << first << "'; run kel help for the commands\n";
        else
            std::cerr << "kel: " << e.what() << "\n";
        return kExitUsage;
    }

    try {
        CLI::App* command = app.get_subcommands().front();
        in.command = command->get_name();
        if (command == live) {
            collectParameters(*live, in);
            return runLive(in, liveOptions);
        }
        if (command == help) {
            // App::help() would print the help of the command selected, which is `help` itself.
            CLI::App* topic = helpTopic.empty() ? &app : findCommand(app, helpTopic);
            if (!topic) throw UsageError("no command '" + helpTopic + "'; run kel help for the commands");
            std::cout << app.get_formatter()->make_help(topic, topic == &app ? "kel" : "kel " + topic->get_name(), CLI::AppFormatMode::Normal);
            return kExitOk;
        }
        if (command == submit) {
            in.command += " " + submit->get_subcommands().front()->get_name();
            if (submitSlurm->parsed()) {
                in.farm.chunk = parseInteger("--chunk", chunk, 1, 1000000000);
                in.farm.renderArguments = submitSlurm->remaining();
                // The farm's tasks run kel render with these arguments: checked here by its own
                // parser, so that a mistake stops the submission rather than every task.
                std::vector<std::string> renderLine{"render"};
                renderLine.insert(renderLine.end(), in.farm.renderArguments.begin(), in.farm.renderArguments.end());
                renderLine.insert(renderLine.end(), {"--frames", frames});
                std::reverse(renderLine.begin(), renderLine.end());
                const std::string farmCommand = in.command;
                app.parse(renderLine);
                command = render;
                in.command = farmCommand;
            }
        }
        if (command == render || command == check || command == print) {
            collectParameters(*command, in);
            in.outputNameGiven = command->count("--out") > 0;
        }
        if (command == render || command == check || command == print || command == params)
            in.hasScriptText = command->count("-e") > 0;
        if (command == render) {
            if (!size.empty()) in.size = parseSize("--size", size);
            if (render->count("--time") > 0 && render->count("--frames") > 0)
                throw UsageError("--time and --frames exclude each other: with --frames the time is the frame number");
            if (render->count("--time") > 0) in.time = parseTime("--time", time);
            if (!frames.empty()) in.frames = parseFrames(frames);
            // Every frame of a sequence written to one path would leave the last frame only.
            if (in.frames.size() > 1 && !hasFramePattern(in.outputPath))
                throw UsageError("--frames " + frames + " renders several frames, but -o " + in.outputPath +
                                 " has no frame pattern (# or %0Nd) to tell them apart");
            // Without --frames the pattern would be written literally into the file's name.
            if (in.frames.empty() && hasFramePattern(in.outputPath))
                throw UsageError("-o " + in.outputPath + " has a frame pattern but no --frames gives its frames: add "
                                 "--frames A-B (or --frames N for one frame)");
            if (!scaleLevel.empty()) in.scaleLevel = parseInteger("--scale-level", scaleLevel, 0, 16);
            if (!pixelAspect.empty()) in.pixelAspect = parseRatio("--pixel-aspect", pixelAspect);
            if (!seed.empty()) in.seed = unsigned(parseInteger("--seed", seed, 0, 2147483647));
            if (!threads.empty()) in.threads = parseInteger("--threads", threads, 1, 4096);
            if (!tile.empty()) in.tile = parseSize("--tile", tile);
            if (!timeout.empty()) in.timeout = parseSeconds("--timeout", timeout);
            if (in.dump && !in.json) throw UsageError("--dump needs --json");
            if (!depth.empty() && !(in.write.depth = parseDepth(depth)))
                throw UsageError("invalid value '" + depth + "' for -d: expected half, float, uint8, uint16 or uint10");
            if (!channels.empty()) {
                if (channels != "RGB" && channels != "RGBA" && channels != "rgb" && channels != "rgba")
                    throw UsageError("invalid value '" + channels + "' for --channels: expected RGB or RGBA");
                in.write.channels = int(channels.size());
            }
            if (render->count("--compression") > 0) in.write.compression = compression;
            in.write.colorspace = outColorspace;
            in.write.metadata = !noMetadata;
            for (int i = 0; i < argc; ++i) in.write.history += i ? " " + shellWord(argv[i]) : std::string("kel");
        }
        return runCommand(in);
    } catch (const UsageError& e) {
        std::cerr << "kel: " << e.what() << "\n";
        return kExitUsage;
    } catch (const CLI::ParseError& e) {  // the render arguments of kel submit slurm
        std::cerr << "kel: " << e.what() << "\n";
        return kExitUsage;
    }
}
