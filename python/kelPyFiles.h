// Image files for the module, through the command's own readers and writers, so that a file
// reads and writes as it does with `kel render` (channels, pixel aspect, bit depth by format,
// all-or-nothing output). The one place where the module meets the image file library.
#pragma once

#include <string>

#include <pybind11/numpy.h>

#include "PxImage.h"

namespace Zt::KelPython {

namespace py = pybind11;

// The file's pixels as a (height, width, 4) float32 array, top row first; OSError when it can't
// be read.
py::array readImageFile(const std::string& path);

// Writes `image` (any array that rgbaArray takes) to `path`, whole or not at all, in the format
// of its extension, with `format`'s pixel aspect as its PixelAspectRatio; OSError when it can't
// be written.
void writeImageFile(const std::string& path, py::handle image, const IxPixelFormat& format);

}  // namespace Zt::KelPython
