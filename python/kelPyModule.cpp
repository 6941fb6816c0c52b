// The Python module `kel`: compile a KEL script, render it over numpy arrays, read and write
// image files, with the pixels, messages and files of the `kel` command. This file only binds
// names and turns C++ failures into Python exceptions; the work is in the kelPy* files.
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>
#include <pybind11/stl/filesystem.h>

#include "kelPyArguments.h"
#include "kelPyFiles.h"
#include "kelPyScript.h"
#include "kelScript.h"

namespace py = pybind11;
using namespace Zt;
using namespace Zt::KelPython;

namespace {

PyObject* gScriptError = nullptr;

py::list errorList(const std::vector<std::pair<int, std::string>>& errors) {
    py::list list;
    for (const auto& [line, message] : errors) list.append(py::make_tuple(line, message));
    return list;
}

// One error a line, "line N: MESSAGE" ("MESSAGE" for line 0), as the exception's text.
std::string errorText(const std::vector<std::pair<int, std::string>>& errors) {
    std::string text;
    for (const auto& [line, message] : errors)
        text += (text.empty() ? "" : "\n") + (line > 0 ? "line " + std::to_string(line) + ": " : std::string()) + message;
    return text;
}

void translateFailures(std::exception_ptr failure) {
    try {
        if (failure) std::rethrow_exception(failure);
    } catch (const ScriptRefused& refused) {
        const py::object error = py::reinterpret_borrow<py::object>(gScriptError)(errorText(refused.errors));
        error.attr("errors") = errorList(refused.errors);
        PyErr_SetObject(gScriptError, error.ptr());
    } catch (const ExBase& e) {
        // A failure of the script while it renders, or of the engine.
        PyErr_SetString(PyExc_RuntimeError, KelApp::readableReason(e).c_str());
    }
}

CompiledScript::FloatInputs floatInputs(const py::dict& floats) {
    CompiledScript::FloatInputs result;
    for (const auto& [key, value] : floats) {
        if (!PyUnicode_Check(key.ptr())) throw py::type_error("floats maps names (str) to numbers");
        const std::string name = py::str(key);
        result.emplace_back(name, numberArgument(name, value));
    }
    return result;
}

}  // namespace

PYBIND11_MODULE(kel, m) {
    m.doc() = "KEL, the per-pixel effect language, in Python: compile a script, render it over numpy arrays\n"
              "(float32, shape (height, width, 4), top row first), read and write image files.";

    gScriptError = PyErr_NewExceptionWithDoc(
        "kel.ScriptError", "The script was refused. .errors lists (line, message) for each error, as the engine gives them.",
        PyExc_ValueError, nullptr);
    m.attr("ScriptError") = py::handle(gScriptError);
    py::register_exception_translator(translateFailures);

    py::class_<CompiledScript, std::shared_ptr<CompiledScript>>(m, "Script", "A compiled script; kel.compile makes one.")
        .def("render", [](const CompiledScript& script, const py::kwargs& arguments) { return script.render(arguments); },
             "render(**arguments) -> numpy.ndarray\n\n"
             "Renders one frame: float32, shape (height, width, 4), top row first. Arguments by name:\n"
             "  each image input: an array (float, (h, w) grey or (h, w, C) with C from 1 to 4), required;\n"
             "  each float input: a number, default the one given to compile;\n"
             "  size=(width, height): the frame's size, only without image inputs (then required);\n"
             "  time=0, scale_level=0, pixel_aspect (default the first input's, 1),\n"
             "  threads=0 (every core), tile=(1024, 16).\n"
             "The GIL is released while the frame renders; KeyboardInterrupt cancels it.")
        .def_property_readonly("inputs", &CompiledScript::images, "The image inputs, in order.")
        .def_property_readonly(
            "floats",
            [](const CompiledScript& script) {
                py::dict floats;
                for (const auto& [name, value] : script.floats()) floats[py::str(name)] = value;
                return floats;
            },
            "The float inputs and their default values.")
        .def_property_readonly("warnings", [](const CompiledScript& script) { return errorList(script.warnings()); },
                               "(line, message) for each error of a script that compiled nonetheless.");

    m.def(
        "compile",
        [](const std::string& source, std::optional<std::vector<std::string>> inputs, std::optional<py::dict> floats) {
            return CompiledScript::compile(source, std::move(inputs),
                                           floats ? std::optional(floatInputs(*floats)) : std::nullopt);
        },
        py::arg("source"), py::arg("inputs") = py::none(), py::arg("floats") = py::none(),
        "compile(source, inputs=None, floats=None) -> Script\n\n"
        "Compiles the script text against its parameters: `inputs`, the names of the image inputs, and\n"
        "`floats`, a dict of float inputs and their default values. Either one left out is what the\n"
        "script declares in its `// @input` and `// @param` lines. Raises kel.ScriptError.");

    m.def(
        "read", [](const std::filesystem::path& path) { return readImageFile(path.string()); }, py::arg("path"),
        "read(path) -> numpy.ndarray\n\nThe image file's pixels, float32 RGBA (height, width, 4), top row first, as the\n"
        "kel command reads them. Raises OSError.");
    m.def(
        "write",
        [](const std::filesystem::path& path, py::handle image, py::handle pixelAspect) {
            writeImageFile(path.string(), image, pixelAspectArgument("pixel_aspect", pixelAspect));
        },
        py::arg("path"), py::arg("image"), py::arg("pixel_aspect") = 1.0,
        "write(path, image, pixel_aspect=1.0)\n\nWrites the array as the kel command writes its output: the format of the\n"
        "extension, whole or not at all. Raises OSError.");
}
