// Parts 4.1 and 4.6: the node base, the shared print helpers, function declarations and
// parameters, and FunctionCallNode (overload resolution, the const rule, used names) with the
// implicit `sample` wrap. Control flow is in kelGraphControl.cpp (4.2), operators in
// kelGraphOperators.cpp (4.3, 4.4), variables and literals in kelGraphVariables.cpp (4.5).
#include "kelGraph.h"

#include <algorithm>

#include "kelFunctions.h"

namespace Zt {

// ---- Part 4.6: parameters and declarations ------------------------------------------------------

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

// Part 4.6: parameters get their values from the interpreter (Part 1.1), never from here.
RCShdPtr<KelValue> ParameterNode::eval(KelContext& context) const {
    Assertions::throwProgramAborted("tools/kel/src/kelGraph", 3020, "Parameters cannot be evaluated");
}

// Part 4.6: input parameters are const.
RCShdPtr<KelValue> ParameterNode::check(KelContext& context) {
    if (context.getVariableId(_name) != -1) context.raiseError("Variable already defined: " + _name, _line);
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

// The same order as `check`, so that the ids agree between check and run (Part 4.6).
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

// No scope of its own: the parameters land in the open one, the body's block opens the next.
RCShdPtr<KelValue> FunctionDeclarationNode::check(KelContext& context) {
    for (const KelParameterPtr& parameter : _parameters) parameter->check(context);
    return _body->check(context);
}

// ---- Part 4.6: calls ------------------------------------------------------------------------------

FunctionCallNode::FunctionCallNode(const std::string& name, int line) : KelSyntaxTree(line), _name(name) {}

// Part 4.6: appends to overload `overload`, creating the overloads up to it. Only this operation
// makes overloads: a built-in without parameters (`rand`, `getOutputImage`) has none at all, and
// its calls take step 4 of the check (Part 3.4: one call per parameter).
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

// Part 4.1: a comma follows every argument, the last one too.
void FunctionCallNode::print(std::ostream& out) const {
    out << _name << "( ";
    for (const KelNodePtr& argument : _arguments) {
        argument->print(out);
        out << ",";
    }
    out << " )";
}

namespace {

// Part 4.6 step 5: the relaxed pass also takes an image for a colour parameter.
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

// Part 4.6 step 6: a const value cannot go where the function writes. A function without
// overloads (step 4) has no modes, and so no parameter that it writes.
void checkConstArguments(const FunctionCallNode& node, const std::vector<KelValuePtr>& prototypes, KelContext& context) {
    static const std::vector<int> kNoModes;
    const std::size_t overload = std::size_t(node.overload());
    const std::vector<int>& modes = overload < node.parameterModes().size() ? node.parameterModes()[overload] : kNoModes;
    for (std::size_t i = 0; i < prototypes.size() && i < modes.size(); ++i)
        if (prototypes[i]->isConst() && modes[i] == 1)
            context.raiseError("The parameter #" + LiStringUtil::convertNb(int(i) + 1) + " cannot be used in the function " +
                                   node.getName() + " because it is const.",
                               node.line());
}

// Part 4.6 step 8: a type number that is neither 1, 3 nor 4 means void.
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

// Part 4.6, FunctionCallNode::check, steps 1 to 8. With no overloads at all (step 4) there is
// no signature to hold the arguments against.
RCShdPtr<KelValue> FunctionCallNode::check(KelContext& context) {
    _overload = -1;
    std::vector<KelValuePtr> prototypes;
    for (KelNodePtr& argument : _arguments) {
        KelValuePtr prototype = argument->check(context);
        if (!prototype) context.raiseError("Void type argument is not valid for function '" + _name + "'", _line);
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

// Part 4.6 step 5: the overload taken, each image argument at a colour parameter is sampled.
void FunctionCallNode::resolveRelaxed(std::vector<KelValuePtr>& prototypes, KelContext& context) {
    _overload = firstFitting(_parameterTypes, prototypes, true);
    if (_overload == -1) context.raiseError("No overloaded function for '" + _name + "' match the argument list", _line);
    const std::vector<int>& types = _parameterTypes[std::size_t(_overload)];
    for (std::size_t i = 0; i < prototypes.size(); ++i)
        if (types[i] == Color && prototypes[i]->isType(Image)) prototypes[i] = wrapInSample(_arguments[i], _line, context);
}

// Part 4.6, the `sample` wrap: FunctionSample::declare gives the two overloads of step 2.
RCShdPtr<KelValue> wrapInSample(KelNodePtr& child, int line, KelContext& context) {
    RCShdPtr<FunctionNode<FunctionSample>> sample(new FunctionNode<FunctionSample>("sample", line));
    sample->addArgument(child);
    child = sample;
    return sample->check(context);
}

}  // namespace Zt
