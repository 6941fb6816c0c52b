// Function declarations and parameters, and FunctionCallNode (overload resolution, the const
// rule, used names) with the implicit `sample` wrap. Control flow is in kelGraphControl.cpp,
// operators in kelGraphOperators.cpp, variables and literals in kelGraphVariables.cpp.
#include "kelGraph.h"

#include <algorithm>

#include "kelFunctions.h"

namespace Zt {

// ---- Parameters and declarations ----------------------------------------------------------------

int kelTypeNumber(const std::string& typeName) {
    struct TypeName {
        const char* text;
        int type;
    };
    static constexpr TypeName kTypeNames[] = {
        {"float", KelValueTypes::Float},
        {"image", KelValueTypes::Image},
        {"color", KelValueTypes::Color},
    };
    for (const TypeName& row : kTypeNames)
        if (typeName == row.text) return row.type;
    return 0;
}

ParameterNode::ParameterNode(const std::string& name, const std::string& typeName, bool isOutput, int line)
    : KelSyntaxTree(line), _name(name), _typeName(typeName), _type(kelTypeNumber(typeName)), _direction(isOutput ? 1 : 0) {}

void ParameterNode::print(std::ostream& out) const {
    out << '\t' << (_direction == 1 ? "OUT" : "IN") << ' ' << _typeName << ' ' << _name << '\n';
}

// Parameters get their values from the interpreter, which binds them before `main` runs.
RCShdPtr<KelValue> ParameterNode::eval(KelContext& context) const {
    Assertions::throwProgramAborted("tools/kel/src/kelGraph", 3020, "Parameters cannot be evaluated");
}

// Input parameters are const; output parameters are writable.
RCShdPtr<KelValue> ParameterNode::check(KelContext& context) {
    if (context.getVariableId(_name) != -1) context.raiseError("Variable already defined: " + _name, _line, _position);
    int id = context.declareVariable(_name);
    int writable = _direction == 1 ? 1 : 0;
    RCShdPtr<KelValue> value;
    switch (_type) {
        case Float: value = context.newConstantFloat(0.0f, writable); break;
        case Color: value = context.newConstantColor(Zt::Color{0.0f, 0.0f, 0.0f, 1.0f}, writable); break;
        case Image: value = context.newImage(0.0f, writable); break;
        default: break;
    }
    context.setVariable(id, value);
    return value;
}

FunctionDeclarationNode::FunctionDeclarationNode(const std::string& name, const KelBlockPtr& body, int line)
    : KelSyntaxTree(line), _name(name), _body(body) {}

// The same order as `check`, so that the ids agree between check and run.
void FunctionDeclarationNode::declareParameters(KelContext& context) const {
    for (const KelParameterPtr& parameter : _parameters) context.declareVariable(parameter->getName());
}

void FunctionDeclarationNode::print(std::ostream& out) const {
    out << _name << "( \n";
    for (const KelParameterPtr& parameter : _parameters) parameter->print(out);
    out << " ) \n";
    _body->print(out);
}

// The interpreter has set the parameters' variables before this runs.
RCShdPtr<KelValue> FunctionDeclarationNode::eval(KelContext& context) const { return _body->eval(context); }

void FunctionDeclarationNode::fuse(KelFusion& fusion) { _body->fuse(fusion); }

bool FunctionDeclarationNode::writesBeforeReading(int variable) const { return _body->writesBeforeReading(variable); }

// No scope of its own: the parameters land in the open one, the body's block opens the next.
RCShdPtr<KelValue> FunctionDeclarationNode::check(KelContext& context) {
    for (const KelParameterPtr& parameter : _parameters) parameter->check(context);
    return _body->check(context);
}

// ---- Calls --------------------------------------------------------------------------------------

FunctionCallNode::FunctionCallNode(const std::string& name, int line) : KelSyntaxTree(line), _name(name) {}

// Appends to overload `overload`, creating the overloads up to it. Only this operation makes
// overloads: a built-in without parameters (`rand`, `getOutputImage`) has none at all, and the
// check then takes any arguments without a signature to hold them against.
void FunctionCallNode::addOverloadParameter(int type, int overload, int mode) {
    const std::size_t count = std::max(_parameterTypes.size(), std::size_t(overload) + 1);
    _parameterTypes.resize(count);
    _parameterModes.resize(count);
    _parameterTypes[std::size_t(overload)].push_back(type);
    _parameterModes[std::size_t(overload)].push_back(mode);
}

void FunctionCallNode::setReturnType(int overload, int type) {
    _returnTypes.resize(std::max(_returnTypes.size(), std::size_t(overload) + 1), Void);
    _returnTypes[std::size_t(overload)] = type;
}

// A comma follows every argument, the last one too.
void FunctionCallNode::print(std::ostream& out) const {
    out << _name << "( ";
    for (const KelNodePtr& argument : _arguments) {
        argument->print(out);
        out << ",";
    }
    out << " )";
}

namespace {

// The relaxed pass also takes an image for a colour parameter.
bool fits(const std::vector<int>& parameterTypes, const std::vector<KelValuePtr>& prototypes, bool relaxed) {
    if (parameterTypes.size() != prototypes.size()) return false;
    for (std::size_t i = 0; i < prototypes.size(); ++i) {
        int type = parameterTypes[i];
        if (prototypes[i]->isType(type)) continue;
        if (relaxed && type == KelValueTypes::Color && prototypes[i]->isType(KelValueTypes::Image)) continue;
        return false;
    }
    return true;
}

int firstFitting(const std::vector<std::vector<int>>& parameterTypes, const std::vector<KelValuePtr>& prototypes,
                 bool relaxed) {
    for (std::size_t k = 0; k < parameterTypes.size(); ++k)
        if (fits(parameterTypes[k], prototypes, relaxed)) return int(k);
    return -1;
}

// A const value cannot go where the function writes. A function without overloads has no
// modes, and so no parameter that it writes.
void checkConstArguments(const FunctionCallNode& node, const std::vector<KelValuePtr>& prototypes, KelContext& context) {
    static const std::vector<int> kNoModes;
    const std::size_t overload = std::size_t(node.overload());
    const std::vector<int>& modes = overload < node.parameterModes().size() ? node.parameterModes()[overload] : kNoModes;
    for (std::size_t i = 0; i < prototypes.size() && i < modes.size(); ++i)
        if (prototypes[i]->isConst() && modes[i] == 1)
            context.raiseError("The parameter #" + LiStringUtil::convertNb(int(i) + 1) + " cannot be used in the function " +
                                   node.getName() + " because it is const.",
                               node.line(), node.position());
}

// A return type that is neither Float, Image nor Color means void.
RCShdPtr<KelValue> prototypeOfResult(const FunctionCallNode& node, KelContext& context) {
    std::size_t overload = std::size_t(node.overload());
    int type = overload < node.returnTypes().size() ? node.returnTypes()[overload] : KelValueTypes::Void;
    switch (type) {
        case KelValueTypes::Float: return context.newFloat(0);
        case KelValueTypes::Color: return context.newColor(0);
        case KelValueTypes::Image: return context.newVaryingImage(0);
        default: return nullptr;
    }
}

}  // namespace

// Checks the arguments first to last, then takes the first overload that fits them exactly, or
// else the first that fits with images sampled. With no overloads at all there is no signature
// to hold the arguments against. The used name is the function's with the overload's number.
RCShdPtr<KelValue> FunctionCallNode::check(KelContext& context) {
    _overload = -1;
    std::vector<KelValuePtr> prototypes;
    for (KelNodePtr& argument : _arguments) {
        KelValuePtr prototype = argument->check(context);
        if (!prototype) context.raiseError("Void type argument is not valid for function '" + _name + "'", _line, _position);
        prototypes.push_back(prototype);
    }
    if (_parameterTypes.empty()) {
        _overload = 0;
    } else {
        _overload = firstFitting(_parameterTypes, prototypes, false);
        if (_overload == -1) resolveRelaxed(prototypes, context);
    }
    checkConstArguments(*this, prototypes, context);
    context.addUsedName(_name + LiStringUtil::convertNb(_overload));
    return prototypeOfResult(*this, context);
}

// The overload taken, each image argument at a colour parameter is sampled.
void FunctionCallNode::resolveRelaxed(std::vector<KelValuePtr>& prototypes, KelContext& context) {
    _overload = firstFitting(_parameterTypes, prototypes, true);
    if (_overload == -1) context.raiseError("No overloaded function for '" + _name + "' match the argument list", _line, _position);
    const std::vector<int>& types = _parameterTypes[std::size_t(_overload)];
    for (std::size_t i = 0; i < prototypes.size(); ++i)
        if (types[i] == Color && prototypes[i]->isType(Image)) prototypes[i] = wrapInSample(_arguments[i], _line, context, _position);
}

// FunctionSample::declare gives the two overloads; the check picks `sample(image)`.
RCShdPtr<KelValue> wrapInSample(KelNodePtr& child, int line, KelContext& context, const PebSourcePosition& position) {
    RCShdPtr<FunctionNode<FunctionSample>> sample(new FunctionNode<FunctionSample>("sample", line));
    sample->setPosition(position);
    sample->addArgument(child);
    child = sample;
    return sample->check(context);
}

}  // namespace Zt
