// The host's plug-in loader: opens every package library (lib*.so) of the plug-in directories,
// whose static package records announce themselves while they load, and then
// initialises all packages in dependency order. Libraries stay loaded until the process ends:
// the tool registry and the build records hold objects whose code lives in them.
#pragma once

#include <string>
#include <vector>

namespace Zt {

class PiPluginLoader {
public:
    // The directories to load from: the colon-separated list in `environmentValue` (the
    // variable KEL_PLUGIN_PATH) if it is set and not empty, else `defaultDirectory`.
    static std::vector<std::string> directories(const char* environmentValue, const std::string& defaultDirectory);
    // The directory of the running executable (from /proc/self/exe).
    static std::string executableDirectory();

    // Opens the lib*.so files of `directory` in name order; returns their paths. Throws ExBase
    // with dlerror's text when a library can't be opened, or the directory can't be read.
    std::vector<std::string> loadDirectory(const std::string& directory);
    // Opens one library (a library already open is not opened twice).
    void loadLibrary(const std::string& path);
    // InPackageManager::initializeAll: each package after those it depends on.
    void initializePackages();

    const std::vector<std::string>& getLoaded() const { return _loaded; }

private:
    std::vector<std::string> _loaded;
};

}  // namespace Zt
