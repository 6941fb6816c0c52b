// Part 1.1: KelInterpreter::parse, the compilation of a script into the run info that
// createRunInfo made: the parser driver (Part 3.3), `main` found or made, the node's parameters
// bound to those of `main`, the static check (Part 4.1), and what evaluation needs stored.
// The numbered comments are the spec's steps; their order, and that of the failures, is the spec's.
#include <sstream>
#include <unordered_set>

#include "kelInterpreter.h"
#include "kelParser.h"

namespace Zt {

namespace {

// Step 9's procedure for a node parameter that the script doesn't restate.
void addNodeParameter(FunctionDeclarationNode& function, const PebParameterInfo& info) {
    const char* typeName = "";
    switch (info.getType()) {
        case PebInterpreterTypes::Float: typeName = "float"; break;
        case PebInterpreterTypes::Image: typeName = "image"; break;
        case PebInterpreterTypes::Color: typeName = "color"; break;
    }
    function.addParameter(new ParameterNode(info.getName(), typeName, info.isOutput(), 0));
}

}  // namespace

bool KelInterpreter::parse(const std::string& script, const RCShdPtr<PebRunInfo>& runInfo,
                           Vector<PebError>* errors) const {
    // 1. A run info of another class is a programming fault; null passes and fails at first use.
    RCShdPtr<KelRunInfo> info = rcCheckedCast<KelRunInfo>(runInfo);

    // 2.
    if (script.empty()) {
        errors->push_back(PebError("Error: The script is empty", 0));
        return false;
    }

    // 3. On a syntax failure the run info is untouched: the previous compilation stays in force.
    std::istringstream input(script);
    KelParserProtocol protocol(errors);
    if (!parseScript(protocol, input)) return false;

    // 4.
    RCShdPtr<FunctionDeclarationNode> function = rcDynamicCast<FunctionDeclarationNode>(protocol.root());
    // 5. A bare list of statements: `main` around it, with every node parameter.
    if (!function) {
        KelBlockPtr body = rcCheckedCast<StatementBlockNode>(protocol.root());
        function = new FunctionDeclarationNode("main", body, 0);
        for (const PebParameterInfo& nodeParameter : info->getParams()) addNodeParameter(*function, nodeParameter);
    }

    // 6.
    info->function = function;

    // 7. Reported, but neither stops the compilation nor changes its result.
    if (function->getName() != "main") protocol.addError("Function main is not found", 0);

    // 8.
    std::unordered_set<std::string> bound;
    const std::vector<KelParameterPtr> declared = function->_parameters;

    // 9.
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
        if (nodeType == PebInterpreterTypes::Float && scriptType != PebInterpreterTypes::Float)
            return protocol.addError("Parameter " + name + " is not of type float", 0);
        if (nodeType == PebInterpreterTypes::Color && scriptType != PebInterpreterTypes::Color)
            return protocol.addError("Parameter " + name + " is not of type color", 0);
        if (nodeType == PebInterpreterTypes::Image && scriptType != PebInterpreterTypes::Image)
            return protocol.addError("Parameter " + name + " is not of type image", 0);
        if (nodeParameter.isOutput() != match->isOutput())
            return protocol.addError(
                "Parameter " + name + (nodeParameter.isOutput() ? " is not an output" : " is not an input"), 0);
    }

    // 10. Only the script's own parameters: those that step 9 added are not in the copy.
    for (const KelParameterPtr& scriptParameter : declared)
        if (bound.count(scriptParameter->getName()) == 0)
            return protocol.addError("Parameter " + scriptParameter->getName() + " is not a valid parameter", 0);

    // 11. and 12. The prototype value that check returns is dropped.
    KelContext context(GeInterval<int>(0, 1), 0);
    try {
        function->check(context);
    } catch (const KelParseEx& failure) {
        return protocol.addError(failure.getReason(), failure.getLine());
    }

    // 13.
    info->variableCount = context.variableCount();
    info->usedNames = context.usedNames();
    return true;
}

}  // namespace Zt
