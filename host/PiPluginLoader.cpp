// The plug-in loader (PiPluginLoader.h).
#include "PiPluginLoader.h"

#include <dlfcn.h>

#include <algorithm>
#include <filesystem>

#include "InPackage.h"
#include "ZtCore.h"

namespace Zt {

namespace fs = std::filesystem;

std::vector<std::string> PiPluginLoader::directories(const char* environmentValue, const std::string& defaultDirectory) {
    std::vector<std::string> result;
    if (environmentValue && *environmentValue) {
        std::string list(environmentValue);
        std::size_t start = 0;
        while (start <= list.size()) {
            const std::size_t colon = std::min(list.find(':', start), list.size());
            if (colon > start) result.push_back(list.substr(start, colon - start));
            start = colon + 1;
        }
    }
    if (result.empty()) result.push_back(defaultDirectory);
    return result;
}

std::string PiPluginLoader::executableDirectory() {
    std::error_code error;
    const fs::path exe = fs::read_symlink("/proc/self/exe", error);
    return error ? std::string(".") : exe.parent_path().string();
}

std::vector<std::string> PiPluginLoader::loadDirectory(const std::string& directory) {
    std::error_code error;
    std::vector<std::string> paths;
    for (fs::directory_iterator it(directory, error), end; !error && it != end; it.increment(error)) {
        const std::string name = it->path().filename().string();
        if (name.starts_with("lib") && name.ends_with(".so") && it->is_regular_file()) paths.push_back(it->path().string());
    }
    if (error) throw ExBase("host/PiPluginLoader", __LINE__, "Cannot read the plug-in directory " + directory + ": " + error.message());
    std::sort(paths.begin(), paths.end());
    for (const std::string& path : paths) loadLibrary(path);
    return paths;
}

void PiPluginLoader::loadLibrary(const std::string& path) {
    // RTLD_NOW: a missing symbol is an error here, not a crash at the first call.
    if (!dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL)) {
        const char* reason = dlerror();
        throw ExBase("host/PiPluginLoader", __LINE__, "Cannot load the plug-in " + path + ": " + (reason ? reason : "?"));
    }
    _loaded.push_back(path);
}

void PiPluginLoader::initializePackages() { InPackageManager::getInstance().initializeAll(); }

}  // namespace Zt
