// Rows of a tile to and from a colour scanline: an input's row before the script runs on it, the
// output's row after. On read, the columns of the scanline outside the tile (or a row outside
// it) get the tile's fill colour, as every pixel outside an input's rectangle does; on write,
// they are not written. A row that the tile holds whole is lent rather than read, and a row
// written from the tile's own storage is not copied onto itself.
#include <algorithm>

#include "PxImage.h"

namespace Zt {

template <>
void IxScanline<Color>::readFrom(const IxReadGuard& guard, int y) {
    reclaim();  // never into a lender's row
    const IxTile& tile = guard.tile();
    const GeRectangle<int>& r = tile.getRect();
    Color* d = data();
    const bool rowInside = y >= r.yMin && y < r.yMax;
    const int lo = rowInside ? std::clamp(r.xMin, minimum(), maximum()) : maximum();
    const int hi = rowInside ? std::clamp(r.xMax, lo, maximum()) : maximum();
    const Color fill = tile.getFillColor();
    std::fill(d + minimum(), d + lo, fill);
    if (lo < hi) std::copy(tile.row(y) + (lo - r.xMin), tile.row(y) + (hi - r.xMin), d + lo);
    std::fill(d + hi, d + maximum(), fill);
}

template <>
void IxScanline<Color>::writeTo(const IxWriteGuard& guard, int y) const {
    IxTile& tile = guard.tile();
    const GeRectangle<int>& r = tile.getRect();
    if (y < r.yMin || y >= r.yMax) return;
    const int lo = std::max(minimum(), r.xMin), hi = std::min(maximum(), r.xMax);
    Color* to = tile.row(y) + (lo - r.xMin);
    if (lo < hi && to != data() + lo) std::copy(data() + lo, data() + hi, to);
}

template <>
void IxScanline<Color>::lendFrom(const IxReadGuard& guard, int y) {
    const IxTile& tile = guard.tile();
    const GeRectangle<int>& r = tile.getRect();
    if (y < r.yMin || y >= r.yMax || minimum() < r.xMin || maximum() > r.xMax || minimum() >= maximum())
        return readFrom(guard, y);
    lend(const_cast<Color*>(tile.row(y) + (minimum() - r.xMin)));
}

}  // namespace Zt
