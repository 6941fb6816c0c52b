// The commands of `kel` other than render: check, print, params, tools and version, and the
// dispatch that reads the script's declarations and turns failures into exit statuses.
// Compilation happens on this, the application thread; tiles are rendered on worker threads
// (kelRender.cpp).
#include "kelCommands.h"

#include <csignal>
#include <iostream>
#include <sstream>

#include "InBuildInfo.h"
#include "PebController.h"
#include "kelCancellation.h"
#include "kelColorParameters.h"
#include "kelImageIO.h"
#include "kelJson.h"
#include "kelParameterList.h"
#include "kelPlugins.h"
#include "kelRender.h"
#include "kelScript.h"
#include "farm/kelSubmit.h"

namespace Zt::KelApp {

namespace {

int runCheck(PebController& controller, const Invocation& in, const Script& script) {
    const bool ok = compile(controller, in, script);
    // The script compiles, but a render would refuse it: said here too, without failing.
    if (ok)
        for (const std::string& name : colorParametersUsed(script, in))
            std::cerr << "kel: warning: " << colorParameterMessage(name) << "\n";
    if (in.json)
        std::cout << "{" << jsonStatus(ok, controller.getErrors()) << "}\n";
    else
        printErrors(script, controller);
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
    printErrors(script, controller);
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
    // The engine ends the tree without a newline; a terminal's prompt belongs on a line of its own.
    std::string text = tree.str();
    if (!text.empty() && text.back() != '\n') text += '\n';
    std::cout << text;
    std::cout.flush();
    return kExitOk;
}

int runTools() {
    loadPlugins();
    for (const auto& tool : PiToolRegistry::getInstance().getTools())
        std::cout << tool->getName() << "\t" << tool->getDisplayName() << "\t" << tool->getDescription() << "\n";
    return kExitOk;
}

// The project's version first, then each package's build record, every field under its label.
int runVersion() {
    loadPlugins();
    std::cout << "kel: " << KEL_VERSION << "\n";
    const std::pair<const char*, std::string (*)(const InBuildInfo&)> fields[] = {
        {"library",        [](const InBuildInfo& i) { return i.getLibraryName(); }},
        {"vendor",         [](const InBuildInfo& i) { return i.getVendor(); }},
        {"copyright year", [](const InBuildInfo& i) { return i.getCopyrightYear(); }},
        {"version",        [](const InBuildInfo& i) { return i.getVersion(); }},
        {"status",         [](const InBuildInfo& i) { return i.getStatus(); }},
        {"major version",  [](const InBuildInfo& i) { return std::to_string(i.getMajorVersion()); }},
        {"minor version",  [](const InBuildInfo& i) { return std::to_string(i.getMinorVersion()); }},
        {"release",        [](const InBuildInfo& i) { return std::to_string(i.getReleaseNumber()); }},
        {"build",          [](const InBuildInfo& i) { return i.getBuildNumber(); }},
        {"build date",     [](const InBuildInfo& i) { return i.getBuildDate(); }},
        {"build platform", [](const InBuildInfo& i) { return i.getBuildPlatform(); }},
    };
    for (const auto& info : InBuildInfoUtil::getInfos())
        for (const auto& [label, value] : fields) std::cout << label << ": " << value(*info) << "\n";
    return kExitOk;
}

// The script's declarations as JSON, for the live page and pipelines.
int runParams(const Script& script) {
    const ScriptDeclarations declarations = readDeclarations(script.text);
    std::cout << jsonDeclarations(declarations) << "\n";
    if (declarations.problems.empty()) return kExitOk;
    printDeclarationProblems(script, declarations.problems);
    return kExitUsage;
}

// The invocation with the parameter list that the flags and the script's declarations make;
// none when a declaration does not read (each is printed with its line).
std::optional<Invocation> withDeclarations(const Invocation& in, const Script& script) {
    const ScriptDeclarations declarations = readDeclarations(script.text);
    if (!declarations.problems.empty()) {
        printDeclarationProblems(script, declarations.problems);
        return std::nullopt;
    }
    ParameterList list = buildParameterList(declarations, in);
    if (!in.quiet)
        for (const std::string& warning : list.warnings) std::cerr << "kel: warning: " << warning << "\n";
    Invocation resolved = in;
    resolved.parameters = std::move(list.parameters);
    resolved.outputName = list.outputName;
    return resolved;
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
        if (in.command == "params") return runParams(script);
        const std::optional<Invocation> resolved = withDeclarations(in, script);
        if (!resolved) return kExitUsage;
        std::unique_ptr<PiNodeController> holder;
        PebController& controller = createController(holder);
        if (in.command == "check") return runCheck(controller, *resolved, script);
        if (in.command == "print") return runPrint(controller, *resolved, script);
        if (in.command == "submit slurm") return runSubmitSlurm(controller, *resolved, script);
        return runRender(controller, *resolved, script);
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
