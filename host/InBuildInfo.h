// The build records of the loaded libraries: each package registers one
// InBuildInfo when it initialises, and `kel version` prints them.
#pragma once

#include <memory>
#include <string>
#include <vector>

namespace Zt {

// The virtual operations in the order of their slots, after the destructor: a plug-in built
// against this header calls them by slot, so the order is part of the interface.
class InBuildInfo {
public:
    virtual ~InBuildInfo() = default;
    virtual std::string getVendor() const = 0;
    virtual std::string getLibraryName() const = 0;
    virtual std::string getCopyrightYear() const = 0;
    virtual std::string getVersion() const = 0;
    virtual std::string getStatus() const = 0;
    virtual int getMajorVersion() const = 0;
    virtual int getMinorVersion() const = 0;
    virtual int getReleaseNumber() const = 0;
    virtual std::string getBuildNumber() const = 0;
    virtual std::string getBuildDate() const = 0;
    virtual std::string getBuildPlatform() const = 0;
};

class InBuildInfoUtil {
public:
    // Takes ownership.
    static void registerInfo(InBuildInfo* info);
    static const std::vector<std::unique_ptr<InBuildInfo>>& getInfos();
    // The record of the library of that name, or null.
    static const InBuildInfo* find(const std::string& libraryName);
};

}  // namespace Zt
