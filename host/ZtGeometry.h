// Geometry of the host framework: GeInterval (half-open column interval), GeRectangle (x minimum,
// x maximum, y minimum, y maximum; integer maxima exclusive) and the small matrices that the
// sampler uses (the texture matrix of `sample`).
#pragma once

#include <algorithm>

namespace Zt {

template <class T>
struct GeInterval {
    T min{};
    T max{};
    GeInterval() = default;
    GeInterval(T minimum, T maximum) : min(minimum), max(maximum) {}
    T size() const { return max > min ? max - min : T(0); }
    bool isEmpty() const { return !(max > min); }
    bool operator==(const GeInterval&) const = default;
};

template <class T>
struct GeRectangle {
    T xMin{};
    T xMax{};
    T yMin{};
    T yMax{};
    GeRectangle() = default;
    GeRectangle(T x0, T x1, T y0, T y1) : xMin(x0), xMax(x1), yMin(y0), yMax(y1) {}
    T width() const { return xMax - xMin; }
    T height() const { return yMax - yMin; }
    bool isEmpty() const { return !(xMax > xMin) || !(yMax > yMin); }
    bool operator==(const GeRectangle&) const = default;
};

// 3 by 3, row major, translation in the last row: (x, y, 1) * M.
template <class T>
struct GeAffineMatrix2 {
    T m[3][3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}};
    void setIdentity() { *this = GeAffineMatrix2(); }
    void apply(T x, T y, T& ox, T& oy) const {
        ox = x * m[0][0] + y * m[1][0] + m[2][0];
        oy = x * m[0][1] + y * m[1][1] + m[2][1];
    }
};

template <class T>
struct GeLinearMatrix2 {
    T m[2][2] = {{1, 0}, {0, 1}};
    void setIdentity() { *this = GeLinearMatrix2(); }
};

// a / b rounded down (b > 0), for the tile and pixel indices of negative coordinates, where `/`
// rounds towards zero.
constexpr int floorDiv(int a, int b) { return a / b - ((a % b != 0) && (a < 0)); }

}  // namespace Zt
