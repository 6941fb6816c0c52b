#include "InBuildInfo.h"

namespace Zt {

namespace {
std::vector<std::unique_ptr<InBuildInfo>>& infos() {
    static auto* list = new std::vector<std::unique_ptr<InBuildInfo>>;
    return *list;
}
}  // namespace

void InBuildInfoUtil::registerInfo(InBuildInfo* info) { infos().emplace_back(info); }

const std::vector<std::unique_ptr<InBuildInfo>>& InBuildInfoUtil::getInfos() { return infos(); }

const InBuildInfo* InBuildInfoUtil::find(const std::string& libraryName) {
    for (const auto& info : infos())
        if (info->getLibraryName() == libraryName) return info.get();
    return nullptr;
}

}  // namespace Zt
