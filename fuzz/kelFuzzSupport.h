// Shared set-up of the fuzz targets: the static tables, the application thread, and the
// parameter list every input is compiled against (an image `src`, a float `gain`, `out`).
#pragma once

#include "kelInterpreter.h"
#include "kelZttoolInit.h"

namespace Zt::fuzz {

inline const Vector<PebParameterInfo>& parameters() {
    static const Vector<PebParameterInfo> params{{"src", PebInterpreterTypes::Image, false, false},
                                                 {"gain", PebInterpreterTypes::Float, false, false},
                                                 {"out", PebInterpreterTypes::Color, true, true}};
    return params;
}

inline void initializeOnce() {
    static const bool done = [] {
        PiAppThread::setCurrent();
        kelBuildStaticTables();
        return true;
    }();
    (void)done;
}

}  // namespace Zt::fuzz
