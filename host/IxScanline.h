// IxScanline<T>: one row of T over a half-open column interval, contiguous, indexed by the
// absolute column through a biased pointer. The element at the interval's minimum is aligned to
// 64 bytes (a cache line; the mask's `narrow` needs 16), and the storage is padded to a whole
// number of 16-byte groups so that four-wide loads of the last group stay inside it.
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
        _storage = static_cast<T*>(::operator new(bytes, std::align_val_t(64)));
    }
    IxScanline(const IxScanline&) = delete;
    IxScanline& operator=(const IxScanline&) = delete;
    ~IxScanline() override { ::operator delete(_storage, std::align_val_t(64)); }

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

    // Colour only: one row of a tile (defined in IxTile.cpp).
    void readFrom(const IxReadGuard& guard, int y);
    void writeTo(const IxWriteGuard& guard, int y) const;

private:
    GeInterval<int> _interval;
    IxPaddingPolicy<T> _policy;
    T* _storage = nullptr;
};

template <>
void IxScanline<Color>::readFrom(const IxReadGuard& guard, int y);
template <>
void IxScanline<Color>::writeTo(const IxWriteGuard& guard, int y) const;

}  // namespace Zt
