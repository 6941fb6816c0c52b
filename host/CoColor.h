// CoRgbaColorTyped<float>: four floats red, green, blue, alpha, also channels 0..3.
// The arithmetic below is what the mixed scanline forms use: a float combines with every
// channel, alpha included, so that `c * 0.5` halves the alpha too.
#pragma once

namespace Zt {

template <class T>
struct CoRgbaColorTyped {
    T r{}, g{}, b{}, a{};
    constexpr CoRgbaColorTyped() = default;
    constexpr CoRgbaColorTyped(T red, T green, T blue, T alpha) : r(red), g(green), b(blue), a(alpha) {}
    // A float stored into a colour sets all four channels (the <C,float> scanline forms).
    explicit constexpr CoRgbaColorTyped(T all) : r(all), g(all), b(all), a(all) {}
    T& operator[](int channel) { return (&r)[channel]; }
    const T& operator[](int channel) const { return (&r)[channel]; }
    static const CoRgbaColorTyped ZERO;
};
template <class T>
const CoRgbaColorTyped<T> CoRgbaColorTyped<T>::ZERO{0, 0, 0, 0};

using Color = CoRgbaColorTyped<float>;
static_assert(sizeof(Color) == 16, "Color is four packed floats");

#define ZT_COLOR_OP(op)                                                                                  \
    inline Color operator op(const Color& p, const Color& q) { return {p.r op q.r, p.g op q.g, p.b op q.b, p.a op q.a}; } \
    inline Color operator op(const Color& p, float q) { return {p.r op q, p.g op q, p.b op q, p.a op q}; }              \
    inline Color operator op(float p, const Color& q) { return {p op q.r, p op q.g, p op q.b, p op q.a}; }
ZT_COLOR_OP(+)
ZT_COLOR_OP(-)
ZT_COLOR_OP(*)
ZT_COLOR_OP(/)
#undef ZT_COLOR_OP

// Colour equality needs all four channels equal, alpha included.
inline bool operator==(const Color& p, const Color& q) { return p.r == q.r && p.g == q.g && p.b == q.b && p.a == q.a; }
inline bool operator!=(const Color& p, const Color& q) { return !(p == q); }
inline Color operator-(const Color& p) { return {-p.r, -p.g, -p.b, -p.a}; }

}  // namespace Zt
