#include "kelPlugins.h"

#include <cstdlib>
#include <string>

#include "kelOptions.h"

namespace Zt::KelApp {

void loadPlugins(const std::string& ownDirectory) {
    PiPluginLoader loader;
    const std::string fallback = ownDirectory + "/" KEL_DEFAULT_PLUGIN_DIR;
    try {
        for (const std::string& directory : PiPluginLoader::directories(std::getenv("KEL_PLUGIN_PATH"), fallback))
            loader.loadDirectory(directory);
        loader.initializePackages();
    } catch (const ExBase& e) {
        throw UsageError(e.getReason());
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
