// Fuzz target: `parse` on arbitrary bytes. Any outcome is fine except a crash, a
// hang, a sanitizer report, or an exception other than the framework's cast failure (which
// the grammar cannot produce). A successful parse is also printed, to cover `print`.
#include <sstream>
#include <string>

#include "kelFuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace Zt;
    fuzz::initializeOnce();
    const KelInterpreter interpreter;
    RCShdPtr<PebRunInfo> runInfo = interpreter.createRunInfo(fuzz::parameters());
    Vector<PebError> errors;
    const std::string script(reinterpret_cast<const char*>(data), size);
    if (interpreter.parse(script, runInfo, &errors)) {
        std::ostringstream out;
        try {
            static_cast<KelRunInfo&>(*runInfo).function->print(out);
        } catch (const ExNullPtr&) {
            // Printing a `for` without its first or third clause throws, by design.
        }
    }
    return 0;
}
