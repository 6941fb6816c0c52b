// A script compiled for Python: the KEL tool's controller with its parameter list (the image
// inputs, then the float inputs, then the output), rendered frame by frame through renderFrame,
// the path the command renders by, so the pixels are those of `kel render`. Compilations are
// serialised (the parser runs on one thread at a time); renders of compiled scripts run at once
// from any number of threads.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <pybind11/numpy.h>

#include "PebController.h"

namespace Zt::KelPython {

namespace py = pybind11;

// The errors of a script (a line and the engine's exact message each); kel.ScriptError in Python.
struct ScriptRefused {
    std::vector<std::pair<int, std::string>> errors;
};

class CompiledScript {
public:
    using FloatInputs = std::vector<std::pair<std::string, double>>;

    // Compiles `source` against `images` and `floats` (name and default value); each one not
    // given is what the script declares in its `// @input` and `// @param` lines. Throws
    // ScriptRefused when the script or a declaration line is refused, ValueError for a name that
    // can't be a parameter, RuntimeError when the engine's plug-in can't be loaded.
    static std::shared_ptr<CompiledScript> compile(const std::string& source, std::optional<std::vector<std::string>> images,
                                                   std::optional<FloatInputs> floats);

    // One frame (see the module's documentation of Script.render for the arguments).
    py::array render(const py::kwargs& arguments) const;

    const std::vector<std::string>& images() const { return _images; }
    const FloatInputs& floats() const { return _floats; }
    // The errors of a script that compiled, as warnings.
    const std::vector<std::pair<int, std::string>>& warnings() const { return _warnings; }

private:
    std::unique_ptr<PiNodeController> _holder;
    PebController* _controller = nullptr;
    std::vector<std::string> _images;
    FloatInputs _floats;
    std::vector<std::pair<int, std::string>> _warnings;
};

}  // namespace Zt::KelPython
