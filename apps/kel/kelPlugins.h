// Loading the plug-in packages and reaching the tool "KEL" through them. A front end never links
// the engine: it finds the packages on KEL_PLUGIN_PATH, else in ../plugins beside its own
// directory (the real path of the executable for the command, of the library for a module), and
// asks the registry for the tool's controller.
#pragma once

#include <memory>
#include <string>

#include "PebController.h"
#include "PiPluginLoader.h"

namespace Zt::KelApp {

// Loads and initialises every package not yet loaded, from `ownDirectory`/../plugins unless
// KEL_PLUGIN_PATH is set; UsageError when a directory or package can't be loaded.
void loadPlugins(const std::string& ownDirectory = PiPluginLoader::executableDirectory());

// Loads the packages and creates the KEL tool's controller into `holder` (which owns it), its
// node created; UsageError when no package offers the tool.
PebController& createController(std::unique_ptr<PiNodeController>& holder,
                                const std::string& ownDirectory = PiPluginLoader::executableDirectory());

}  // namespace Zt::KelApp
