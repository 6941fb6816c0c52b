// The `kel` command (cli.md): compiles a KEL script against a parameter list through the tool
// "KEL" that the plug-in package registered, and renders it over image files. This file holds
// the command line; kelRender.cpp the commands.
#include <CLI/CLI.hpp>
#include <map>
#include <iostream>

#include "kelCommands.h"

using namespace Zt::KelApp;

namespace {

void addScriptOptions(CLI::App& command, Invocation& in) {
    command.add_option("SCRIPT", in.scriptPath, "the script file");
    command.add_option("-e", in.scriptText, "the script text itself");
    for (const char* name : {"-i", "-f", "-c"})
        command.add_option(name, [](const CLI::results_t&) { return true; })
            ->type_size(1)->expected(1)->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
            ->description(name[1] == 'i' ? "NAME[=FILE]: an image input" : name[1] == 'f' ? "NAME[=VALUE]: a float input"
                                                                                        : "NAME[=R,G,B,A]: a colour input");
    command.add_option("--out", in.outputName, "the output's name (default out)");
}

// -i, -f and -c in command-line order: the parameter list's order (cli.md).
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

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"kel: render KEL effect scripts over image files"};
    app.require_subcommand(1);
    Invocation in;
    std::string size, frames, pixelAspect, threads, tile, timeout, scaleLevel, time;

    CLI::App* render = app.add_subcommand("render", "compile the script and write the output image (or sequence)");
    addScriptOptions(*render, in);
    render->add_option("-o", in.outputPath, "the output file")->required();
    render->add_option("--size", size, "WxH: the output's size when there is no image input");
    render->add_option("--time", time, "the context's time, the value of t (default 0)");
    render->add_option("--frames", frames, "A-B: render frames A to B; # or %0Nd in paths is the frame");
    render->add_option("--scale-level", scaleLevel, "render at a scale of 1/2^N");
    render->add_option("--pixel-aspect", pixelAspect, "N/D: the output's pixel aspect");
    render->add_option("--threads", threads, "worker threads (default: all cores)");
    render->add_option("--tile", tile, "WxH: the tile size in pixels");
    render->add_option("--timeout", timeout, "cancel the render after that many seconds");
    render->add_flag("--json", in.json, "print a JSON report on standard output");
    render->add_flag("--dump", in.dump, "with --json: include every output pixel");

    CLI::App* check = app.add_subcommand("check", "compile only and report");
    addScriptOptions(*check, in);
    check->add_flag("--json", in.json, "print a JSON report on standard output");

    CLI::App* print = app.add_subcommand("print", "compile and print the tree");
    addScriptOptions(*print, in);

    app.add_subcommand("tools", "list the tools of the loaded packages");
    app.add_subcommand("version", "print the build record");

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        std::cerr << "kel: " << e.what() << "\n";
        return kExitUsage;
    }

    try {
        CLI::App* command = app.get_subcommands().front();
        in.command = command->get_name();
        if (command == render || command == check || command == print) {
            collectParameters(*command, in);
            in.hasScriptText = command->count("-e") > 0;
        }
        if (command == render) {
            if (!size.empty()) in.size = parseSize("--size", size);
            if (!time.empty()) in.time = parseFloatValue("--time", time);
            if (!frames.empty()) in.frames = parseFrames(frames);
            if (!scaleLevel.empty()) in.scaleLevel = parseInteger("--scale-level", scaleLevel, 0, 16);
            if (!pixelAspect.empty()) in.pixelAspect = parseRatio("--pixel-aspect", pixelAspect);
            if (!threads.empty()) in.threads = parseInteger("--threads", threads, 1, 4096);
            if (!tile.empty()) in.tile = parseSize("--tile", tile);
            if (!timeout.empty()) in.timeout = parseSeconds("--timeout", timeout);
            if (in.dump && !in.json) throw UsageError("--dump needs --json");
        }
        return runCommand(in);
    } catch (const UsageError& e) {
        std::cerr << "kel: " << e.what() << "\n";
        return kExitUsage;
    }
}
