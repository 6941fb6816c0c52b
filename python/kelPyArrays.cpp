#include "kelPyArrays.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>
#include <memory>

namespace Zt::KelPython {

namespace {

static_assert(sizeof(Color) == 4 * sizeof(float), "a colour is four packed floats: rows copy as memory");

// For an image of 1 to 4 channels, the channel that fills R, G, B and A; -1 fills with 1.
constexpr std::array<std::array<int, 4>, 4> kChannelSources{{
    {0, 0, 0, -1},  // grey
    {0, 0, 0, 1},   // grey and alpha
    {0, 1, 2, -1},  // RGB
    {0, 1, 2, 3},   // RGBA
}};

std::string shapeText(const py::array& array) {
    std::string text = "(";
    for (py::ssize_t i = 0; i < array.ndim(); ++i) text += (i ? ", " : "") + std::to_string(array.shape(i));
    return text + (array.ndim() == 1 ? ",)" : ")");
}

}  // namespace

RgbaArray rgbaArray(py::handle image, const std::string& name) {
    const py::array any = py::array::ensure(image);
    const char kind = any ? any.dtype().kind() : 'O';
    if (kind == 'i' || kind == 'u' || kind == 'b')
        throw py::type_error(name + " has " + std::string(py::str(any.dtype())) +
                             " pixels: convert them to floats at the scale you mean (for example a / 255.0)");
    if (kind != 'f')
        throw py::type_error(name + " must be an array of floating-point pixels, not " +
                             std::string(py::str(image.get_type().attr("__name__"))) +
                             (any ? " of " + std::string(py::str(any.dtype())) : std::string()));
    if (any.ndim() != 2 && any.ndim() != 3)
        throw py::value_error(name + " must have the shape (height, width, channels) or (height, width), not " + shapeText(any));
    const py::ssize_t height = any.shape(0), width = any.shape(1), channels = any.ndim() == 3 ? any.shape(2) : 1;
    if (channels < 1 || channels > 4)
        throw py::value_error(name + " has " + std::to_string(channels) +
                              " channels; an image has 1 to 4 (grey, grey and alpha, RGB, RGBA)");
    if (height < 1 || width < 1) throw py::value_error(name + " is empty: its shape is " + shapeText(any));
    if (height > INT_MAX || width > INT_MAX) throw py::value_error(name + " is too large: its shape is " + shapeText(any));

    // float32 in C order, converted only when the array is neither.
    RgbaArray floats = RgbaArray::ensure(any);
    if (!floats) throw py::error_already_set();
    if (channels == 4) return floats;
    RgbaArray rgba({height, width, py::ssize_t(4)});
    const float* src = floats.data();
    float* dst = rgba.mutable_data();
    const auto& sources = kChannelSources[std::size_t(channels - 1)];
    py::gil_scoped_release released;
    for (std::size_t i = 0, n = std::size_t(width) * std::size_t(height); i < n; ++i, src += channels, dst += 4)
        for (int c = 0; c < 4; ++c) dst[c] = sources[std::size_t(c)] < 0 ? 1.0f : src[sources[std::size_t(c)]];
    return rgba;
}

std::vector<Color> bottomFirstPixels(const RgbaArray& rgba) {
    const std::size_t height = std::size_t(rgba.shape(0)), width = std::size_t(rgba.shape(1));
    const Color* top = reinterpret_cast<const Color*>(rgba.data());
    py::gil_scoped_release released;
    std::vector<Color> pixels;
    pixels.reserve(width * height);
    for (std::size_t row = height; row-- > 0;) pixels.insert(pixels.end(), top + row * width, top + (row + 1) * width);
    return pixels;
}

PxTileDestination TopFirstFrame::rows(const GeRectangle<int>& rect) {
    const std::size_t count = rect.isEmpty() ? 0 : std::size_t(rect.width()) * std::size_t(rect.height());
    if (!_pixels || !(rect == _rect)) {
        IxTileStorage::release(std::move(_pixels), _capacity);
        _pixels = IxTileStorage::acquire(count, _capacity);
        _rect = rect;
    }
    if (!_pixels) return {nullptr, 0, rect};
    const std::ptrdiff_t width = rect.width();
    return {_pixels.get() + std::ptrdiff_t(count) - width, -width, rect};
}

py::array TopFirstFrame::toArray() {
    const py::ssize_t height = std::max(_rect.height(), 0), width = std::max(_rect.width(), 0);
    if (!_pixels) return RgbaArray({height, width, py::ssize_t(4)});
    struct Owned {
        IxTileStorage::Buffer pixels;
        std::size_t capacity;
    };
    auto owned = std::make_unique<Owned>(Owned{std::move(_pixels), _capacity});
    float* data = reinterpret_cast<float*>(owned->pixels.get());
    const py::capsule owner(owned.get(), [](void* p) {
        std::unique_ptr<Owned> dead(static_cast<Owned*>(p));
        IxTileStorage::release(std::move(dead->pixels), dead->capacity);
    });
    owned.release();
    const py::ssize_t rowBytes = width * py::ssize_t(sizeof(Color));
    return py::array_t<float>({height, width, py::ssize_t(4)}, {rowBytes, py::ssize_t(sizeof(Color)), py::ssize_t(sizeof(float))},
                              data, owner);
}

py::array copyFrame(const Color* bottomFirst, int width, int height) {
    py::array_t<float> array({py::ssize_t(height), py::ssize_t(width), py::ssize_t(4)});
    float* data = array.mutable_data();
    py::gil_scoped_release released;
    const std::size_t rowFloats = std::size_t(width) * 4;
    for (int row = 0; row < height; ++row)
        std::memcpy(data + std::size_t(height - 1 - row) * rowFloats, bottomFirst + std::size_t(row) * std::size_t(width),
                    rowFloats * sizeof(float));
    return array;
}

}  // namespace Zt::KelPython
