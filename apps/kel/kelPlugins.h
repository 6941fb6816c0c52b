// Loading the plug-in packages and reaching the tool "KEL" through them. The command never links
// the engine: it finds the packages on KEL_PLUGIN_PATH, else in ../plugins beside the real path
// of the executable, and asks the registry for the tool's controller.
#pragma once

#include <memory>

#include "PebController.h"

namespace Zt::KelApp {

// Loads and initialises every package; UsageError when a directory or package can't be loaded.
void loadPlugins();

// Loads the packages and creates the KEL tool's controller into `holder` (which owns it), its
// node created; UsageError when no package offers the tool.
PebController& createController(std::unique_ptr<PiNodeController>& holder);

}  // namespace Zt::KelApp
