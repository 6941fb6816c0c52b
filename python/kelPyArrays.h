// Pixels between numpy and the host. Python sees an image as a float32 array of shape
// (height, width, 4), top row first, as image libraries give it; the host holds RGBA float rows
// bottom row first. An input array is read in place (ArrayImage flips it by its row stride), a
// frame is rendered straight into the storage numpy takes over, top row first, and every other
// conversion is one pass.
#pragma once

#include <string>
#include <vector>

#include <pybind11/numpy.h>

#include "CoColor.h"
#include "IxTileStorage.h"
#include "PxImage.h"

namespace Zt::KelPython {

namespace py = pybind11;

using RgbaArray = py::array_t<float, py::array::c_style | py::array::forcecast>;

// The image argument `name` as a float32 (height, width, 4) array in C order: the argument itself
// when it is one, else a converted copy. Takes whatever numpy.asarray takes, of a floating-point
// type, shaped (height, width) for grey or (height, width, C): C = 1 is grey with alpha 1, 2 grey
// and alpha, 3 RGB with alpha 1, 4 RGBA. TypeError for integer, boolean or non-numeric pixels
// (their scale is the caller's to choose); ValueError for any other shape or an empty image.
RgbaArray rgbaArray(py::handle image, const std::string& name);

// The rows of `rgba`, bottom row first, as the host holds them.
std::vector<Color> bottomFirstPixels(const RgbaArray& rgba);

// The storage a frame is rendered into and numpy then takes over: the host writes the rows bottom
// row first down from the end of the buffer (a negative stride), so the array reads them top row
// first as they lie. The buffer comes from IxTileStorage and goes back to it with the array, so
// the next frame of the same size reuses pages already faulted in.
class TopFirstFrame {
public:
    TopFirstFrame() = default;
    ~TopFirstFrame() { IxTileStorage::release(std::move(_pixels), _capacity); }
    TopFirstFrame(const TopFirstFrame&) = delete;
    TopFirstFrame& operator=(const TopFirstFrame&) = delete;

    // Rows for a frame of `rect`, kept until the array is made; the same rows again when a render
    // starts over. Needs no GIL.
    PxTileDestination rows(const GeRectangle<int>& rect);
    // The rendered frame as a (height, width, 4) float32 array that owns the pixels. Needs the GIL.
    py::array toArray();

private:
    IxTileStorage::Buffer _pixels;
    std::size_t _capacity = 0;
    GeRectangle<int> _rect;
};

// A new (height, width, 4) float32 array holding `bottomFirst`'s rows, top row first.
py::array copyFrame(const Color* bottomFirst, int width, int height);

}  // namespace Zt::KelPython
