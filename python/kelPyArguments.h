// Keyword arguments of the module's functions turned into the values the command's options take:
// a value of the wrong kind is a TypeError, one out of range a ValueError, with the command's own
// limits and wording, so that `render(tile=(0, 16))` and `kel render --tile 0x16` are refused alike.
#pragma once

#include <string>
#include <utility>

#include <pybind11/pybind11.h>

#include "PxImage.h"

namespace Zt::KelPython {

namespace py = pybind11;

// A real number (a Python int, float or numpy scalar).
double numberArgument(const std::string& name, py::handle value);
// A Python int from `minimum` to `maximum`.
int integerArgument(const std::string& name, py::handle value, int minimum, int maximum);
// A pair of positive ints (width, height), as the command's WxH.
std::pair<int, int> sizeArgument(const std::string& name, py::handle value);
// A time within the limits of a validity interval.
double timeArgument(const std::string& name, py::handle value);
// A positive pixel aspect, as the nearest fraction of IxPixelFormat.
IxPixelFormat pixelAspectArgument(const std::string& name, py::handle value);

}  // namespace Zt::KelPython
