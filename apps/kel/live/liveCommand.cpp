#include "liveCommand.h"

#include <signal.h>
#include <spawn.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <memory>
#include <thread>

#include "kelImageFiles.h"
#include "kelScript.h"
#include "liveServer.h"

extern char** environ;

namespace Zt::KelApp {

namespace {

bool hasDisplay() {
    for (const char* name : {"DISPLAY", "WAYLAND_DISPLAY"})
        if (const char* value = std::getenv(name); value && *value) return true;
    return false;
}

// The desktop's own choice of browser, in the background; a failure only leaves the address
// to be opened by hand.
void openBrowser(const std::string& url) {
    posix_spawn_file_actions_t quiet;
    posix_spawn_file_actions_init(&quiet);
    posix_spawn_file_actions_addopen(&quiet, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&quiet, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
    pid_t child = 0;
    char* argv[] = {const_cast<char*>("xdg-open"), const_cast<char*>(url.c_str()), nullptr};
    if (posix_spawnp(&child, "xdg-open", &quiet, &attributes, argv, environ) == 0)
        std::thread([child] { waitpid(child, nullptr, 0); }).detach();
    else
        std::cerr << "kel live: could not start a browser (xdg-open); open the address by hand\n";
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&quiet);
}

void parseRenderOptions(Invocation& in, const LiveOptions& o) {
    if (!o.size.empty()) in.size = parseSize("--size", o.size);
    if (!o.time.empty() && !o.frames.empty())
        throw UsageError("--time and --frames exclude each other: with --frames the time is the frame number");
    if (!o.time.empty()) in.time = parseTime("--time", o.time);
    if (!o.frames.empty()) in.frames = parseFrames(o.frames);
    if (!o.scaleLevel.empty()) in.scaleLevel = parseInteger("--scale-level", o.scaleLevel, 0, 16);
    if (!o.pixelAspect.empty()) in.pixelAspect = parseRatio("--pixel-aspect", o.pixelAspect);
    if (!o.threads.empty()) in.threads = parseInteger("--threads", o.threads, 1, 4096);
    if (!o.tile.empty()) in.tile = parseSize("--tile", o.tile);
    if (!o.timeout.empty()) in.timeout = parseSeconds("--timeout", o.timeout);
}

}  // namespace

void addLiveOptions(CLI::App& command, LiveOptions& o) {
    const char* const group = "Live options";
    command.add_option("--port", o.port, "the port on 127.0.0.1; default: a free one")->type_name("N")->group(group);
    command.add_flag("--no-browser", o.noBrowser, "print the page's address without opening a browser")->group(group);
    const struct {
        const char* name;
        std::string* value;
        const char* type;
        const char* description;
    } options[] = {
        {"--size", &o.size, "WxH", "the output's size when there is no image input"},
        {"--time", &o.time, "T", "the time the page starts at; default 0"},
        {"--frames", &o.frames, "A-B", "the time slider's frames; # or %0Nd in -i paths stand for the frame"},
        {"--scale-level", &o.scaleLevel, "N", "the full resolution is 1/2^N; proxies are smaller still"},
        {"--pixel-aspect", &o.pixelAspect, "N/D", "the pixel aspect of the output"},
        {"--threads", &o.threads, "N", "worker threads; default: all cores"},
        {"--tile", &o.tile, "WxH", "the tile size in pixels"},
        {"--timeout", &o.timeout, "SECONDS", "cancel a render that takes longer"},
    };
    for (const auto& option : options)
        command.add_option(option.name, *option.value, option.description)->type_name(option.type)->group(group);
}

int runLive(Invocation in, const LiveOptions& o) {
    if (in.scriptPath.empty()) throw UsageError("live needs SCRIPT, the file that the page edits and saves");
    parseRenderOptions(in, o);
    const int port = o.port.empty() ? 0 : parseInteger("--port", o.port, 1, 65535);

    // The stopping signals wait for this thread alone (sigwait below): every thread started
    // from here on inherits the mask, so none of them is interrupted in the middle of a save.
    sigset_t stopping;
    sigemptyset(&stopping);
    for (int s : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&stopping, s);
    pthread_sigmask(SIG_BLOCK, &stopping, nullptr);
    try {
        ScriptFile script(in.scriptPath);
        LivePage page = LivePage::load();
        RenderThread thread;
        std::unique_ptr<LiveSession> session;
        thread.run([&] { session = std::make_unique<LiveSession>(in, script.text()); });
        LiveServer server(thread, *session, script, std::move(page));
        const std::string url = "http://127.0.0.1:" + std::to_string(server.bind(port)) + "/";
        std::cout << "kel live: editing " << in.scriptPath << " at " << url << " (Ctrl-C stops)" << std::endl;
        if (!o.noBrowser && hasDisplay()) openBrowser(url);
        std::thread serving([&] {
            server.serve();
            kill(getpid(), SIGTERM);  // should serving end on its own, the wait below ends too
        });
        int received = 0;
        sigwait(&stopping, &received);
        thread.stop();
        server.stop();
        serving.join();
        std::cout << "kel live: stopped" << std::endl;
        return kExitOk;
    } catch (const FileError& e) {
        std::cerr << "kel: " << e.what() << "\n";
        return kExitUsage;
    } catch (const ExBase& e) {
        std::cerr << "kel: " << readableReason(e) << "\n";
        return kExitUsage;
    }
}

}  // namespace Zt::KelApp
