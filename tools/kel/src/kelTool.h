// Parts 6.1 and 6.2: the tool "KEL" with its description object and its node controller.
// KelTool holds the user-interface factory that another library may store; KelController (private
// to kelTool.cpp) is the PebController that makes KelInterpreters.
#pragma once

#include "PiTool.h"

namespace Zt {

// A class without instances (Part 6.1).
class KelTool {
public:
    KelTool() = delete;
    // Stores; may be called at any time after load. The library never calls the factory.
    static void setUiFactory(PiUiFactory factory);
    static PiUiFactory uiFactory;  // null until set, and again after shutdown
};

// Part 6.1 step 2: builds PiImageModifierInfo<KelController> and gives it to
// PiImageModifier::registerTool.
void kelRegisterTool();

// How many times the registered tool's description was fetched (Part 6.1's lazy step): tests.
int kelDescriptionFetches();

}  // namespace Zt
