// IxVectorMath (see the header): libmvec's AVX2 variants through dlopen and dlsym, so that the
// library is no link dependency and a machine without AVX2 or libmvec takes the scalar path.
#include "IxVectorMath.h"

#include <cmath>

// x86-64 built by GCC only: built by clang 14, the call of libmvec's two-argument atan2f through
// a function pointer gave ±π/2 for every input (docs/reliability.md), so clang builds (the fuzz
// build) take the scalar path.
#if defined(__x86_64__) && !defined(__clang__)
#include <dlfcn.h>
#include <immintrin.h>
#define KEL_VECTOR_MATH 1
#endif

namespace Zt {

#if KEL_VECTOR_MATH
namespace {

using Unary8 = __m256 (*)(__m256);
using Binary8 = __m256 (*)(__m256, __m256);

// Names of the vector ABI: _ZGV, 'd' for AVX2, 'N' unmasked, 8 lanes, 'v' per vector argument.
struct Table {
    Unary8 sin = nullptr;
    Unary8 cos = nullptr;
    Binary8 atan2 = nullptr;

    Table() {
        __builtin_cpu_init();
        if (!__builtin_cpu_supports("avx2") || !__builtin_cpu_supports("fma")) return;
        void* library = dlopen("libmvec.so.1", RTLD_NOW | RTLD_LOCAL);
        if (!library) return;
        auto* s = reinterpret_cast<Unary8>(dlsym(library, "_ZGVdN8v_sinf"));
        auto* c = reinterpret_cast<Unary8>(dlsym(library, "_ZGVdN8v_cosf"));
        auto* a = reinterpret_cast<Binary8>(dlsym(library, "_ZGVdN8vv_atan2f"));
        if (s && c && a) {
            sin = s;
            cos = c;
            atan2 = a;
        }
    }
};

const Table& table() {
    static const Table t;
    return t;
}

// The remainder goes through the same eight-lane function, padded: a column's result must not
// depend on where the row (the tile) begins and ends, or tilings would differ in their pixels.
__attribute__((target("avx2,fma"))) void unary8(Unary8 f, float* d, const float* a, int n) {
    int i = 0;
    for (; i + 8 <= n; i += 8) _mm256_storeu_ps(d + i, f(_mm256_loadu_ps(a + i)));
    if (i == n) return;
    float pa[8] = {}, pd[8];
    for (int k = 0; k < n - i; ++k) pa[k] = a[i + k];
    _mm256_storeu_ps(pd, f(_mm256_loadu_ps(pa)));
    for (int k = 0; k < n - i; ++k) d[i + k] = pd[k];
}

__attribute__((target("avx2,fma"))) void binary8(Binary8 f, float* d, const float* a, const float* b, int n) {
    int i = 0;
    for (; i + 8 <= n; i += 8) _mm256_storeu_ps(d + i, f(_mm256_loadu_ps(a + i), _mm256_loadu_ps(b + i)));
    if (i == n) return;
    float pa[8] = {}, pb[8] = {}, pd[8];
    for (int k = 0; k < n - i; ++k) {
        pa[k] = a[i + k];
        pb[k] = b[i + k];
    }
    _mm256_storeu_ps(pd, f(_mm256_loadu_ps(pa), _mm256_loadu_ps(pb)));
    for (int k = 0; k < n - i; ++k) d[i + k] = pd[k];
}

}  // namespace
#endif

bool IxVectorMath::vectorised() {
#if KEL_VECTOR_MATH
    return table().sin != nullptr;
#else
    return false;
#endif
}

void IxVectorMath::sin(float* d, const float* a, int n) {
#if KEL_VECTOR_MATH
    if (table().sin) return unary8(table().sin, d, a, n);
#endif
    for (int i = 0; i < n; ++i) d[i] = sinf(a[i]);
}

void IxVectorMath::cos(float* d, const float* a, int n) {
#if KEL_VECTOR_MATH
    if (table().cos) return unary8(table().cos, d, a, n);
#endif
    for (int i = 0; i < n; ++i) d[i] = cosf(a[i]);
}

void IxVectorMath::atan2(float* d, const float* a, const float* b, int n) {
#if KEL_VECTOR_MATH
    if (table().atan2) return binary8(table().atan2, d, a, b, n);
#endif
    for (int i = 0; i < n; ++i) d[i] = atan2f(a[i], b[i]);
}

}  // namespace Zt
