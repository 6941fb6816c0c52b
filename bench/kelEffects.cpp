// End-to-end benchmark: renders the reference effects E1-E8 of bench/effects over a generated
// 2048x1556 RGBA float image, in memory, through the real host path (compile once, `eval` per
// tile over the whole frame, each tile offered the frame's rows as its destination, as the tile
// renderer does), on 1 thread and on all cores, and beside each a hand-written C++ loop of the
// same effect built with the same flags: "the limit". The two run alternately, each repetition
// one of each, so that a load that comes and goes on a shared machine weighs on both alike. The
// Mpix/s columns count the best time of each; the ratio of KEL's time to the loop's is the median
// over the repetitions of each pair's ratio, since on a shared machine the best times of the two
// can come from quiet moments of different lengths (the best of five has moved E5's ratio by a
// third from one run to the next where the median of pairs moved by a tenth). Prints one Markdown
// table row per effect.
//
// The comparison is honest only if both compute the same pixels: after each run the frames are
// compared, and the table says "identical" or the largest difference (transcendental functions
// and the sampler's bilinear filter may differ from the loop's by rounding, nothing more).
//
// Usage: kelEffects EFFECTS_DIR [--tile WxH] [--repeat N] [--threads N] [--only E3] [--clock wall|cpu]
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "PxMemoryImage.h"
#include "kelFunctions.h"
#include "kelInterpreter.h"
#include "kelZttoolInit.h"

using namespace Zt;

namespace {

constexpr int kWidth = 2048;
constexpr int kHeight = 1556;

std::vector<Color> makeSource() {
    std::vector<Color> pixels(std::size_t(kWidth) * kHeight);
    for (int y = 0; y < kHeight; ++y)
        for (int x = 0; x < kWidth; ++x)
            pixels[std::size_t(y) * kWidth + x] = Color(0.5f + 0.5f * std::sin(x * 0.01f), float(y) / kHeight,
                                                        0.5f + 0.5f * std::cos((x + y) * 0.003f), 1.0f);
    return pixels;
}

// Runs `work(tileIndex)` over `tiles` tiles on `threads` threads.
void parallelTiles(int tiles, int threads, const std::function<void(int)>& work) {
    std::atomic<int> next{0};
    auto worker = [&] {
        for (int t; (t = next.fetch_add(1)) < tiles;) work(t);
    };
    std::vector<std::thread> pool;
    for (int i = 1; i < threads; ++i) pool.emplace_back(worker);
    worker();
    for (auto& th : pool) th.join();
}

// Wall time, or with `cpuTime` the processor time of the whole process (every thread's): on a
// machine that other work loads, a single thread's processor time is what it would have taken
// alone, where its wall time counts the waits too.
double seconds(bool cpuTime, const std::function<void()>& run) {
    if (cpuTime) {
        timespec t0, t1;
        clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t0);
        run();
        clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t1);
        return double(t1.tv_sec - t0.tv_sec) + 1e-9 * double(t1.tv_nsec - t0.tv_nsec);
    }
    auto t0 = std::chrono::steady_clock::now();
    run();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

// ---- Hand-written references: one pixel at (x, y) of rows [y0, y1) -----------------------------

struct Frame {
    const std::vector<Color>& src;
    std::vector<Color>& out;
    const Color& at(int x, int y) const { return src[std::size_t(y) * kWidth + x]; }
};

Color bilinear(const Frame& f, float fx, float fy) {
    // The host's texel space (PxImageTexture.cpp): pixel i is read exactly at i, so that a script
    // sampling at its own x and y reads the current pixel; outside reads transparent black.
    float u = fx, v = fy;
    int x0 = int(std::floor(u)), y0 = int(std::floor(v));
    float ax = u - x0, ay = v - y0;
    auto px = [&](int x, int y) { return (x < 0 || y < 0 || x >= kWidth || y >= kHeight) ? Color::ZERO : f.at(x, y); };
    Color top = px(x0, y0) * (1 - ax) + px(x0 + 1, y0) * ax;
    Color bottom = px(x0, y0 + 1) * (1 - ax) + px(x0 + 1, y0 + 1) * ax;
    return top * (1 - ay) + bottom * ay;
}

using Reference = void (*)(const Frame&, int y0, int y1);

void refGain(const Frame& f, int y0, int y1) {
    for (int y = y0; y < y1; ++y)
        for (int x = 0; x < kWidth; ++x) f.out[std::size_t(y) * kWidth + x] = f.at(x, y) * 1.5f;
}
void refGrade(const Frame& f, int y0, int y1) {
    const Color m(1.1f, 0.9f, 0.8f, 1.0f), o(0.05f, 0.02f, 0.0f, 0.0f);
    for (int y = y0; y < y1; ++y)
        for (int x = 0; x < kWidth; ++x) f.out[std::size_t(y) * kWidth + x] = f.at(x, y) * m + o;
}
void refMath(const Frame& f, int y0, int y1) {
    for (int y = y0; y < y1; ++y)
        for (int x = 0; x < kWidth; ++x) {
            float fx = float(x), fy = float(y);
            f.out[std::size_t(y) * kWidth + x] =
                Color(std::sin(fx * 0.01f) * std::cos(fy * 0.013f), std::sqrt(std::fabs(std::sin(fx * 0.002f + fy * 0.003f))),
                      std::atan2(fy - 700.0f, fx - 1000.0f) / 6.2832f + 0.5f, 1.0f);
        }
}
void refNoise(const Frame& f, int y0, int y1) {
    for (int y = y0; y < y1; ++y)
        for (int x = 0; x < kWidth; ++x) {
            float n = KelNoise::noise(float(x) * 0.01f, float(y) * 0.01f, 0.5f);
            f.out[std::size_t(y) * kWidth + x] = Color(n, n, n, 1.0f);
        }
}
void refKey(const Frame& f, int y0, int y1) {
    for (int y = y0; y < y1; ++y)
        for (int x = 0; x < kWidth; ++x) {
            const Color& s = f.at(x, y);
            f.out[std::size_t(y) * kWidth + x] = s.r > 0.5f ? s : s * 0.25f;
        }
}
void refLoop(const Frame& f, int y0, int y1) {
    for (int y = y0; y < y1; ++y)
        for (int x = 0; x < kWidth; ++x) {
            float cr = (float(x) - 1400) / 600, ci = (float(y) - 778) / 600, zr = 0, zi = 0, i = 0;
            while (zr * zr + zi * zi < 4 && i < 32) {
                float t2 = zr * zr - zi * zi + cr;
                zi = 2 * zr * zi + ci;
                zr = t2;
                i = i + 1;
            }
            f.out[std::size_t(y) * kWidth + x] = Color(i / 32, i / 32, i / 32, 1);
        }
}
void refWarp(const Frame& f, int y0, int y1) {
    for (int y = y0; y < y1; ++y)
        for (int x = 0; x < kWidth; ++x)
            f.out[std::size_t(y) * kWidth + x] = bilinear(f, float(x) + 10 * std::sin(float(y) * 0.05f), float(y));
}
// 7x7 box: the 49 pixels around, rows outer, columns inner, outside counting as transparent black.
void refBlur(const Frame& f, int y0, int y1) {
    for (int y = y0; y < y1; ++y)
        for (int x = 0; x < kWidth; ++x) {
            Color sum(0, 0, 0, 0);
            for (int j = -3; j <= 3; ++j)
                for (int i = -3; i <= 3; ++i)
                    if (x + i >= 0 && x + i < kWidth && y + j >= 0 && y + j < kHeight) sum = sum + f.at(x + i, y + j);
            f.out[std::size_t(y) * kWidth + x] = sum / 49.0f;
        }
}

struct Effect {
    const char* file;
    const char* name;
    Reference reference;
    float tolerance;  // largest difference accepted from the loop's pixels
};
const Effect kEffects[] = {
    {"E1_gain.kel", "E1 gain", refGain, 0.0f},   {"E2_grade.kel", "E2 grade", refGrade, 0.0f},
    {"E3_math.kel", "E3 math", refMath, 1e-6f},  {"E4_noise.kel", "E4 noise", refNoise, 0.0f},
    {"E5_key.kel", "E5 key", refKey, 0.0f},      {"E6_loop.kel", "E6 loop", refLoop, 0.0f},
    {"E7_warp.kel", "E7 warp", refWarp, 1e-3f},  {"E8_blur.kel", "E8 blur", refBlur, 0.0f},
};

std::string readFile(const std::string& path) {
    std::ifstream in(path);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

// The largest difference between two frames, channel by channel; infinite where one is NaN and
// the other is not.
float largestDifference(const std::vector<Color>& a, const std::vector<Color>& b) {
    float worst = 0.0f;
    for (std::size_t i = 0; i < a.size(); ++i)
        for (int c = 0; c < 4; ++c) {
            const float p = a[i][c], q = b[i][c];
            if (std::isnan(p) || std::isnan(q)) {
                if (std::isnan(p) != std::isnan(q)) return INFINITY;
                continue;
            }
            if (p != q) worst = std::max(worst, std::fabs(p - q));
        }
    return worst;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: kelEffects EFFECTS_DIR [--tile WxH] [--repeat N] [--threads N] [--only E3] [--clock wall|cpu]\n");
        return 2;
    }
    std::string dir = argv[1];
    int tileW = kWidth, tileH = 32, repeat = 3, threads = int(std::max(1u, std::thread::hardware_concurrency()));
    std::string only;
    bool cpuTime = false;
    for (int i = 2; i + 1 < argc; i += 2) {
        if (!std::strcmp(argv[i], "--clock")) cpuTime = !std::strcmp(argv[i + 1], "cpu");
        if (!std::strcmp(argv[i], "--tile")) std::sscanf(argv[i + 1], "%dx%d", &tileW, &tileH);
        else if (!std::strcmp(argv[i], "--repeat")) repeat = std::atoi(argv[i + 1]);
        else if (!std::strcmp(argv[i], "--threads")) threads = std::atoi(argv[i + 1]);
        else if (!std::strcmp(argv[i], "--only")) only = argv[i + 1];
    }
    PiAppThread::setCurrent();
    kelBuildStaticTables();

    const std::vector<Color> source = makeSource();
    std::vector<Color> out(source.size()), expected(source.size());
    PxNodePtr<const PxImageProtocol> src(new PxMemoryImage(kWidth, kHeight, source));
    const KelInterpreter interpreter;
    const Vector<PebParameterInfo> params{{"src", PebInterpreterTypes::Image, false, false},
                                          {"out", PebInterpreterTypes::Color, true, true}};
    const PxRODResult rod{PxValidityInterval::getFull(), GeRectangle<float>(0, kWidth, 0, kHeight)};
    const int tilesX = (kWidth + tileW - 1) / tileW, tilesY = (kHeight + tileH - 1) / tileH;
    const double mpix = double(kWidth) * kHeight / 1e6;
    const int bands = (kHeight + 31) / 32;

    std::printf("| effect | threads | KEL Mpix/s | C++ Mpix/s | KEL / C++ time | KEL speed-up over 1 thread | pixels |\n"
                "|---|---|---|---|---|---|---|\n");
    int status = 0;
    for (const Effect& e : kEffects) {
        if (!only.empty() && std::strncmp(e.name, only.c_str(), only.size()) != 0) continue;
        RCShdPtr<PebRunInfo> runInfo = interpreter.createRunInfo(params);
        Vector<PebError> errors;
        if (!interpreter.parse(readFile(dir + "/" + e.file), runInfo, &errors)) {
            std::fprintf(stderr, "%s: %s\n", e.file, errors.empty() ? "parse failed" : errors[0].getMessage().c_str());
            return 1;
        }
        double kelOneThread = 0.0;
        const PxTileDestination destination{out.data(), kWidth, GeRectangle<int>(0, kWidth, 0, kHeight)};
        for (int n : {1, threads}) {
            auto runKel = [&] {
                parallelTiles(tilesX * tilesY, n, [&](int t) {
                    PxImageContext context;
                    context.tileWidth = tileW;
                    context.tileHeight = tileH;
                    context.tileX = t % tilesX;
                    context.tileY = t / tilesX;
                    context.destination = &destination;
                    PxImageResult r = interpreter.eval(runInfo, {src}, {}, rod, IxPixelFormat{1, 1}, context);
                    const IxTile& tile = *r.getTile();
                    const GeRectangle<int>& rect = tile.getRect();
                    for (int y = rect.yMin; y < rect.yMax; ++y)
                        if (tile.row(y) != destination.at(rect.xMin, y))
                            std::memcpy(destination.at(rect.xMin, y), tile.row(y), sizeof(Color) * std::size_t(rect.width()));
                });
            };
            Frame frame{source, expected};
            auto runLoop = [&] {
                parallelTiles(bands, n, [&](int b) { e.reference(frame, b * 32, std::min(kHeight, (b + 1) * 32)); });
            };
            double kel = 1e30, ref = 1e30;
            std::vector<double> ratios;
            for (int i = 0; i < repeat; ++i) {
                const double k = seconds(cpuTime, runKel), r = seconds(cpuTime, runLoop);
                kel = std::min(kel, k);
                ref = std::min(ref, r);
                ratios.push_back(k / r);
            }
            std::sort(ratios.begin(), ratios.end());
            const std::size_t half = ratios.size() / 2;
            const double ratio = ratios.size() % 2 ? ratios[half] : (ratios[half - 1] + ratios[half]) / 2;
            const float difference = largestDifference(out, expected);
            char pixels[64];
            if (difference == 0.0f) std::snprintf(pixels, sizeof pixels, "identical");
            else std::snprintf(pixels, sizeof pixels, "max diff %.2g", double(difference));
            if (difference > e.tolerance) {
                std::fprintf(stderr, "%s on %d threads: pixels differ from the loop's by %g\n", e.name, n, double(difference));
                status = 1;
            }
            if (n == 1) kelOneThread = kel;
            std::printf("| %s | %d | %.1f | %.1f | %.2f | %.2f | %s |\n", e.name, n, mpix / kel, mpix / ref, ratio,
                        kelOneThread / kel, pixels);
            std::fflush(stdout);
            if (n == threads) break;
        }
    }
    return status;
}
