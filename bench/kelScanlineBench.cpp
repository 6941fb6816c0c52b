// Micro-benchmarks of the value layer's inner loops: scanline operations per pixel, channel
// extraction, `narrow`, masked and unmasked stores and the pool's reuse. Rows of 2048 columns, the reference image width.
#include <benchmark/benchmark.h>

#include <random>

#include "IxScanlineUtil.h"
#include "kelContext.h"

using namespace Zt;

namespace {
constexpr int kWidth = 2048;
const GeInterval<int> kRow(0, kWidth);

template <class T>
void fillRandom(IxScanline<T>& s, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> d(-1.0f, 1.0f);
    for (int x = s.minimum(); x < s.maximum(); ++x) {
        if constexpr (std::is_same_v<T, float>) s[x] = d(rng);
        else s[x] = Color(d(rng), d(rng), d(rng), d(rng));
    }
}

template <class D, class A, class B, void (*Op)(IxScanline<D>&, const IxScanline<A>&, const IxScanline<B>&, const GeInterval<int>*)>
void BM_Binary(benchmark::State& state) {
    IxScanline<D> d(kRow, {4, D{}});
    IxScanline<A> a(kRow, {4, A{}});
    IxScanline<B> b(kRow, {4, B{}});
    fillRandom(a, 1);
    fillRandom(b, 2);
    for (auto _ : state) {
        Op(d, a, b, nullptr);
        benchmark::DoNotOptimize(d.begin());
    }
    state.SetItemsProcessed(state.iterations() * kWidth);
}
BENCHMARK(BM_Binary<float, float, float, &IxScanlineUtil::addScanlines<float, float, float>>)->Name("add<f,f,f>");
BENCHMARK(BM_Binary<float, float, float, &IxScanlineUtil::multiplyScanlines<float, float, float>>)->Name("mul<f,f,f>");
BENCHMARK(BM_Binary<Color, Color, Color, &IxScanlineUtil::multiplyScanlines<Color, Color, Color>>)->Name("mul<C,C,C>");
BENCHMARK(BM_Binary<Color, Color, float, &IxScanlineUtil::multiplyScanlines<Color, Color, float>>)->Name("mul<C,C,f>");
BENCHMARK(BM_Binary<float, float, float, &IxScanlineUtil::lessThanScanlines>)->Name("less<f>");
BENCHMARK(BM_Binary<float, Color, Color, &IxScanlineUtil::equalScanlines<Color>>)->Name("equal<C>");
BENCHMARK(BM_Binary<float, float, float, &IxScanlineUtil::andScanlines>)->Name("and<f>");
BENCHMARK(BM_Binary<float, float, float, &IxScanlineUtil::divideScanlines<float, float, float>>)->Name("div<f,f,f>");
BENCHMARK(BM_Binary<Color, Color, Color, &IxScanlineUtil::addScanlines<Color, Color, Color>>)->Name("add<C,C,C>");

void BM_CopyIf(benchmark::State& state) {
    const bool masked = state.range(0) != 0;
    IxScanline<Color> d(kRow, {4, Color{}});
    IxScanline<Color> s(kRow, {4, Color{}});
    IxScanline<float> mask(kRow, {4, 0.0f});
    fillRandom(s, 3);
    for (int x = 0; x < kWidth; ++x) mask[x] = (x / 3) % 2 ? 1.0f : 0.0f;
    for (auto _ : state) {
        IxScanlineUtil::copyIf(d, s, masked ? &mask : nullptr, nullptr);
        benchmark::DoNotOptimize(d.begin());
    }
    state.SetItemsProcessed(state.iterations() * kWidth);
}
BENCHMARK(BM_CopyIf)->Arg(0)->Arg(1)->ArgName("masked");

// The float masked store: a bitwise select per block of columns (IxScanlineUtil.h).
void BM_CopyIfFloat(benchmark::State& state) {
    const bool masked = state.range(0) != 0;
    IxScanline<float> d(kRow, {4, 0.0f});
    IxScanline<float> s(kRow, {4, 0.0f});
    IxScanline<float> mask(kRow, {4, 0.0f});
    fillRandom(s, 3);
    for (int x = 0; x < kWidth; ++x) mask[x] = (x / 3) % 2 ? 1.0f : 0.0f;
    for (auto _ : state) {
        IxScanlineUtil::copyIf(d, s, masked ? &mask : nullptr, nullptr);
        benchmark::DoNotOptimize(d.begin());
    }
    state.SetItemsProcessed(state.iterations() * kWidth);
}
BENCHMARK(BM_CopyIfFloat)->Arg(0)->Arg(1)->ArgName("masked");

// A channel of a colour row (a keyer's `r(src)`): four columns at a time by shuffles.
void BM_ExtractChannel(benchmark::State& state) {
    IxScanline<float> d(kRow, {4, 0.0f});
    IxScanline<Color> s(kRow, {4, Color{}});
    fillRandom(s, 5);
    for (auto _ : state) {
        IxScanlineUtil::extractChannel(d, 0, s, IxScanlineUtilTypes::NoInvert, nullptr);
        benchmark::DoNotOptimize(d.begin());
    }
    state.SetItemsProcessed(state.iterations() * kWidth);
}
BENCHMARK(BM_ExtractChannel);

// An unmasked float store that combines (a loop's `i++`, `sum += ...`): in blocks, as the operators.
void BM_AccumulateFloat(benchmark::State& state) {
    IxScanline<float> d(kRow, {4, 0.0f});
    IxScanline<float> s(kRow, {4, 0.0f});
    fillRandom(s, 6);
    for (auto _ : state) {
        IxScanlineUtil::accumulateScanline(d, s, nullptr, nullptr);
        benchmark::DoNotOptimize(d.begin());
    }
    state.SetItemsProcessed(state.iterations() * kWidth);
}
BENCHMARK(BM_AccumulateFloat);

void BM_Narrow(benchmark::State& state) {
    KelContext context(kRow, 0);
    auto condition = context.newFloat(0);
    fillRandom(condition->getScanline(), 4);
    KelMask saved(context.getMask());
    for (auto _ : state) {
        context.getMask().narrow(condition, 0);
        benchmark::DoNotOptimize(context.getMask().noneActive());
        context.setMask(saved);
    }
    state.SetItemsProcessed(state.iterations() * kWidth);
}
BENCHMARK(BM_Narrow);

// A temporary taken from the pool and given back, as every operator node does per row.
void BM_PoolReuse(benchmark::State& state) {
    KelContext context(kRow, 0);
    for (auto _ : state) {
        auto a = context.newFloat(0);
        auto b = context.newColor(0);
        benchmark::DoNotOptimize(a.get());
        benchmark::DoNotOptimize(b.get());
    }
}
BENCHMARK(BM_PoolReuse);
}  // namespace

BENCHMARK_MAIN();
