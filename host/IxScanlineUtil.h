// IxScanlineUtil: the bulk operations over scanlines that the system's arithmetic rests on.
// Every form is a callable of its own, destination first, so that the engine's operator tables
// hold them as plain function pointers. Each is a plain loop over raw contiguous rows; the
// destination may be the same object as a source.
//
// What every operation guarantees:
// - comparisons and logic write 1.0 for true and 0.0 for false;
// - `!` (notScanline) gives 1.0 for a 0.0 (or -0.0) entry and 0.0 otherwise;
// - `&&` and `||` treat any non-zero entry (NaN included) as true;
// - colour equality needs all four channels equal; `!=` is its negation;
// - a float combines with every channel of a colour, alpha included;
// - division by zero follows IEEE 754 (infinity or NaN), no guard;
// - extractChannel's InvertType 0 gives the plain channel; 1 gives 1 - channel.
// A masked store writes a column when the condition there is not 0.0 (NaN counts as set).
#pragma once

#include <algorithm>

#include <bit>
#include <cstdint>
#include <type_traits>

#if defined(__SSE2__)
#include <xmmintrin.h>
#endif

// No column of a block depends on another (see kBlock below): GCC's ivdep, clang's equivalent.
#if defined(__clang__)
#define KEL_IVDEP _Pragma("clang loop vectorize(enable)")
#else
#define KEL_IVDEP _Pragma("GCC ivdep")
#endif

#include "IxScanline.h"

namespace Zt {

struct IxScanlineUtilTypes {
    enum InvertType { NoInvert = 0, Invert = 1 };
};

class IxScanlineUtil {
public:
    using Limit = const GeInterval<int>*;

    // Fill and copy
    template <class T>
    static void set(IxScanline<T>& dest, const T& value, Limit limit = nullptr) {
        auto [lo, hi] = range(dest, limit);
        T* d = dest.data();
        int x = lo;
        if constexpr (std::is_same_v<T, float>) {
            // Blocks, as in map1 below: every literal and declaration fills a row (issue 8).
            const float v = value;
            for (; x + kBlock <= hi; x += kBlock) {
KEL_IVDEP
                for (int i = 0; i < kBlock; ++i) d[x + i] = v;
            }
        }
        for (; x < hi; ++x) d[x] = value;
    }
    template <class T>
    static void copy(IxScanline<T>& dest, const IxScanline<T>& src, Limit limit = nullptr) {
        auto [lo, hi] = range(dest, limit);
        // A plain copy of the elements: the library's memmove (issue 8: masks are saved and
        // restored by copy at every `if` and loop).
        if (lo < hi) std::copy(src.data() + lo, src.data() + hi, dest.data() + lo);
    }

    // Unary
    template <class T>
    static void minusScanline(IxScanline<T>& dest, const IxScanline<T>& src, Limit limit = nullptr) {
        map1(dest, src, limit, [](const T& v) { return -v; });
    }
    static void notScanline(IxScanline<float>& dest, const IxScanline<float>& src, Limit limit = nullptr) {
        map1(dest, src, limit, [](float v) { return v == 0.0f ? 1.0f : 0.0f; });
    }

    // Binary arithmetic: forms <float,float,float>, <C,C,C>, <C,C,float>, <C,float,C>
    template <class D, class A, class B>
    static void addScanlines(IxScanline<D>& dest, const IxScanline<A>& a, const IxScanline<B>& b, Limit limit = nullptr) {
        map2(dest, a, b, limit, [](const A& p, const B& q) { return p + q; });
    }
    template <class D, class A, class B>
    static void subtractScanlines(IxScanline<D>& dest, const IxScanline<A>& a, const IxScanline<B>& b, Limit limit = nullptr) {
        map2(dest, a, b, limit, [](const A& p, const B& q) { return p - q; });
    }
    template <class D, class A, class B>
    static void multiplyScanlines(IxScanline<D>& dest, const IxScanline<A>& a, const IxScanline<B>& b, Limit limit = nullptr) {
        map2(dest, a, b, limit, [](const A& p, const B& q) { return p * q; });
    }
    template <class D, class A, class B>
    static void divideScanlines(IxScanline<D>& dest, const IxScanline<A>& a, const IxScanline<B>& b, Limit limit = nullptr) {
        map2(dest, a, b, limit, [](const A& p, const B& q) { return p / q; });
    }

    // Comparison and logic
    template <class T>
    static void equalScanlines(IxScanline<float>& dest, const IxScanline<T>& a, const IxScanline<T>& b, Limit limit = nullptr) {
        map2(dest, a, b, limit, [](const T& p, const T& q) { return p == q ? 1.0f : 0.0f; });
    }
    template <class T>
    static void notEqualScanlines(IxScanline<float>& dest, const IxScanline<T>& a, const IxScanline<T>& b, Limit limit = nullptr) {
        map2(dest, a, b, limit, [](const T& p, const T& q) { return p != q ? 1.0f : 0.0f; });
    }
    static void lessThanScanlines(IxScanline<float>& dest, const IxScanline<float>& a, const IxScanline<float>& b, Limit limit = nullptr) {
        map2(dest, a, b, limit, [](float p, float q) { return p < q ? 1.0f : 0.0f; });
    }
    static void greaterThanScanlines(IxScanline<float>& dest, const IxScanline<float>& a, const IxScanline<float>& b, Limit limit = nullptr) {
        map2(dest, a, b, limit, [](float p, float q) { return p > q ? 1.0f : 0.0f; });
    }
    static void lessEqScanlines(IxScanline<float>& dest, const IxScanline<float>& a, const IxScanline<float>& b, Limit limit = nullptr) {
        map2(dest, a, b, limit, [](float p, float q) { return p <= q ? 1.0f : 0.0f; });
    }
    static void greaterEqScanlines(IxScanline<float>& dest, const IxScanline<float>& a, const IxScanline<float>& b, Limit limit = nullptr) {
        map2(dest, a, b, limit, [](float p, float q) { return p >= q ? 1.0f : 0.0f; });
    }
    static void andScanlines(IxScanline<float>& dest, const IxScanline<float>& a, const IxScanline<float>& b, Limit limit = nullptr) {
        map2(dest, a, b, limit, [](float p, float q) { return (p != 0.0f && q != 0.0f) ? 1.0f : 0.0f; });
    }
    static void orScanlines(IxScanline<float>& dest, const IxScanline<float>& a, const IxScanline<float>& b, Limit limit = nullptr) {
        map2(dest, a, b, limit, [](float p, float q) { return (p != 0.0f || q != 0.0f) ? 1.0f : 0.0f; });
    }

    // Masked stores: forms <float,float>, <C,C>, <C,float>
    template <class D, class S>
    static void copyIf(IxScanline<D>& dest, const IxScanline<S>& src, const IxScanline<float>* condition, Limit limit = nullptr) {
        store(dest, src, condition, limit, [](D& d, const S& s) { d = D(s) ; });
    }
    template <class D, class S>
    static void accumulateScanline(IxScanline<D>& dest, const IxScanline<S>& src, const IxScanline<float>* condition, Limit limit = nullptr) {
        store(dest, src, condition, limit, [](D& d, const S& s) { d = d + s; });
    }
    template <class D, class S>
    static void decrementScanline(IxScanline<D>& dest, const IxScanline<S>& src, const IxScanline<float>* condition, Limit limit = nullptr) {
        store(dest, src, condition, limit, [](D& d, const S& s) { d = d - s; });
    }
    template <class D, class S>
    static void mulAssignScanline(IxScanline<D>& dest, const IxScanline<S>& src, const IxScanline<float>* condition, Limit limit = nullptr) {
        store(dest, src, condition, limit, [](D& d, const S& s) { d = d * s; });
    }
    template <class D, class S>
    static void divAssignScanline(IxScanline<D>& dest, const IxScanline<S>& src, const IxScanline<float>* condition, Limit limit = nullptr) {
        store(dest, src, condition, limit, [](D& d, const S& s) { d = d / s; });
    }

    // Channels
    static void extractChannel(IxScanline<float>& dest, int channel, const IxScanline<Color>& src,
                               IxScanlineUtilTypes::InvertType invert, Limit limit = nullptr) {
        auto [lo, hi] = range(dest, limit);
        float* d = dest.data();
        const Color* s = src.data();
        if (invert == IxScanlineUtilTypes::NoInvert) {
            int x = lo;
#if defined(__SSE2__)
            // Four columns at a time, by shuffles: the channel reader of every keyed script.
            switch (channel) {
                case 0: x = gatherChannel<0>(d, s, lo, hi); break;
                case 1: x = gatherChannel<1>(d, s, lo, hi); break;
                case 2: x = gatherChannel<2>(d, s, lo, hi); break;
                case 3: x = gatherChannel<3>(d, s, lo, hi); break;
            }
#endif
            for (; x < hi; ++x) d[x] = s[x][channel];
        } else {
            for (int x = lo; x < hi; ++x) d[x] = 1.0f - s[x][channel];
        }
    }
#if defined(__SSE2__)
    // Channel C of the four colours from s, by shuffles: the channel reader's four columns.
    template <int C>
    static __m128 channelOfFour(const Color* s) {
        const float* p = &s->r;
        const __m128 low = _mm_shuffle_ps(_mm_loadu_ps(p), _mm_loadu_ps(p + 4), _MM_SHUFFLE(C, C, C, C));
        const __m128 high = _mm_shuffle_ps(_mm_loadu_ps(p + 8), _mm_loadu_ps(p + 12), _MM_SHUFFLE(C, C, C, C));
        return _mm_shuffle_ps(low, high, _MM_SHUFFLE(2, 0, 2, 0));
    }
#endif
    static void replaceChannelIf(IxScanline<Color>& dest, const IxScanline<float>& src, const IxScanline<float>* condition,
                                 int channel, Limit limit = nullptr) {
        auto [lo, hi] = range(dest, limit);
        Color* d = dest.data();
        const float* s = src.data();
        if (!condition) {
            for (int x = lo; x < hi; ++x) d[x][channel] = s[x];
        } else {
            const float* c = condition->data();
            for (int x = lo; x < hi; ++x)
                if (c[x] != 0.0f) d[x][channel] = s[x];
        }
    }

private:
    struct Range { int lo, hi; };
    template <class T>
    static Range range(const IxScanline<T>& dest, Limit limit) {
        Range r{dest.minimum(), dest.maximum()};
        if (limit) {
            r.lo = std::max(r.lo, limit->min);
            r.hi = std::min(r.hi, limit->max);
        }
        if (r.hi < r.lo) r.hi = r.lo;
        return r;
    }
    // Float rows go in blocks of kBlock columns: the fixed trip count lets the compiler turn each
    // block into SIMD instructions at the project's -O2 (issue 8), and `ivdep` tells it that no
    // column depends on another (a destination is never a shifted source: it is another row or
    // the same row, column for column). A masked block selects between the new and the old bits
    // instead of branching per column. Results are those of the per-column loop, bit for bit; the remainder
    // runs per column. Colour rows keep the per-column loop, which the compiler already turns
    // into one SIMD operation per pixel.
    static constexpr int kBlock = 8;

    template <class D, class S, class F>
    static void map1(IxScanline<D>& dest, const IxScanline<S>& src, Limit limit, F f) {
        auto [lo, hi] = range(dest, limit);
        D* d = dest.data();
        const S* s = src.data();
        int x = lo;
        if constexpr (std::is_same_v<D, float> && std::is_same_v<S, float>) {
            for (; x + kBlock <= hi; x += kBlock) {
KEL_IVDEP
                for (int i = 0; i < kBlock; ++i) d[x + i] = f(s[x + i]);
            }
        }
        for (; x < hi; ++x) d[x] = f(s[x]);
    }
    template <class D, class A, class B, class F>
    static void map2(IxScanline<D>& dest, const IxScanline<A>& a, const IxScanline<B>& b, Limit limit, F f) {
        auto [lo, hi] = range(dest, limit);
        D* d = dest.data();
        const A* pa = a.data();
        const B* pb = b.data();
        int x = lo;
        if constexpr (std::is_same_v<D, float> && std::is_same_v<A, float> && std::is_same_v<B, float>) {
            for (; x + kBlock <= hi; x += kBlock) {
KEL_IVDEP
                for (int i = 0; i < kBlock; ++i) d[x + i] = f(pa[x + i], pb[x + i]);
            }
        }
        for (; x < hi; ++x) d[x] = f(pa[x], pb[x]);
    }
    template <class D, class S, class F>
    static void store(IxScanline<D>& dest, const IxScanline<S>& src, const IxScanline<float>* condition, Limit limit, F f) {
        auto [lo, hi] = range(dest, limit);
        D* d = dest.data();
        const S* s = src.data();
        if (!condition) {
            int x = lo;
            if constexpr (std::is_same_v<D, float> && std::is_same_v<S, float>) {
                for (; x + kBlock <= hi; x += kBlock) {
KEL_IVDEP
                    for (int i = 0; i < kBlock; ++i) f(d[x + i], s[x + i]);
                }
            }
            for (; x < hi; ++x) f(d[x], s[x]);
            return;
        }
        const float* c = condition->data();
        int x = lo;
        if constexpr (std::is_same_v<D, float> && std::is_same_v<S, float>) {
            for (; x + kBlock <= hi; x += kBlock) {
KEL_IVDEP
                for (int i = 0; i < kBlock; ++i) {
                    const float old = d[x + i];
                    float updated = old;
                    f(updated, s[x + i]);
                    d[x + i] = select(c[x + i], updated, old);
                }
            }
        }
        for (; x < hi; ++x)
            if (c[x] != 0.0f) f(d[x], s[x]);
    }
#if defined(__SSE2__)
    // d[x] = s[x][C] for the groups of four columns from lo; returns the first column left.
    template <int C>
    static int gatherChannel(float* d, const Color* s, int lo, int hi) {
        int x = lo;
        for (; x + 4 <= hi; x += 4) _mm_storeu_ps(d + x, channelOfFour<C>(s + x));
        return x;
    }
#endif
    // Bitwise, so that NaN payloads and -0.0 are kept exactly as the branch would keep them.
    static float select(float condition, float set, float kept) {
        const std::uint32_t keep = condition != 0.0f ? 0u : ~0u;
        const std::uint32_t a = std::bit_cast<std::uint32_t>(set), b = std::bit_cast<std::uint32_t>(kept);
        return std::bit_cast<float>((a & ~keep) | (b & keep));
    }
};

}  // namespace Zt
