// IxScanline<T>: one row of T over a half-open column interval, contiguous, indexed by the
// absolute column through a biased pointer. The element at the interval's minimum is aligned to
// 64 bytes (a cache line; the mask's `narrow` needs 16), and the storage is padded to a whole
// number of 16-byte groups so that four-wide loads of the last group stay inside it.
// A scanline may also be lent a row kept elsewhere (a tile's row, an image's row) and reads and
// writes there until it takes its own storage back: rows then pass from image to script and
// from script to image without a copy.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <new>

#include "CoColor.h"
#include "ZtGeometry.h"
#include "ZtRC.h"

namespace Zt {

class IxReadGuard;
class IxWriteGuard;

// `mode` and `padValue` are recorded; nothing reads outside a scanline, so no mode changes the
// storage. The two modes in use are named.
template <class T>
struct IxPaddingPolicy {
    static constexpr int kPadWithFillColor = 0;  // an image's row: outside reads its fill colour
    static constexpr int kPadWithValue = 4;      // outside reads `padValue`
    int mode = kPadWithFillColor;
    T padValue{};
};

// Counted, so that an image entry can share an input's current row (KelImageEntry).
template <class T>
class IxScanline : public RCBase<LkCounter<int>> {
public:
    IxScanline(const GeInterval<int>& interval, const IxPaddingPolicy<T>& policy)
        : _interval(interval), _policy(policy) {
        std::size_t n = static_cast<std::size_t>(interval.size());
        std::size_t bytes = ((n * sizeof(T) + 63) / 64) * 64;
        if (bytes == 0) bytes = 64;
        _own = static_cast<T*>(::operator new(bytes, std::align_val_t(64)));
        _storage = _own;
    }
    IxScanline(const IxScanline&) = delete;
    IxScanline& operator=(const IxScanline&) = delete;
    ~IxScanline() override { ::operator delete(_own, std::align_val_t(64)); }

    const GeInterval<int>& getInterval() const { return _interval; }
    int minimum() const { return _interval.min; }
    int maximum() const { return _interval.max; }
    const IxPaddingPolicy<T>& getPolicy() const { return _policy; }

    // Biased pointer: element x of the row is data()[x] for x in the interval.
    T* data() { return _storage - _interval.min; }
    const T* data() const { return _storage - _interval.min; }
    // Unbiased pointer to the first element.
    T* begin() { return _storage; }
    const T* begin() const { return _storage; }
    T& operator[](int x) { return _storage[x - _interval.min]; }
    const T& operator[](int x) const { return _storage[x - _interval.min]; }

    // From now on the row is the interval's size of elements starting at `first` (the element
    // of the interval's minimum), which the lender keeps alive and in place until reclaim().
    // Nothing here tells a read-only row from a writable one: whoever lends a read-only row
    // lends it only to scanlines that are read. Lent rows need only the element's alignment.
    void lend(T* first) { _storage = first; }
    // Back to the scanline's own storage, with the contents it had before the first lend.
    void reclaim() { _storage = _own; }
    bool isLent() const { return _storage != _own; }

    // Colour only: one row of a tile (defined in IxTile.cpp).
    void readFrom(const IxReadGuard& guard, int y);
    void writeTo(const IxWriteGuard& guard, int y) const;
    // Row y of the tile as readFrom gives it, lent instead of copied where the tile holds
    // every column of the interval; the tile must outlive the lend.
    void lendFrom(const IxReadGuard& guard, int y);

private:
    GeInterval<int> _interval;
    IxPaddingPolicy<T> _policy;
    T* _own = nullptr;
    T* _storage = nullptr;
};

template <>
void IxScanline<Color>::readFrom(const IxReadGuard& guard, int y);
template <>
void IxScanline<Color>::writeTo(const IxWriteGuard& guard, int y) const;
template <>
void IxScanline<Color>::lendFrom(const IxReadGuard& guard, int y);

}  // namespace Zt
