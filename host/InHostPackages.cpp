// The records of the host's packages (InHostPackages.h), built when libZtHost loads, before any
// plug-in, which needs the library.
#include "InHostPackages.h"

namespace Zt {

namespace {

template <class Tag>
struct HostPackage : InInit<Tag> {
    HostPackage(const char* name, std::initializer_list<const std::type_info*> dependencies) : InInit<Tag>(name) {
        for (const std::type_info* type : dependencies) InPackageInit::addDependency(*type);
    }
};

HostPackage<ZtInit::baseLibrary> gBaseLibrary("ZtBase", {});
HostPackage<ZtInit::resourceManagement> gResourceManagement("ZtRm", {&typeid(ZtInit::baseLibrary)});
HostPackage<ZtInit::primitives> gPrimitives("ZtPr", {&typeid(ZtInit::baseLibrary)});
HostPackage<ZtInit::internalInterface> gInternalInterface("ZtIi", {&typeid(ZtInit::primitives)});
HostPackage<ZtInit::pluginInterface> gPluginInterface(
    "ZtPi", {&typeid(ZtInit::internalInterface), &typeid(ZtInit::resourceManagement)});
HostPackage<ZtInit::peb> gPeb("ZtPeb", {&typeid(ZtInit::pluginInterface)});

}  // namespace

}  // namespace Zt
