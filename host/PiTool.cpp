// The plug-in interface (PiTool.h): descriptors, controllers' input policies, tool registry.
#include "PiTool.h"

#include <algorithm>

namespace Zt {

void PiToolInterfaceManip::addInputPolicy(PiToolInterface& controller, const std::string& name,
                                          const std::shared_ptr<const PiInputPolicy>& policy) {
    controller._inputPolicies.emplace_back(name, policy);
}

void PiImageModifier::Descriptor::stores(const std::string& valueName, int valueType) {
    _values.emplace_back(valueName, valueType);
    if (valueName == getMuteValueName()) _canMute = true;
    if (valueName == getAffectValueName()) _canAffect = true;
    if (_tool) _tool->values.push_back(valueName);
}

void PiImageModifier::Descriptor::produces(const std::string& outputName, int socketType) {
    _outputs.emplace_back(outputName, socketType);
    if (_tool) _tool->outputs.push_back(outputName);
}

void PiImageModifier::Descriptor::addInputPolicy(const std::string& name, std::shared_ptr<const PiInputPolicy> policy) {
    _policies.emplace_back(name, std::move(policy));
}

const std::string& PiImageModifier::getMuteValueName() {
    static const std::string name = "mute";
    return name;
}
const std::string& PiImageModifier::getAffectValueName() {
    static const std::string name = "affect";
    return name;
}
const std::string& PiImageModifier::getOutputName() {
    static const std::string name = "output";
    return name;
}

void PiImageModifier::describeMasking(Descriptor& descriptor) { descriptor.setMaskingMode(PiImageModifierTypes::NoMasking); }

void PiImageModifier::addMaskingInputPolicies(PiImageModifier& controller) { controller._maskingInputs = true; }

void PiImageModifier::registerTool(OPtrRet<PiToolProtocol> tool) { PiToolRegistry::getInstance().add(std::move(tool)); }

PiToolProtocolImp::PiToolProtocolImp(std::string name, std::string displayName, std::string productName,
                                     std::string manufacturer, std::string version, int schema, std::string description,
                                     int visibility, int structure)
    : _name(std::move(name)), _displayName(std::move(displayName)), _productName(std::move(productName)),
      _manufacturer(std::move(manufacturer)), _version(std::move(version)), _schema(schema),
      _description(std::move(description)), _visibility(visibility), _structure(structure) {}

void PiImageModifierProtocol::checkRequirements() {
    const bool mutable_ = canMute();
    canAffectColor();
    canAffectAlpha();
    canAffectMatte();
    if (canBeDisplayModifier() && !mutable_)
        Assertions::throwAssertionFailed("host/PiTool", __LINE__, "canBeDisplayModifier() implies canMute()");
    const PiImageModifierTypes::MaskingMode mode = getMaskingMode();
    if (mode != PiImageModifierTypes::NoMasking && mode != PiImageModifierTypes::MaskInput)
        Assertions::throwAssertionFailed("host/PiTool", __LINE__, "known masking mode");
}

std::string PiVarnicToolProtocol::getVarnicProductName() { return "Varnic Sorell"; }
std::string PiVarnicToolProtocol::getVarnicManufacturer() { return "Varnic"; }
std::string PiVarnicToolProtocol::getVarnicVersionString() { return "8.0"; }

PiToolRegistry& PiToolRegistry::getInstance() {
    // Never destroyed: the tools' code lives in plug-ins, which are unloaded only at exit.
    static PiToolRegistry* instance = new PiToolRegistry;
    return *instance;
}

// A package initialised again registers its tools again: a tool replaces the one of its name.
void PiToolRegistry::add(OPtrRet<PiToolProtocol> tool) {
    for (auto& known : _tools)
        if (known->getName() == tool->getName()) {
            known = std::move(tool);
            return;
        }
    _tools.push_back(std::move(tool));
}

PiToolProtocol* PiToolRegistry::find(const std::string& name) const {
    for (const auto& tool : _tools)
        if (tool->getName() == name) return tool.get();
    return nullptr;
}

}  // namespace Zt
