// Package initialisation and tool registration: the package record, the build record and the
// order in which `initialize` registers and builds: build record, tool, then the constant tables,
// so that the tool is known and its tables complete before the host compiles its first script.
#include "kelZttoolInit.h"

#include "InBuildInfo.h"
#include "InHostPackages.h"
#include "kelFunctions.h"
#include "kelGraph.h"
#include "kelTool.h"

namespace Zt {

void kelBuildStaticTables() {
    KelFunctionTable::build();
    KelNoise::buildTables();
}

namespace {

bool gInitialized = false;

// The library's build constants, in the order of the slots.
class LibraryBuildInfo : public InBuildInfo {
public:
    std::string getVendor() const override { return "Varnic Sorell Library"; }
    std::string getLibraryName() const override { return "libZtkelZttool"; }
    std::string getCopyrightYear() const override { return "2013"; }
    std::string getVersion() const override { return "8.0"; }
    std::string getStatus() const override { return getReleaseNumber() == 3 ? "dev" : ""; }
    int getMajorVersion() const override { return 8; }
    int getMinorVersion() const override { return 0; }
    int getReleaseNumber() const override { return 42; }
    std::string getBuildNumber() const override { return "2600"; }
    std::string getBuildDate() const override { return "Jun 12 2012"; }
    std::string getBuildPlatform() const override { return "opt.x86_64.intel"; }
};

}  // namespace

bool kelZttoolIsInitialized() { return gInitialized; }

template <>
class InInit<ZtInit::kelZttool> : public InPackageInit {
public:
    InInit() : InPackageInit("kelZttool") {
        registerPackage(getType());
        // The six host packages that must initialise first, in this order.
        addDependency(InInit<ZtInit::peb>::getType());
        addDependency(InInit<ZtInit::internalInterface>::getType());
        addDependency(InInit<ZtInit::primitives>::getType());
        addDependency(InInit<ZtInit::resourceManagement>::getType());
        addDependency(InInit<ZtInit::pluginInterface>::getType());
        addDependency(InInit<ZtInit::baseLibrary>::getType());
    }
    static const std::type_info& getType() { return typeid(ZtInit::kelZttool); }

    void initialize() override {
        InBuildInfoUtil::registerInfo(new LibraryBuildInfo);
        kelRegisterTool();
        kelBuildStaticTables();
    }
    // The tables stay until the library is unloaded.
    void shutdown() override { KelTool::uiFactory = nullptr; }
    void setInitialized(bool initialized) override { gInitialized = initialized; }
};

namespace {
InInit<ZtInit::kelZttool> gPackage;
}

}  // namespace Zt
