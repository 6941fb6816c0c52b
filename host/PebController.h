// The node controller of an expression tool.
// It keeps the node's parameter list (its dynamic inputs, in the order they were added, then
// the output), the script, and the compilation; it compiles on the application thread when the
// script changes, and makes the processing node through which the host calls `eval`. A tool
// derives from it and supplies, in this order, `getUiFactory` and `createInterpreter`.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "Peb.h"
#include "PiTool.h"

namespace Zt {

// One form of a built-in function that scripts may call: its name, and the types of its
// arguments and of its result as a script writes them ("float", "color", "image", "void").
struct PebFunctionForm {
    std::string name;
    std::vector<std::string> argumentTypes;
    std::string resultType;
};

class PebController : public PiImageModifier, public PiToolInterface {
public:
    PebController();
    ~PebController() override;

    // The script is the node's one value of its own (value type 3, text).
    static const std::string& getScriptValueName();
    static void describe(PiImageModifier::Descriptor& descriptor);

    // PiToolInterface: no parameters but the output "out", no script, no compilation.
    void reset() override;
    // PiNodeController: the interpreter is made when the node is, or at the first compilation.
    void nodeCreated() override;
    void nodeLoaded() override;

    // PiToolTopologyInterface role. A dynamic input is a non-output parameter: a name that is
    // an identifier and not yet taken (the output's included), of type 1, 3 or 4, cardinality 1.
    bool canAddDynamicInput(const std::string& name, int socketType, int cardinality) const;
    bool addDynamicInput(const std::string& name, int socketType);
    bool canRemoveDynamicInput(const std::string& name) const;
    bool removeDynamicInput(const std::string& name);
    // The varying colour output, appended last to the parameter list; false if the name is taken.
    bool setOutputName(const std::string& name);

    // PiValueChangeInterface role: setting the script is a change that recompiles.
    void setScript(const std::string& script);
    void valueChanged(const std::string& valueName);

    // PiUserInterface role: the tool's UI data, through getUiFactory; null without a factory.
    RCShdPtr<RCBase<LkCounter<int>>> createInstanceData(const RCShdPtr<PiWidget>& widget, const RCShdPtr<PiNode>& node,
                                                        const RCShdPtr<const PiTimePath>& timePath) const;

    // The node's parameter list: the dynamic inputs in order, then the output.
    Vector<PebParameterInfo> getParameters() const;
    // createRunInfo and parse, on the application thread. The result of parse; its errors
    // (warnings when it succeeded) stay in getErrors.
    bool compile();
    bool isCompiled() const { return bool(_compiled); }
    const Vector<PebError>& getErrors() const { return _errors; }
    // The run info of the last successful compilation; null after a failed one.
    const RCShdPtr<PebRunInfo>& getRunInfo() const { return _compiled; }

    // PiImageModifier role: a processing node whose getImage(context) is `eval` of the compiled
    // script with these inputs (one per image parameter, in order), float values (one per
    // float parameter, in order), region of definition and output format. Throws ExBase if the
    // script isn't compiled (a failed parse is never evaluated) or the counts don't match.
    PxNodePtr<const PxImageProtocol> createModifierProcNode(const Vector<PxNodePtr<const PxImageProtocol>>& inputs,
                                                            const Vector<double>& values, const PxRODResult& rod,
                                                            const IxPixelFormat& format);

    // Writes the compiled tree to standard output; the tool knows its tree, the host doesn't.
    // This host's addition, used by `kel print`; does nothing unless a tool overrides it.
    virtual void printProgram() const {}
    // The built-in functions a script may call, every form of each, in the tool's order: what
    // the command's messages quote ("`color` takes four arguments"). This host's addition;
    // empty unless a tool overrides it.
    virtual std::vector<PebFunctionForm> describeFunctions() const { return {}; }

    // What the tool supplies, in this order of slots.
    virtual PiUiFactory getUiFactory() const = 0;
    virtual OPtrRet<PebInterpreter> createInterpreter() const = 0;

private:
    struct Parameter {
        std::string name;
        int type;
    };
    const PebInterpreter& interpreter();
    bool isTaken(const std::string& name) const;

    std::shared_ptr<const PebInterpreter> _interpreter;
    std::vector<Parameter> _inputs;
    std::string _outputName = "out";
    std::string _script;
    Vector<PebError> _errors;
    RCShdPtr<PebRunInfo> _compiled;
};

}  // namespace Zt
