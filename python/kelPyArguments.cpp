#include "kelPyArguments.h"

#include <cmath>
#include <cstdio>

#include "kelImageFiles.h"
#include "kelOptions.h"

namespace Zt::KelPython {

namespace {

std::string typeName(py::handle value) { return py::str(value.get_type().attr("__name__")); }

// The command's parsers speak of options; their UsageError is a ValueError here.
template <class Parse>
auto parsed(Parse parse) {
    try {
        return parse();
    } catch (const KelApp::UsageError& e) {
        throw py::value_error(e.what());
    }
}

// An integer's decimal text, for the command's parsers; TypeError for anything but an integer.
std::string integerText(const std::string& name, py::handle value) {
    if (!PyIndex_Check(value.ptr()) || PyBool_Check(value.ptr()))
        throw py::type_error(name + " must be an integer, not " + typeName(value));
    return py::str(py::reinterpret_steal<py::object>(PyNumber_Index(value.ptr())));
}

}  // namespace

double numberArgument(const std::string& name, py::handle value) {
    if (PyUnicode_Check(value.ptr()) || PyBytes_Check(value.ptr()))
        throw py::type_error(name + " must be a number, not " + typeName(value));
    try {
        return value.cast<double>();
    } catch (const py::cast_error&) {
        throw py::type_error(name + " must be a number, not " + typeName(value));
    }
}

int integerArgument(const std::string& name, py::handle value, int minimum, int maximum) {
    const std::string text = integerText(name, value);
    return parsed([&] { return KelApp::parseInteger(name, text, minimum, maximum); });
}

std::pair<int, int> sizeArgument(const std::string& name, py::handle value) {
    if (!PySequence_Check(value.ptr()) || PyUnicode_Check(value.ptr()) || py::len(value) != 2)
        throw py::type_error(name + " must be a pair (width, height), not " + typeName(value));
    const py::sequence pair = py::reinterpret_borrow<py::sequence>(value);
    const std::string text = integerText(name, pair[0]) + "x" + integerText(name, pair[1]);
    return parsed([&] { return KelApp::parseSize(name, text); });
}

double timeArgument(const std::string& name, py::handle value) {
    char text[32];
    std::snprintf(text, sizeof text, "%.17g", numberArgument(name, value));
    return parsed([&] { return KelApp::parseTime(name, text); });
}

IxPixelFormat pixelAspectArgument(const std::string& name, py::handle value) {
    const double aspect = numberArgument(name, value);
    const IxPixelFormat format = KelApp::aspectFormat(aspect);
    // aspectFormat falls back to 1/1 for what no fraction it makes can stand for.
    if (!(std::abs(double(format.aspectNum) / format.aspectDen - aspect) <= 0.01 * aspect))
        throw py::value_error("invalid value " + std::string(py::repr(value)) + " for " + name +
                              ": expected a positive pixel aspect");
    return format;
}

}  // namespace Zt::KelPython
