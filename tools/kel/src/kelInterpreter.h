// Subsystem 1, the script engine: KelInterpreter (Part 1.1 parse in kelInterpreterParse.cpp,
// Part 1.2 createRunInfo and eval in kelInterpreter.cpp) and the run info KelRunInfo.
#pragma once

#include <string>
#include <unordered_set>

#include "Peb.h"
#include "kelGraph.h"

namespace Zt {

// Part 1.2: the host-held record of a compiled script. (The spec keeps it private to the
// interpreter's source; it is in this header so that tests can build run infos by hand.)
struct KelRunInfo : public PebRunInfo {
    explicit KelRunInfo(const Vector<PebParameterInfo>& params) : PebRunInfo(params) {}
    ~KelRunInfo() override = default;

    RCShdPtr<FunctionDeclarationNode> function;
    int32_t variableCount = 0;
    std::unordered_set<std::string> usedNames;
};

class KelInterpreter : public PebInterpreter {
public:
    bool parse(const std::string& script, const RCShdPtr<PebRunInfo>& runInfo, Vector<PebError>* errors) const override;
    PxImageResult eval(const RCShdPtr<PebRunInfo>& runInfo, const Vector<PxNodePtr<const PxImageProtocol>>& inputs,
                       const Vector<double>& params, const PxRODResult& rod, const IxPixelFormat& format,
                       const PxImageContext& context) const override;
    RCShdPtr<PebRunInfo> createRunInfo(const Vector<PebParameterInfo>& params) const override;
};

}  // namespace Zt
