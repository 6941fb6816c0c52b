// Micro-benchmarks through the interpreter (issue 8): one 2048x16 tile evaluated per iteration,
// so that the figures include the tree walk, the pool and the row loop. Each family of built-ins
// is one script, beside a baseline script without it (the difference is the family's cost); the
// tree walk's cost per node and row is the slope between scripts of 1, 9 and 33 additions.
#include <benchmark/benchmark.h>

#include <string>

#include "PxMemoryImage.h"
#include "kelInterpreter.h"
#include "kelZttoolInit.h"

using namespace Zt;

namespace {

constexpr int kWidth = 2048, kHeight = 16;

struct Setup {
    Setup() {
        PiAppThread::setCurrent();
        kelBuildStaticTables();
    }
};

PxNodePtr<const PxImageProtocol> source() {
    static PxNodePtr<const PxImageProtocol> image = [] {
        std::vector<Color> pixels(std::size_t(kWidth) * kHeight);
        for (std::size_t i = 0; i < pixels.size(); ++i) pixels[i] = Color(float(i % 97) / 97, 0.5f, 0.25f, 1.0f);
        return PxNodePtr<const PxImageProtocol>(new PxMemoryImage(kWidth, kHeight, pixels));
    }();
    return image;
}

void runScript(benchmark::State& state, const std::string& script) {
    static Setup setup;
    const KelInterpreter interpreter;
    const Vector<PebParameterInfo> params{{"src", PebInterpreterTypes::Image, false, false},
                                          {"out", PebInterpreterTypes::Color, true, true}};
    RCShdPtr<PebRunInfo> runInfo = interpreter.createRunInfo(params);
    Vector<PebError> errors;
    if (!interpreter.parse(script, runInfo, &errors)) {
        state.SkipWithError(errors.empty() ? "parse failed" : errors[0].getMessage().c_str());
        return;
    }
    const PxRODResult rod{PxValidityInterval::getFull(), GeRectangle<float>(0, kWidth, 0, kHeight)};
    PxImageContext context;
    context.tileWidth = kWidth;
    context.tileHeight = kHeight;
    for (auto _ : state) {
        PxImageResult r = interpreter.eval(runInfo, {source()}, {}, rod, IxPixelFormat{1, 1}, context);
        benchmark::DoNotOptimize(r.getTile().get());
    }
    state.SetItemsProcessed(state.iterations() * kWidth * kHeight);
}

std::string additions(int n) {
    std::string e = "x";
    for (int i = 0; i < n; ++i) e += " + x";
    return "float a = " + e + "; out = color(a, 0, 0, 1);";
}

#define KEL_SCRIPT(name, script) \
    BENCHMARK_CAPTURE(runScript, name, std::string(script))->Unit(benchmark::kMicrosecond)

KEL_SCRIPT(baseline_copy, "out = src;");
KEL_SCRIPT(baseline_gain, "out = src * 1.5;");
KEL_SCRIPT(baseline_color, "out = color(0.5, 0, 0, 1);");
KEL_SCRIPT(walk_1_addition, additions(1));
KEL_SCRIPT(walk_9_additions, additions(9));
KEL_SCRIPT(walk_33_additions, additions(33));
KEL_SCRIPT(math_sin_row, "out = color(sin(x), 0, 0, 1);");
KEL_SCRIPT(math_sqrt, "out = color(sqrt(x), 0, 0, 1);");
KEL_SCRIPT(math_pow, "out = color(pow(x, 0.7), 0, 0, 1);");
KEL_SCRIPT(math_masked_sin, "float s = 0; if (x > y * 100) s = sin(x); out = color(s, 0, 0, 1);");
KEL_SCRIPT(color_channels, "out = color(b(src), g(src), r(src), a(src));");
KEL_SCRIPT(color_dot, "float d = dot(src, src); out = color(d, d, d, 1);");
KEL_SCRIPT(noise_noise3D, "float n = noise3D(x * 0.01, y * 0.01, 0.5); out = color(n, n, n, 1);");
KEL_SCRIPT(noise_rand, "float n = rand(); out = color(n, n, n, 1);");
KEL_SCRIPT(shaping_floats, "float s = smoothstep(0, 2048, x); out = color(clamp(s, 0.2, 0.8), fract(s * 8), 0, 1);");
KEL_SCRIPT(shaping_colour_mix, "out = mix(src, saturate(src * 2), 0.25);");
KEL_SCRIPT(color_luminance, "float l = luminance(src); out = color(l, l, l, 1);");
KEL_SCRIPT(image_width, "out = color(width(src), 0, 0, 1);");
KEL_SCRIPT(sample_at, "out = sample(src, x + 0.5, y);");
KEL_SCRIPT(sample_clamp_at, "out = sampleClamp(src, x + 0.5, y);");
KEL_SCRIPT(sample_mirror_outside, "out = sampleMirror(src, x - 2048.5, y);");
KEL_SCRIPT(control_if_else, "if (r(src) > 0.5) out = src; else out = src * 0.25;");
KEL_SCRIPT(control_while_8, "float i = 0; while (i < 8) { i = i + 1; } out = color(i, 0, 0, 1);");

}  // namespace

BENCHMARK_MAIN();
