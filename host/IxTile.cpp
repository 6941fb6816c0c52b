// Rows of a tile to and from a colour scanline (Part 1.2 steps 22d and 22f). Columns of the
// scanline outside the tile are left as they are on read and not written on write.
#include <algorithm>

#include "PxImage.h"

namespace Zt {

template <>
void IxScanline<Color>::readFrom(const IxReadGuard& guard, int y) {
    const IxTile& tile = guard.tile();
    const GeRectangle<int>& r = tile.getRect();
    Color* d = data();
    int lo = std::max(minimum(), r.xMin), hi = std::min(maximum(), r.xMax);
    bool rowInside = y >= r.yMin && y < r.yMax;
    // Outside the tile: the input's fill colour (host.md).
    for (int x = minimum(); x < maximum(); ++x)
        if (!rowInside || x < lo || x >= hi) d[x] = tile.getFillColor();
    if (!rowInside) return;
    const Color* s = tile.row(y) - r.xMin;
    for (int x = lo; x < hi; ++x) d[x] = s[x];
}

template <>
void IxScanline<Color>::writeTo(const IxWriteGuard& guard, int y) const {
    IxTile& tile = guard.tile();
    const GeRectangle<int>& r = tile.getRect();
    if (y < r.yMin || y >= r.yMax) return;
    const Color* s = data();
    Color* d = tile.row(y) - r.xMin;
    int lo = std::max(minimum(), r.xMin), hi = std::min(maximum(), r.xMax);
    for (int x = lo; x < hi; ++x) d[x] = s[x];
}

}  // namespace Zt
