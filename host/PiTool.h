// The plug-in interface of the host, kept to what the system and this host call:
// the tool protocols that a tool's description object implements, the descriptor that a tool
// fills, the node-controller interfaces, and the registry of the tools that the loaded packages
// registered (PiImageModifier::registerTool).
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "ZtRC.h"

namespace Zt {

template <class T>
using OPtrRet = std::unique_ptr<T>;  // an owning pointer handed to the caller

// The user-interface side of a node: the host's widgets, nodes and time paths.
class PiWidget : public RCBase<LkCounter<int>> {};
class PiNode : public RCBase<LkCounter<int>> {};
class PiTimePath : public RCBase<LkCounter<int>> {};
// The type of KelTool::uiFactory: makes a node's user-interface data.
using PiUiFactory = RCShdPtr<RCBase<LkCounter<int>>> (*)(const RCShdPtr<PiWidget>&, const RCShdPtr<PiNode>&,
                                                         const RCShdPtr<const PiTimePath>&);

// A list that is either null (never set) or a list, possibly empty: null policies mean that
// the description has not been fetched yet.
template <class T>
class Iterator {
public:
    Iterator() = default;
    explicit Iterator(std::vector<T> items) : _items(std::make_shared<const std::vector<T>>(std::move(items))) {}
    bool isNull() const { return !_items; }
    typename std::vector<T>::const_iterator begin() const { return _items ? _items->begin() : kEmpty.begin(); }
    typename std::vector<T>::const_iterator end() const { return _items ? _items->end() : kEmpty.end(); }
    std::size_t size() const { return _items ? _items->size() : 0; }

private:
    static inline const std::vector<T> kEmpty{};
    std::shared_ptr<const std::vector<T>> _items;
};

// What an input of a node accepts.
struct PiInputPolicy {
    int socketType = 0;  // the host's socket types: 3 image, as PebInterpreterTypes
    bool optional = true;
};

struct PiToolPolicyDescriptor {
    class PolicyEntry {
    public:
        PolicyEntry(std::string name, std::shared_ptr<const PiInputPolicy> policy)
            : _name(std::move(name)), _policy(std::move(policy)) {}
        const std::string& getName() const { return _name; }
        const std::shared_ptr<const PiInputPolicy>& getPtr() const { return _policy; }
    private:
        std::string _name;
        std::shared_ptr<const PiInputPolicy> _policy;
    };
};

// What the host's tool browser keeps of a tool; PiImageModifier::Descriptor may fill one.
struct PiToolDescriptor {
    std::vector<std::string> values;
    std::vector<std::string> outputs;
};

struct PiImageModifierTypes {
    enum MaskingMode { NoMasking = 0, MaskInput = 1 };
};

// Base of every node controller (virtual: a controller has several interface bases).
class PiNodeController {
public:
    virtual ~PiNodeController() = default;
    virtual void nodeCreated() {}
    virtual void nodeLoaded() {}
};

// The tool-side interface of a controller: its input policies, and `reset`.
class PiToolInterface : public virtual PiNodeController {
public:
    virtual void reset() = 0;
    const std::vector<PiToolPolicyDescriptor::PolicyEntry>& getInputPolicies() const { return _inputPolicies; }

private:
    friend struct PiToolInterfaceManip;
    std::vector<PiToolPolicyDescriptor::PolicyEntry> _inputPolicies;
};

struct PiToolInterfaceManip {
    static void addInputPolicy(PiToolInterface& controller, const std::string& name,
                               const std::shared_ptr<const PiInputPolicy>& policy);
};

class PxImageProtocol;

// The image-modifier side of a controller, with the names and helpers that descriptions use.
class PiImageModifier : public virtual PiNodeController {
public:
    // What a tool tells the host about its values, outputs, inputs and masking.
    class Descriptor {
    public:
        explicit Descriptor(PiToolDescriptor* tool) : _tool(tool) {}
        void stores(const std::string& valueName, int valueType);
        void produces(const std::string& outputName, int socketType);
        void addInputPolicy(const std::string& name, std::shared_ptr<const PiInputPolicy> policy);
        void setPrimaryInput(const std::string& name) { _primaryInput = name; }
        void setMaskingMode(PiImageModifierTypes::MaskingMode mode) { _maskingMode = mode; }
        void setCanBeDisplayModifier(bool can) { _canBeDisplayModifier = can; }

        const std::string& getPrimaryInput() const { return _primaryInput; }
        Iterator<PiToolPolicyDescriptor::PolicyEntry> getPolicies() const { return Iterator(_policies); }
        bool canMute() const { return _canMute; }
        bool canAffect(int kind) const { return _canAffect; }  // the three kinds alike in this host
        bool canBeDisplayModifier() const { return _canBeDisplayModifier; }
        PiImageModifierTypes::MaskingMode getMaskingMode() const { return _maskingMode; }
        const std::vector<std::pair<std::string, int>>& getValues() const { return _values; }
        const std::vector<std::pair<std::string, int>>& getOutputs() const { return _outputs; }

    private:
        PiToolDescriptor* _tool;
        std::string _primaryInput;
        std::vector<PiToolPolicyDescriptor::PolicyEntry> _policies;
        std::vector<std::pair<std::string, int>> _values;
        std::vector<std::pair<std::string, int>> _outputs;
        bool _canMute = false;
        bool _canAffect = false;
        bool _canBeDisplayModifier = false;
        PiImageModifierTypes::MaskingMode _maskingMode = PiImageModifierTypes::NoMasking;
    };

    static const std::string& getMuteValueName();
    static const std::string& getAffectValueName();
    static const std::string& getOutputName();
    // This host composites no masks: the description says so.
    static void describeMasking(Descriptor& descriptor);
    static void addMaskingInputPolicies(PiImageModifier& controller);
    // Takes ownership; the tool is then known to the host (PiToolRegistry).
    static void registerTool(OPtrRet<class PiToolProtocol> tool);

    bool hasMaskingInputs() const { return _maskingInputs; }

private:
    bool _maskingInputs = false;
};

// The description of one tool, shared base of a tool's description object.
class PiToolProtocol {
public:
    virtual ~PiToolProtocol() = default;
    virtual const std::string& getName() const = 0;
    virtual const std::string& getDisplayName() const = 0;
    virtual const std::string& getDescription() const = 0;
    virtual void describe(PiToolDescriptor& descriptor) = 0;
    virtual const std::string& getPrimaryInput() = 0;
    virtual OPtrRet<PiNodeController> createController() = 0;
};

// The constant part of a tool's description: the constructor's arguments.
class PiToolProtocolImp : public virtual PiToolProtocol {
public:
    PiToolProtocolImp(std::string name, std::string displayName, std::string productName, std::string manufacturer,
                      std::string version, int schema, std::string description, int visibility, int structure);
    const std::string& getName() const override { return _name; }
    const std::string& getDisplayName() const override { return _displayName; }
    const std::string& getDescription() const override { return _description; }
    const std::string& getProductName() const { return _productName; }
    const std::string& getManufacturer() const { return _manufacturer; }
    const std::string& getVersion() const { return _version; }
    int getSchema() const { return _schema; }
    int getVisibility() const { return _visibility; }
    int getStructure() const { return _structure; }

private:
    std::string _name, _displayName, _productName, _manufacturer, _version;
    int _schema;
    std::string _description;
    int _visibility, _structure;
};

// The six answers of an image modifier, in their order of slots, and the check that follows them.
class PiImageModifierProtocol : public virtual PiToolProtocol {
public:
    virtual bool canMute() = 0;
    virtual bool canAffectColor() = 0;
    virtual bool canAffectAlpha() = 0;
    virtual bool canAffectMatte() = 0;
    virtual bool canBeDisplayModifier() = 0;
    virtual PiImageModifierTypes::MaskingMode getMaskingMode() = 0;
    // A display modifier must be mutable, and the masking mode one the host knows.
    void checkRequirements();
};

// The input policies and primary input of a tool whose controllers are of class C.
template <class C, class D>
class PiToolPolicyProtocol : public virtual PiToolProtocol {
public:
    virtual void initializeController(C& controller) {
        for (const PiToolPolicyDescriptor::PolicyEntry& entry : policies)
            PiToolInterfaceManip::addInputPolicy(controller, entry.getName(), entry.getPtr());
    }

protected:
    void copyPolicies(const D& descriptor) {
        primaryInput = descriptor.getPrimaryInput();
        policies = descriptor.getPolicies();
    }

    std::string primaryInput;
    Iterator<PiToolPolicyDescriptor::PolicyEntry> policies;
};

struct PiVarnicToolProtocol {
    static std::string getVarnicProductName();
    static std::string getVarnicManufacturer();
    static std::string getVarnicVersionString();
};

// The tools of the loaded packages, in the order of registration.
class PiToolRegistry {
public:
    static PiToolRegistry& getInstance();
    void add(OPtrRet<PiToolProtocol> tool);
    const std::vector<std::unique_ptr<PiToolProtocol>>& getTools() const { return _tools; }
    PiToolProtocol* find(const std::string& name) const;

private:
    std::vector<std::unique_ptr<PiToolProtocol>> _tools;
};

}  // namespace Zt
