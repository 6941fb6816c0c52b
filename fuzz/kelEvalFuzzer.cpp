// Fuzz target: parse, and when the parse succeeds, evaluate one small tile over a generated
// input. Loops are bounded through the cancellation check (each row and each loop pass reaches
// PxRequestMgr::checkRequest), so a script that loops for ever ends with ExCancelled.
#include <string>
#include <vector>

#include "PxMemoryImage.h"
#include "kelFuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace Zt;
    fuzz::initializeOnce();
    static const PxNodePtr<const PxImageProtocol> source = [] {
        std::vector<Color> pixels(8 * 5);
        for (std::size_t i = 0; i < pixels.size(); ++i)
            pixels[i] = Color(float(i % 8) / 7, float(i / 8) / 4, 0.5f, i % 3 ? 1.0f : 0.5f);
        return PxNodePtr<const PxImageProtocol>(new PxMemoryImage(8, 5, pixels));
    }();
    const KelInterpreter interpreter;
    RCShdPtr<PebRunInfo> runInfo = interpreter.createRunInfo(fuzz::parameters());
    Vector<PebError> errors;
    if (!interpreter.parse(std::string(reinterpret_cast<const char*>(data), size), runInfo, &errors)) return 0;

    PxImageContext context;
    context.tileWidth = 6;
    context.tileHeight = 3;
    context.time = 2.0;
    const PxRODResult rod{PxValidityInterval::getFull(), GeRectangle<float>(0, 8, 0, 5)};
    PxRequestMgr::getInstance().setCheckBudget(2000);
    try {
        interpreter.eval(runInfo, {source}, {1.5}, rod, IxPixelFormat{1, 1}, context);
    } catch (const ExCancelled&) {
        // A script that loops for ever: stopped by the budget, as a render would be by a timeout.
    }
    PxRequestMgr::getInstance().setCheckBudget(-1);
    return 0;
}
