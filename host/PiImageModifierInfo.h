// PiImageModifierInfo<C>: the description object of an image-modifier tool whose node
// controllers are of class C. It holds the tool's constant strings, and fetches the
// tool's description lazily, once, on the first question from the host, whichever it is.
#pragma once

#include "PiTool.h"

namespace Zt {

template <class C>
class PiImageModifierInfo : public PiToolProtocolImp,
                            public PiImageModifierProtocol,
                            public PiToolPolicyProtocol<C, PiImageModifier::Descriptor> {
    using Policy = PiToolPolicyProtocol<C, PiImageModifier::Descriptor>;

public:
    using PiToolProtocolImp::PiToolProtocolImp;

    virtual void describe(PiImageModifier::Descriptor& descriptor) {
        ++_descriptionFetches;
        descriptor.stores(PiImageModifier::getMuteValueName(), 0);
        descriptor.stores(PiImageModifier::getAffectValueName(), 2);
        descriptor.produces(PiImageModifier::getOutputName(), 5);
        C::describe(descriptor);
        PiImageModifier::describeMasking(descriptor);
    }

    virtual void copyFromDescriptor(PiImageModifier::Descriptor& descriptor) {
        Policy::copyPolicies(descriptor);
        _canMute = descriptor.canMute();
        _canAffect[0] = descriptor.canAffect(0);
        _canAffect[1] = descriptor.canAffect(1);
        _canAffect[2] = descriptor.canAffect(2);
        _canBeDisplayModifier = descriptor.canBeDisplayModifier();
        _maskingMode = descriptor.getMaskingMode();
        _values = descriptor.getValues();
        _outputs = descriptor.getOutputs();
        PiImageModifierProtocol::checkRequirements();
    }

    void initializeController(C& controller) override {
        fetchDescription();
        Policy::initializeController(controller);
        if (getMaskingMode() != PiImageModifierTypes::NoMasking) PiImageModifier::addMaskingInputPolicies(controller);
    }

    void describe(PiToolDescriptor& tool) override {
        fetchDescription();
        for (const auto& value : _values) tool.values.push_back(value.first);
        for (const auto& output : _outputs) tool.outputs.push_back(output.first);
    }
    const std::string& getPrimaryInput() override {
        fetchDescription();
        return Policy::primaryInput;
    }
    OPtrRet<PiNodeController> createController() override {
        fetchDescription();
        auto controller = std::make_unique<C>();
        initializeController(*controller);
        return controller;
    }
    bool canMute() override { return fetchDescription(), _canMute; }
    bool canAffectColor() override { return fetchDescription(), _canAffect[0]; }
    bool canAffectAlpha() override { return fetchDescription(), _canAffect[1]; }
    bool canAffectMatte() override { return fetchDescription(), _canAffect[2]; }
    bool canBeDisplayModifier() override { return fetchDescription(), _canBeDisplayModifier; }
    PiImageModifierTypes::MaskingMode getMaskingMode() override { return fetchDescription(), _maskingMode; }

    // How many times `describe` ran: one after the first question, however many follow.
    int getDescriptionFetches() const { return _descriptionFetches; }

private:
    // Fetched once, at the first question. No lock: the host asks on the application thread.
    void fetchDescription() {
        if (!Policy::policies.isNull()) return;
        PiImageModifier::Descriptor descriptor(nullptr);
        describe(descriptor);
        copyFromDescriptor(descriptor);
    }

    bool _canMute = false;
    bool _canAffect[3] = {false, false, false};
    bool _canBeDisplayModifier = false;
    PiImageModifierTypes::MaskingMode _maskingMode = PiImageModifierTypes::NoMasking;
    std::vector<std::pair<std::string, int>> _values;
    std::vector<std::pair<std::string, int>> _outputs;
    int _descriptionFetches = 0;
};

}  // namespace Zt
