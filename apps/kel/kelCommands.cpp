// The commands of `kel` other than render: check, print, tools and version, and the dispatch
// that turns failures into exit statuses. Compilation happens on this, the application thread;
// tiles are rendered on worker threads (kelRender.cpp).
#include "kelCommands.h"

#include <csignal>
#include <iostream>
#include <sstream>

#include "InBuildInfo.h"
#include "PebController.h"
#include "kelCancellation.h"
#include "kelImageFiles.h"
#include "kelJson.h"
#include "kelPlugins.h"
#include "kelRender.h"
#include "kelScript.h"
#include "farm/kelSubmit.h"

namespace Zt::KelApp {

namespace {

int runCheck(PebController& controller, const Invocation& in, const Script& script) {
    const bool ok = compile(controller, in, script);
    if (in.json)
        std::cout << "{" << jsonStatus(ok, controller.getErrors()) << "}\n";
    else
        printErrors(script, controller.getErrors());
    return ok ? kExitOk : kExitRefused;
}

// Why a tree that compiled has no printed form: a `for` without its first or third clause is the
// one tree whose printing stops on a null clause; anything else gives its own reason.
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
    // From here on a signal cancels a render, also one that comes before the render starts
    // (while plug-ins load, the script compiles or inputs are read): it exits 3.
    if (in.command == "render") cancelOnSignals();
    try {
        if (in.command == "tools") return runTools();
        if (in.command == "version") return runVersion();
        if (in.command == "submit status") return runSubmitStatus(in);
        const Script script = readScript(in);
        std::unique_ptr<PiNodeController> holder;
        PebController& controller = createController(holder);
        if (in.command == "check") return runCheck(controller, in, script);
        if (in.command == "print") return runPrint(controller, in, script);
        if (in.command == "submit slurm") return runSubmitSlurm(controller, in, script);
        return runRender(controller, in, script);
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
