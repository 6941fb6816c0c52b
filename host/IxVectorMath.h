// IxVectorMath: whole rows of the single-precision functions that glibc's vector math library
// (libmvec, part of the C library) provides eight lanes at a time (issue 8). Found at run time:
// with an AVX2 and FMA processor and libmvec.so.1 loaded by dlopen, every column goes through
// the eight-lane function (the remainder padded), so that a column's result never depends on
// the row's length or start; otherwise every column goes through the scalar C function. The two
// agree to the C library's stated accuracy (a few ulps), not bit for bit.
#pragma once

namespace Zt {

class IxVectorMath {
public:
    // d[i] = f(a[i]) (or f(a[i], b[i])) for i in [0, n); d may be a or b.
    static void sin(float* d, const float* a, int n);
    static void cos(float* d, const float* a, int n);
    static void atan2(float* d, const float* a, const float* b, int n);
    // Whether the eight-lane path is in use on this machine.
    static bool vectorised();
};

}  // namespace Zt
