#include "kelPlugins.h"

#include <cstdlib>
#include <filesystem>
#include <string>

#include "kelOptions.h"

namespace Zt::KelApp {

void loadPlugins(const std::string& ownDirectory) {
    PiPluginLoader loader;
    // Beside the executable's real path, so that a symbolic link to kel finds the packages too.
    const std::string fallback = std::filesystem::path(ownDirectory + "/" KEL_DEFAULT_PLUGIN_DIR).lexically_normal().string();
    const char* path = std::getenv("KEL_PLUGIN_PATH");
    try {
        for (const std::string& directory : PiPluginLoader::directories(path, fallback)) loader.loadDirectory(directory);
        loader.initializePackages();
    } catch (const ExBase& e) {
        throw UsageError(e.getReason() + (path && *path ? " (from KEL_PLUGIN_PATH)"
                                                        : "; set KEL_PLUGIN_PATH to the directory of the plug-in packages"));
    }
}

PebController& createController(std::unique_ptr<PiNodeController>& holder, const std::string& ownDirectory) {
    loadPlugins(ownDirectory);
    PiToolProtocol* tool = PiToolRegistry::getInstance().find("KEL");
    if (!tool) throw UsageError("the tool KEL is not registered: no plug-in package offers it (KEL_PLUGIN_PATH)");
    holder = tool->createController();
    auto* controller = dynamic_cast<PebController*>(holder.get());
    if (!controller) throw UsageError("the tool KEL has no expression controller");
    controller->nodeCreated();
    return *controller;
}

}  // namespace Zt::KelApp
