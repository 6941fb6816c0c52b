// The expression tool's node controller (PebController.h) and its processing node.
#include "PebController.h"

#include <algorithm>
#include <cctype>

namespace Zt {

namespace {

bool isIdentifier(const std::string& name) {
    if (name.empty() || !(std::isalpha((unsigned char)name[0]) || name[0] == '_')) return false;
    return std::all_of(name.begin(), name.end(), [](char c) { return std::isalnum((unsigned char)c) || c == '_'; });
}

// The node through which the host evaluates the tool: every tile is one `eval` of the interpreter.
class PebProcNode : public PxImageProtocol {
public:
    PebProcNode(std::shared_ptr<const PebInterpreter> interpreter, RCShdPtr<PebRunInfo> runInfo,
                Vector<PxNodePtr<const PxImageProtocol>> inputs, Vector<double> values, const PxRODResult& rod,
                const IxPixelFormat& format)
        : _interpreter(std::move(interpreter)), _runInfo(std::move(runInfo)), _inputs(std::move(inputs)),
          _values(std::move(values)), _rod(rod), _format(format) {}

    PxImageFormat getFormat() const override {
        PxImageFormat f;
        f.aspectNum = _format.aspectNum;
        f.aspectDen = _format.aspectDen;
        return f;
    }
    PxRODResult getROD(const PxImageContext&) const override { return _rod; }
    PxImageResult getImage(const PxImageContext& context) const override {
        return _interpreter->eval(_runInfo, _inputs, _values, _rod, _format, context);
    }

private:
    std::shared_ptr<const PebInterpreter> _interpreter;
    RCShdPtr<PebRunInfo> _runInfo;
    Vector<PxNodePtr<const PxImageProtocol>> _inputs;
    Vector<double> _values;
    PxRODResult _rod;
    IxPixelFormat _format;
};

}  // namespace

PebController::PebController() = default;
PebController::~PebController() = default;

const std::string& PebController::getScriptValueName() {
    static const std::string name = "script";
    return name;
}

void PebController::describe(PiImageModifier::Descriptor& descriptor) {
    // The inputs are dynamic: no input policy, no primary input.
    descriptor.stores(getScriptValueName(), 3);
}

void PebController::reset() {
    _inputs.clear();
    _outputName = "out";
    _script.clear();
    _errors.clear();
    _compiled = nullptr;
}

void PebController::nodeCreated() { interpreter(); }
void PebController::nodeLoaded() {
    interpreter();
    if (!_script.empty()) compile();
}

const PebInterpreter& PebController::interpreter() {
    if (!_interpreter) _interpreter = std::shared_ptr<const PebInterpreter>(createInterpreter().release());
    return *_interpreter;
}

bool PebController::isTaken(const std::string& name) const {
    return name == _outputName ||
           std::any_of(_inputs.begin(), _inputs.end(), [&](const Parameter& p) { return p.name == name; });
}

bool PebController::canAddDynamicInput(const std::string& name, int socketType, int cardinality) const {
    const bool knownType = socketType == PebInterpreterTypes::Float || socketType == PebInterpreterTypes::Image ||
                           socketType == PebInterpreterTypes::Color;
    return knownType && cardinality == 1 && isIdentifier(name) && !isTaken(name);
}

bool PebController::addDynamicInput(const std::string& name, int socketType) {
    if (!canAddDynamicInput(name, socketType, 1)) return false;
    _inputs.push_back({name, socketType});
    _compiled = nullptr;
    return true;
}

bool PebController::canRemoveDynamicInput(const std::string& name) const {
    return std::any_of(_inputs.begin(), _inputs.end(), [&](const Parameter& p) { return p.name == name; });
}

bool PebController::removeDynamicInput(const std::string& name) {
    if (!canRemoveDynamicInput(name)) return false;
    std::erase_if(_inputs, [&](const Parameter& p) { return p.name == name; });
    _compiled = nullptr;
    return true;
}

bool PebController::setOutputName(const std::string& name) {
    if (name != _outputName && (!isIdentifier(name) || isTaken(name))) return false;
    _outputName = name;
    _compiled = nullptr;
    return true;
}

void PebController::setScript(const std::string& script) {
    _script = script;
    valueChanged(getScriptValueName());
}

void PebController::valueChanged(const std::string& valueName) {
    if (valueName == getScriptValueName()) compile();
}

RCShdPtr<RCBase<LkCounter<int>>> PebController::createInstanceData(const RCShdPtr<PiWidget>& widget,
                                                                    const RCShdPtr<PiNode>& node,
                                                                    const RCShdPtr<const PiTimePath>& timePath) const {
    const PiUiFactory factory = getUiFactory();
    return factory ? factory(widget, node, timePath) : nullptr;
}

Vector<PebParameterInfo> PebController::getParameters() const {
    Vector<PebParameterInfo> params;
    for (const Parameter& p : _inputs)
        params.emplace_back(p.name, PebInterpreterTypes::Type(p.type), false, false);
    params.emplace_back(_outputName, PebInterpreterTypes::Color, true, true);
    return params;
}

bool PebController::compile() {
    // The parser keeps static state; it runs on the application thread only.
    if (!PiAppThread::isCurrent())
        Assertions::throwAssertionFailed("host/PebController", __LINE__, "PiAppThread::isCurrent()");
    const PebInterpreter& engine = interpreter();
    _errors.clear();
    _compiled = nullptr;
    RCShdPtr<PebRunInfo> runInfo = engine.createRunInfo(getParameters());
    if (!engine.parse(_script, runInfo, &_errors)) return false;
    _compiled = runInfo;
    return true;
}

PxNodePtr<const PxImageProtocol> PebController::createModifierProcNode(
    const Vector<PxNodePtr<const PxImageProtocol>>& inputs, const Vector<double>& values, const PxRODResult& rod,
    const IxPixelFormat& format) {
    if (!_compiled) throw ExBase("host/PebController", __LINE__, "The script is not compiled");
    const auto count = [&](int type) {
        return std::size_t(std::count_if(_inputs.begin(), _inputs.end(), [&](const Parameter& p) { return p.type == type; }));
    };
    if (inputs.size() != count(PebInterpreterTypes::Image) || values.size() != count(PebInterpreterTypes::Float))
        throw ExBase("host/PebController", __LINE__, "One input per image parameter and one value per float parameter");
    interpreter();
    return PxNodePtr<const PxImageProtocol>(new PebProcNode(_interpreter, _compiled, inputs, values, rod, format));
}

}  // namespace Zt
