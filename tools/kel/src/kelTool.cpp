// The tool's registration with the host, and its node controller, whose interpreter is
// KelInterpreter. Registration happens once, at package initialisation.
#include "kelTool.h"

#include "PebController.h"
#include "PiImageModifierInfo.h"
#include "kelInterpreter.h"

namespace Zt {

PiUiFactory KelTool::uiFactory = nullptr;

void KelTool::setUiFactory(PiUiFactory factory) { uiFactory = factory; }

namespace {

// No field: everything but the two factories below is PebController's.
class KelController : public PebController {
public:
    void printProgram() const override {
        const RCShdPtr<KelRunInfo> info = rcCheckedCast<KelRunInfo>(getRunInfo());
        if (info && info->function) static_cast<const KelSyntaxTree&>(*info->function).print();
    }

    // The two factories a PebController leaves to its tool.
    PiUiFactory getUiFactory() const override { return KelTool::uiFactory; }
    OPtrRet<PebInterpreter> createInterpreter() const override { return std::make_unique<KelInterpreter>(); }
};

}  // namespace

void kelRegisterTool() {
    // The arguments of PiToolProtocolImp's constructor, in order: name, display name, product,
    // maker, version, schema 9, description, ToolVisibility 1, ToolStructure 0.
    auto tool = std::make_unique<PiImageModifierInfo<KelController>>(
        "KEL", "Kel Expressions", PiVarnicToolProtocol::getVarnicProductName(),
        PiVarnicToolProtocol::getVarnicManufacturer(), PiVarnicToolProtocol::getVarnicVersionString(), 9,
        "KEL language scripting tool for creating effects.", 1, 0);
    PiImageModifier::registerTool(std::move(tool));
}

int kelDescriptionFetches() {
    const auto* tool = dynamic_cast<const PiImageModifierInfo<KelController>*>(PiToolRegistry::getInstance().find("KEL"));
    return tool ? tool->getDescriptionFetches() : 0;
}

}  // namespace Zt
