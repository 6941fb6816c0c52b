// KelInterpreter::parse, the compilation of a script into the run info that createRunInfo made:
// the parse, `main` found or made, the node's parameters bound to those of `main`, the static
// check, and what evaluation needs stored. A script has one error at a time, so the order of
// the checks decides which fault the user sees first; it stays as it is.
#include <sstream>
#include <unordered_set>

#include "kelInterpreter.h"
#include "kelParser.h"
#include "kelProgram.h"

namespace Zt {

namespace {

// A node parameter that the script doesn't declare becomes a parameter of `main` all the same.
void addNodeParameter(FunctionDeclarationNode& function, const PebParameterInfo& info) {
    const char* typeName = "";
    switch (info.getType()) {
        case PebInterpreterTypes::Float: typeName = "float"; break;
        case PebInterpreterTypes::Image: typeName = "image"; break;
        case PebInterpreterTypes::Color: typeName = "color"; break;
    }
    function.addParameter(new ParameterNode(info.getName(), typeName, info.isOutput(), 0));
}

// What programs compile in: each variable's type as the check left it, and the input images.
KelProgramScope programScope(const KelContext& check, const FunctionDeclarationNode& function) {
    KelProgramScope scope;
    for (int id = 0; id < check.variableCount(); ++id) {
        const KelValuePtr value = check.getVariable(id);
        scope.variableTypes.push_back(value ? value->getType() : 0);
    }
    for (const KelParameterPtr& parameter : function._parameters)
        if (parameter->getType() == PebInterpreterTypes::Image && !parameter->isOutput())
            scope.imageParameters.push_back(check.getVariableId(parameter->getName()));
    return scope;
}

// The name of the output that carries the pixels: the last varying output.
std::string outputName(const KelRunInfo& info) {
    std::string name;
    for (const PebParameterInfo& p : info.getParams())
        if (p.isOutput() && p.isVarying()) name = p.getName();
    return name;
}

}  // namespace

bool KelInterpreter::parse(const std::string& script, const RCShdPtr<PebRunInfo>& runInfo,
                           Vector<PebError>* errors) const {
    // A run info of another class is a programming fault; null passes and fails at first use.
    RCShdPtr<KelRunInfo> info = rcCheckedCast<KelRunInfo>(runInfo);

    if (script.empty()) {
        errors->push_back(PebError("Error: The script is empty", 0));
        return false;
    }

    // On a syntax failure the run info is untouched: the previous compilation stays in force.
    std::istringstream input(script);
    KelParserProtocol protocol(errors);
    if (!parseScript(protocol, input)) return false;

    RCShdPtr<FunctionDeclarationNode> function = rcDynamicCast<FunctionDeclarationNode>(protocol.root());
    // A bare list of statements: `main` around it, with every node parameter.
    if (!function) {
        KelBlockPtr body = rcCheckedCast<StatementBlockNode>(protocol.root());
        function = new FunctionDeclarationNode("main", body, 0);
        for (const PebParameterInfo& nodeParameter : info->getParams()) addNodeParameter(*function, nodeParameter);
    }

    info->function = function;

    // A function of another name is reported, but neither stops the compilation nor changes its result.
    if (function->getName() != "main") protocol.addError("Function main is not found", 0, function->position());

    // Each node parameter binds to the script's parameter of its name, of the same type and
    // direction; one that the script doesn't declare is added.
    std::unordered_set<std::string> bound;
    const std::vector<KelParameterPtr> declared = function->_parameters;

    for (const PebParameterInfo& nodeParameter : info->getParams()) {
        const std::string name = nodeParameter.getName();
        KelParameterPtr match;
        for (const KelParameterPtr& scriptParameter : declared)
            if (scriptParameter->getName() == name) {
                match = scriptParameter;
                break;
            }
        if (!match) {
            addNodeParameter(*function, nodeParameter);
            continue;
        }
        bound.insert(name);
        const int nodeType = nodeParameter.getType();
        const int scriptType = match->getType();
        const PebSourcePosition& where = match->position();
        if (nodeType == PebInterpreterTypes::Float && scriptType != PebInterpreterTypes::Float)
            return protocol.addError("Parameter " + name + " is not of type float", 0, where);
        if (nodeType == PebInterpreterTypes::Color && scriptType != PebInterpreterTypes::Color)
            return protocol.addError("Parameter " + name + " is not of type color", 0, where);
        if (nodeType == PebInterpreterTypes::Image && scriptType != PebInterpreterTypes::Image)
            return protocol.addError("Parameter " + name + " is not of type image", 0, where);
        if (nodeParameter.isOutput() != match->isOutput())
            return protocol.addError(
                "Parameter " + name + (nodeParameter.isOutput() ? " is not an output" : " is not an input"), 0, where);
    }

    // Every parameter the script declares must be one of the node's. `declared` is the list
    // before the additions above, so only the script's own are looked at.
    for (const KelParameterPtr& scriptParameter : declared)
        if (bound.count(scriptParameter->getName()) == 0)
            return protocol.addError("Parameter " + scriptParameter->getName() + " is not a valid parameter", 0,
                                     scriptParameter->position());

    // The static check, in a context of one column; its prototype value is dropped.
    KelContext context(GeInterval<int>(0, 1), 0);
    try {
        function->check(context);
    } catch (const KelParseEx& failure) {
        return protocol.addError(failure.getReason(), failure.getLine(), failure.getPosition());
    }

    info->variableCount = context.variableCount();
    info->usedNames = context.usedNames();
    if (info->compilePrograms) {
        KelFusion fusion{programScope(context, *function)};
        function->fuse(fusion);
    }
    const int output = context.getVariableId(outputName(*info));
    info->outputWrittenFirst = output >= 0 && function->writesBeforeReading(output);
    return true;
}

}  // namespace Zt
