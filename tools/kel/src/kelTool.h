// The tool "KEL" with its description object and its node controller.
// KelTool holds the user-interface factory that another library may store; KelController (private
// to kelTool.cpp) is the PebController that makes KelInterpreters.
#pragma once

#include "PiTool.h"

namespace Zt {

// A class without instances: only its static factory slot.
class KelTool {
public:
    KelTool() = delete;
    // Stores; may be called at any time after load. The library never calls the factory.
    static void setUiFactory(PiUiFactory factory);
    static PiUiFactory uiFactory;  // null until set, and again after shutdown
};

// Builds PiImageModifierInfo<KelController> and gives it to
// PiImageModifier::registerTool.
void kelRegisterTool();

// How many times the registered tool's description was fetched (the description is built lazily, once): for tests.
int kelDescriptionFetches();

}  // namespace Zt
