// KSeExpr peer for the reference effects E1-E7 (issue 8): each effect is written in SeExpr's
// language, compiled once (KSeExpr::Expression, its interpreter: the Debian library is built
// without LLVM) and evaluated for every pixel of the benchmark's 2048x1556 RGBA float frame, in
// memory, on one thread. Only the evaluation loop is timed (best of 5). The result is then compared
// with a direct C++ computation of the same effect (every 7th pixel of every 3rd row, and the last
// row and column), so that the figure measures the right thing; a wrong one prints WRONG RESULT. Prints Markdown rows in bench/peers.py's table format.
//
// Built and run by bench/peers.py with the project's flags (not part of the CMake build: CI does
// not need KSeExpr), in effect:
//   g++ -std=c++20 -O2 -DNDEBUG bench/peers/kseexpr_bench.cpp -lKSeExpr -o kseexpr_bench
//   ./kseexpr_bench [EFFECT-PREFIX]      e.g. ./kseexpr_bench E3
// `kseexpr_bench --expr 'EXPR'` evaluates one expression at a few pixels (for trying the language).
#include <KSeExpr/ExprBuiltins.h>
#include <KSeExpr/ExprFunc.h>
#include <KSeExpr/ExprFuncX.h>
#include <KSeExpr/ExprNode.h>
#include <KSeExpr/Expression.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#ifndef KSEEXPR_VERSION  // bench/peers.py passes pkg-config's, e.g. "4.0.4"
#define KSEEXPR_VERSION ""
#endif

namespace {

constexpr int kWidth = 2048, kHeight = 1556;

// The benchmark's source frame (bench/kelEffects.cpp, makeSource), RGBA floats row by row.
std::vector<float> makeSource() {
    std::vector<float> p(std::size_t(kWidth) * kHeight * 4);
    for (int y = 0; y < kHeight; ++y)
        for (int x = 0; x < kWidth; ++x) {
            float* c = &p[(std::size_t(y) * kWidth + x) * 4];
            c[0] = 0.5f + 0.5f * std::sin(x * 0.01f);
            c[1] = float(y) / kHeight;
            c[2] = 0.5f + 0.5f * std::cos((x + y) * 0.003f);
            c[3] = 1.0f;
        }
    return p;
}

// The pixel being evaluated: the variables x, y and src read it. It must be valid before the
// expression is prepared: building the interpreter runs its operations once.
struct Pixel {
    double x = 0, y = 0;
    const float* src;  // 4 floats
};

class ScalarRef : public KSeExpr::ExprVarRef {
  public:
    explicit ScalarRef(const double* v) : ExprVarRef(KSeExpr::ExprType().FP(1).Varying()), _v(v) {}
    void eval(double* result) override { result[0] = *_v; }
    void eval(const char** result) override { result[0] = nullptr; }

  private:
    const double* _v;
};

class ColorRef : public KSeExpr::ExprVarRef {
  public:
    explicit ColorRef(const float* const* p) : ExprVarRef(KSeExpr::ExprType().FP(4).Varying()), _p(p) {}
    void eval(double* result) override {
        const float* c = *_p;
        result[0] = c[0], result[1] = c[1], result[2] = c[2], result[3] = c[3];
    }
    void eval(const char** result) override { result[0] = nullptr; }

  private:
    const float* const* _p;
};

// Bilinear sample of the source frame in the host's texel space (bench/kelEffects.cpp, bilinear:
// pixel i is read exactly at i; outside reads transparent black), in double like SeExpr.
void bilinear(const std::vector<float>& src, double u, double v, double* out) {
    const int x0 = int(std::floor(u)), y0 = int(std::floor(v));
    const double ax = u - x0, ay = v - y0;
    auto px = [&](int x, int y, int k) -> double {
        return (x < 0 || y < 0 || x >= kWidth || y >= kHeight) ? 0.0 : src[(std::size_t(y) * kWidth + x) * 4 + k];
    };
    for (int k = 0; k < 4; ++k) {
        const double top = px(x0, y0, k) * (1 - ax) + px(x0 + 1, y0, k) * ax;
        const double bottom = px(x0, y0 + 1, k) * (1 - ax) + px(x0 + 1, y0 + 1, k) * ax;
        out[k] = top * (1 - ay) + bottom * ay;
    }
}

// sample(u, v): the source frame at (u, v), a custom function (E7).
class SampleFunc : public KSeExpr::ExprFuncSimple {
  public:
    explicit SampleFunc(const std::vector<float>& src) : ExprFuncSimple(true), _src(src) {}
    KSeExpr::ExprType prep(KSeExpr::ExprFuncNode* node, bool, KSeExpr::ExprVarEnvBuilder& env) const override {
        bool ok = node->checkArg(0, KSeExpr::ExprType().FP(1).Varying(), env);
        ok = node->checkArg(1, KSeExpr::ExprType().FP(1).Varying(), env) && ok;
        return ok ? KSeExpr::ExprType().FP(4).Varying() : KSeExpr::ExprType().Error();
    }
    KSeExpr::ExprFuncNode::Data* evalConstant(const KSeExpr::ExprFuncNode*, ArgHandle) const override {
        return new KSeExpr::ExprFuncNode::Data();
    }
    void eval(ArgHandle args) override {
        bilinear(_src, args.inFp<1>(0)[0], args.inFp<1>(1)[0], &args.outFp);
    }

  private:
    const std::vector<float>& _src;
};

class PixelExpression : public KSeExpr::Expression {
  public:
    PixelExpression(const std::string& e, Pixel& px, const std::vector<float>& src)
        : Expression(e, KSeExpr::ExprType().FP(4).Varying()), _x(&px.x), _y(&px.y), _src(&px.src),
          _sample(src), _sampleFunc(_sample, 2, 2) {}
    KSeExpr::ExprVarRef* resolveVar(const std::string& name) const override {
        if (name == "x") return &_x;
        if (name == "y") return &_y;
        if (name == "src") return &_src;
        return nullptr;
    }
    KSeExpr::ExprFunc* resolveFunc(const std::string& name) const override {
        return name == "sample" ? &_sampleFunc : nullptr;
    }

  private:
    mutable ScalarRef _x, _y;
    mutable ColorRef _src;
    mutable SampleFunc _sample;
    mutable KSeExpr::ExprFunc _sampleFunc;
};

std::string errorsOf(const PixelExpression& e) {
    std::string s = "parse error " + std::to_string(int(e.parseError()));
    for (const auto& a : e.parseErrorArgs()) s += " " + a;
    for (const auto& err : e.getErrors()) {
        s += "; error " + std::to_string(int(err.error)) + " at " + std::to_string(err.startPos);
        for (const auto& a : err.ids) s += " " + a;
    }
    for (char& c : s)  // the text goes into a Markdown table cell
        if (c == '|' || c == '\n') c = ' ';
    return s;
}

// The effects; `reference` computes one pixel directly in C++ (double, as SeExpr evaluates).
struct Effect {
    const char* name;
    const char* expr;  // nullptr: not expressible, `note` says why
    const char* note;  // added to the row's "how" column
    std::function<void(const std::vector<float>& src, int x, int y, double* out)> reference;
};

const std::vector<Effect>& effects() {
    static const std::vector<Effect> list{
        {"E1 gain", "src * 1.5", "",
         [](const std::vector<float>& s, int x, int y, double* o) {
             for (int k = 0; k < 4; ++k) o[k] = s[(std::size_t(y) * kWidth + x) * 4 + k] * 1.5;
         }},
        {"E2 grade", "src * [1.1, 0.9, 0.8, 1] + [0.05, 0.02, 0, 0]", "",
         [](const std::vector<float>& s, int x, int y, double* o) {
             const double m[4] = {1.1, 0.9, 0.8, 1}, a[4] = {0.05, 0.02, 0, 0};
             for (int k = 0; k < 4; ++k) o[k] = s[(std::size_t(y) * kWidth + x) * 4 + k] * m[k] + a[k];
         }},
        {"E3 math", "[sin(x*0.01)*cos(y*0.013), sqrt(abs(sin(x*0.002+y*0.003))), atan2(y-700, x-1000)/6.2832 + 0.5, 1]", "",
         [](const std::vector<float>&, int x, int y, double* o) {
             o[0] = std::sin(x * 0.01) * std::cos(y * 0.013);
             o[1] = std::sqrt(std::fabs(std::sin(x * 0.002 + y * 0.003)));
             o[2] = std::atan2(y - 700.0, x - 1000.0) / 6.2832 + 0.5;
             o[3] = 1;
         }},
        // SeExpr's own Perlin noise (0.5 + 0.5 * Noise<3,1>): the same kind of work as KEL's
        // noise3D, not the same function; the check is against the library's noise().
        {"E4 noise", "n = noise(x*0.01, y*0.01, 0.5); [n, n, n, 1]", "; SeExpr's noise(), its own Perlin noise",
         [](const std::vector<float>&, int x, int y, double* o) {
             const KSeExpr::Vec3d args[3] = {KSeExpr::Vec3d(x * 0.01), KSeExpr::Vec3d(y * 0.01), KSeExpr::Vec3d(0.5)};
             o[0] = o[1] = o[2] = KSeExpr::noise(3, args);
             o[3] = 1;
         }},
        {"E5 key", "src[0] > 0.5 ? src : src * 0.25", "",
         [](const std::vector<float>& s, int x, int y, double* o) {
             const float* c = &s[(std::size_t(y) * kWidth + x) * 4];
             for (int k = 0; k < 4; ++k) o[k] = c[0] > 0.5f ? c[k] : c[k] * 0.25;
         }},
        {"E6 loop", nullptr, "no loop in the language (no while or for; local functions, which could recurse, are rejected: \"Local functions are currently not supported\")", nullptr},
        // sample(u, v) is a C++ function given to the expression (resolveFunc): the bilinear
        // fetch itself is native code, the expression computes the coordinates.
        {"E7 warp", "sample(x + 10*sin(y*0.05), y)", "; sample() is a C++ function given to the expression",
         [](const std::vector<float>& s, int x, int y, double* o) { bilinear(s, x + 10 * std::sin(y * 0.05), y, o); }},
    };
    return list;
}

// 0, step, 2*step, ... and n-1.
std::vector<int> checked(int n, int step) {
    std::vector<int> v;
    for (int i = 0; i < n - 1; i += step) v.push_back(i);
    v.push_back(n - 1);
    return v;
}

int tryExpression(const char* text) {
    const std::vector<float> src = makeSource();
    Pixel px{0, 0, src.data()};
    PixelExpression e(text, px, src);
    if (!e.isValid()) {
        std::printf("invalid: %s\n", errorsOf(e).c_str());
        return 1;
    }
    std::printf("type %s\n", e.returnType().toString().c_str());
    for (int y : {0, 700, 1555})
        for (int x : {0, 1000, 2047}) {
            px.x = x, px.y = y, px.src = &src[(std::size_t(y) * kWidth + x) * 4];
            const double* r = e.evalFP();
            std::printf("(%d, %d): %g %g %g %g\n", x, y, r[0], r[1], r[2], r[3]);
        }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::strcmp(argv[1], "--expr") == 0) return tryExpression(argv[2]);
    const char* only = argc == 2 ? argv[1] : "";
    const std::vector<float> src = makeSource();
    std::vector<float> out(src.size());
    const double mpix = double(kWidth) * kHeight / 1e6;
    const std::string peer = *KSEEXPR_VERSION ? std::string("KSeExpr ") + KSEEXPR_VERSION : "KSeExpr";
    int status = 0;
    for (const Effect& fx : effects()) {
        if (std::strncmp(fx.name, only, std::strlen(only)) != 0) continue;
        if (!fx.expr) {
            std::printf("| %s | %s | not expressible | %s |\n", peer.c_str(), fx.name, fx.note);
            continue;
        }
        Pixel px{0, 0, src.data()};
        PixelExpression e(fx.expr, px, src);
        if (!e.isValid()) {
            std::printf("| %s | %s | does not compile | %s |\n", peer.c_str(), fx.name, errorsOf(e).c_str());
            status = 1;
            continue;
        }
        double best = 1e30;
        for (int run = 0; run < 5; ++run) {
            const auto t0 = std::chrono::steady_clock::now();
            for (int y = 0; y < kHeight; ++y) {
                px.y = y;
                for (int x = 0; x < kWidth; ++x) {
                    const std::size_t i = (std::size_t(y) * kWidth + x) * 4;
                    px.x = x;
                    px.src = &src[i];
                    const double* r = e.evalFP();
                    out[i] = float(r[0]), out[i + 1] = float(r[1]), out[i + 2] = float(r[2]), out[i + 3] = float(r[3]);
                }
            }
            best = std::min(best, std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count());
        }
        // Check the frame against the direct computation: every 7th pixel of every 3rd row, and
        // the last row and column (both sides of E5's key, E7's borders).
        double worst = 0;
        int wx = 0, wy = 0;
        for (int y : checked(kHeight, 3))
            for (int x : checked(kWidth, 7)) {
                double ref[4];
                fx.reference(src, x, y, ref);
                const float* got = &out[(std::size_t(y) * kWidth + x) * 4];
                for (int k = 0; k < 4; ++k) {
                    const double diff = std::fabs(got[k] - ref[k]), d = std::isnan(diff) ? HUGE_VAL : diff;
                    if (d > worst) worst = d, wx = x, wy = y;
                }
            }
        if (worst > 1e-5) {
            std::printf("| %s | %s | WRONG RESULT (%.1f) | differs from the C++ computation by %g at (%d, %d) |\n",
                        peer.c_str(), fx.name, mpix / best, worst, wx, wy);
            status = 1;
        } else {
            std::printf("| %s | %s | %.1f | in memory, 1 thread%s |\n", peer.c_str(), fx.name, mpix / best, fx.note);
        }
        std::fflush(stdout);
    }
    return status;
}
