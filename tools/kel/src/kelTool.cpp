// The tool's registration with the host, and its node controller, whose interpreter is
// KelInterpreter. Registration happens once, at package initialisation.
#include "kelTool.h"

#include "PebController.h"
#include "PiImageModifierInfo.h"
#include "kelFunctions.h"
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

    // Read from the catalogue's own nodes, so the forms are the ones that calls resolve against.
    std::vector<PebFunctionForm> describeFunctions() const override {
        std::map<int, std::string> typeName{{KelValueTypes::Void, "void"}};
        for (const char* name : {"float", "color", "image"}) typeName[kelTypeNumber(name)] = name;
        std::vector<PebFunctionForm> forms;
        for (const std::string& name : KelFunctionTable::namesInOrder()) {
            const RCShdPtr<FunctionCallNode> node = KelFunctionTable::lookup(name)(0);
            for (std::size_t i = 0; i < node->returnTypes().size(); ++i) {
                PebFunctionForm form{name, {}, typeName[node->returnTypes()[i]]};
                if (i < node->parameterTypes().size())
                    for (int type : node->parameterTypes()[i]) form.argumentTypes.push_back(typeName[type]);
                forms.push_back(std::move(form));
            }
        }
        return forms;
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
