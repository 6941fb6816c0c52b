// An image input over a numpy array's own memory, so that rendering over an array neither copies
// nor flips it: full-resolution tiles inside the image lend the array's rows, bottom row first,
// by a negative row stride. Tiles over the image's edges copy what they cover; at other scale
// levels the image is served by a bottom-up copy (PxMemoryImage, with its downsampling), made on
// the first such request. So the pixels are those of a PxMemoryImage of the same rows.
#pragma once

#include <mutex>

#include "PxMemoryImage.h"
#include "kelPyArrays.h"

namespace Zt::KelPython {

class ArrayImage : public PxImageProtocol {
public:
    // Holds a reference to `rgba` (taken with the GIL held) for as long as the node lives.
    explicit ArrayImage(RgbaArray rgba);
    // Releases the reference under the GIL, from whatever thread the node dies on.
    ~ArrayImage() override;
    ArrayImage(const ArrayImage&) = delete;
    ArrayImage& operator=(const ArrayImage&) = delete;

    // Aspect 1/1: an array carries none.
    PxImageFormat getFormat() const override;
    // The nominal rectangle (0, W, 0, H), valid at all times.
    PxRODResult getROD(const PxImageContext& context) const override;
    PxImageResult getImage(const PxImageContext& context) const override;

private:
    // Row y of the host's image, 0 the bottom row.
    const Color* row(int y) const { return _top + std::size_t(_height - 1 - y) * std::size_t(_width); }
    const PxMemoryImage& bottomUpCopy() const;

    RgbaArray _array;
    const Color* _top;
    int _width;
    int _height;
    mutable std::once_flag _copied;
    mutable PxNodePtr<PxMemoryImage> _copy;
};

}  // namespace Zt::KelPython
