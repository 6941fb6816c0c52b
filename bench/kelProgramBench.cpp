// Micro-benchmarks of the engine's levers on memory-bound scripts: one 2048x16 tile through the
// interpreter per iteration, each script compiled with programs of strips (argument 1) and
// without (0, the tree walk), and the tile either written into the caller's frame (its
// destination, as the tile renderer offers it) or into storage of its own. Each lever has the
// script that leans on it: lent rows and the direct store (gain), chains of colour arithmetic
// (grade), runs of a mask (key), loops per strip (loop), whole-pixel neighbours read from the
// input's rows (blur) and the sampler's row of one y (warp). A change that loses a lever's gain
// shows as the two arguments drawing together.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "PxMemoryImage.h"
#include "kelInterpreter.h"
#include "kelZttoolInit.h"

using namespace Zt;

namespace {

constexpr int kWidth = 2048, kHeight = 16;

PxNodePtr<const PxImageProtocol> source() {
    static PxNodePtr<const PxImageProtocol> image = [] {
        PiAppThread::setCurrent();
        kelBuildStaticTables();
        std::vector<Color> pixels(std::size_t(kWidth) * kHeight);
        for (std::size_t i = 0; i < pixels.size(); ++i) pixels[i] = Color(float(i % 97) / 97, 0.5f, 0.25f, 1.0f);
        return PxNodePtr<const PxImageProtocol>(new PxMemoryImage(kWidth, kHeight, pixels));
    }();
    return image;
}

void runLever(benchmark::State& state, const std::string& script, bool intoFrame) {
    const PxNodePtr<const PxImageProtocol> src = source();
    const KelInterpreter interpreter;
    RCShdPtr<PebRunInfo> runInfo = interpreter.createRunInfo(
        {{"src", PebInterpreterTypes::Image, false, false}, {"out", PebInterpreterTypes::Color, true, true}});
    static_cast<KelRunInfo&>(*runInfo).compilePrograms = state.range(0) != 0;
    Vector<PebError> errors;
    if (!interpreter.parse(script, runInfo, &errors)) {
        state.SkipWithError(errors.empty() ? "parse failed" : errors[0].getMessage().c_str());
        return;
    }
    const PxRODResult rod{PxValidityInterval::getFull(), GeRectangle<float>(0, kWidth, 0, kHeight)};
    std::vector<Color> frame(std::size_t(kWidth) * kHeight);
    const PxTileDestination destination{frame.data(), kWidth, GeRectangle<int>(0, kWidth, 0, kHeight)};
    PxImageContext context;
    context.tileWidth = kWidth;
    context.tileHeight = kHeight;
    if (intoFrame) context.destination = &destination;
    for (auto _ : state) {
        PxImageResult r = interpreter.eval(runInfo, {src}, {}, rod, IxPixelFormat{1, 1}, context);
        benchmark::DoNotOptimize(r.getTile().get());
    }
    state.SetItemsProcessed(state.iterations() * kWidth * kHeight);
}

#define KEL_LEVER(name, script, intoFrame) \
    BENCHMARK_CAPTURE(runLever, name, std::string(script), intoFrame)->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond)

KEL_LEVER(gain_own_tile, "out = src * 1.5;", false);
KEL_LEVER(gain, "out = src * 1.5;", true);
KEL_LEVER(grade, "out = src * color(1.1, 0.9, 0.8, 1) + color(0.05, 0.02, 0.0, 0.0);", true);
KEL_LEVER(key, "if (r(src) > 0.5) out = src; else out = src * 0.25;", true);
KEL_LEVER(loop,
          "float cr = (x - 1400) / 600; float ci = (y - 8) / 600; float zr = 0; float zi = 0; float i = 0;"
          "while (zr * zr + zi * zi < 4 && i < 32) { float t2 = zr * zr - zi * zi + cr; zi = 2 * zr * zi + ci; zr = t2; i = i + 1; }"
          "out = color(i / 32, i / 32, i / 32, 1);",
          true);
KEL_LEVER(blur,
          "color sum = color(0, 0, 0, 0);"
          "for (float j = -1; j <= 1; j++) { for (float i = -1; i <= 1; i++) sum += sample(src, x + i, y + j); }"
          "out = sum / 9;",
          true);
KEL_LEVER(warp, "out = sample(src, x + 10 * sin(y * 0.05), y);", true);

}  // namespace

BENCHMARK_MAIN();
