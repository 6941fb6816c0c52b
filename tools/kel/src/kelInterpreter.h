// The script engine as the host sees it: KelInterpreter compiles a script into a KelRunInfo
// (`parse`, kelInterpreterParse.cpp) and runs it over one tile at a time (`eval`,
// kelInterpreter.cpp). One run info is shared by every tile thread and never written by `eval`.
#pragma once

#include <string>
#include <unordered_set>

#include "Peb.h"
#include "kelGraph.h"

namespace Zt {

// The host-held record of a compiled script: the checked tree, how many variable slots a
// context needs, and the names the script uses. In this header so that tests can build one.
struct KelRunInfo : public PebRunInfo {
    explicit KelRunInfo(const Vector<PebParameterInfo>& params) : PebRunInfo(params) {}
    ~KelRunInfo() override = default;

    RCShdPtr<FunctionDeclarationNode> function;
    int32_t variableCount = 0;
    std::unordered_set<std::string> usedNames;
    // The script stores into every pixel of the output before anything reads it, so a row need
    // not start opaque black: the black could never show.
    bool outputWrittenFirst = false;
    // Set before `parse`: whether runs of statements become programs of strips (kelProgram.h).
    // Without them every statement runs in the tree walk, which gives the same pixels (tests
    // hold the two side by side).
    bool compilePrograms = true;
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
