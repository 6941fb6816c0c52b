#include "kelProgress.h"

#include <unistd.h>

#include <cstdio>
#include <iostream>

namespace Zt::KelApp {

namespace {

constexpr int kBarWidth = 30;

std::string rate(double pixelsPerSecond) {
    static const struct {
        double scale;
        const char* unit;
    } kUnits[] = {{1e9, "Gpx/s"}, {1e6, "Mpx/s"}, {1e3, "kpx/s"}, {1, "px/s"}};
    char text[32];
    for (const auto& u : kUnits)
        if (pixelsPerSecond >= u.scale || u.scale == 1) {
            std::snprintf(text, sizeof text, "%.1f %s", pixelsPerSecond / u.scale, u.unit);
            break;
        }
    return text;
}

std::string clockTime(double seconds) {
    const long s = long(seconds + 0.5);
    char text[32];
    if (s >= 3600)
        std::snprintf(text, sizeof text, "%ld:%02ld:%02ld", s / 3600, s / 60 % 60, s % 60);
    else
        std::snprintf(text, sizeof text, "%ld:%02ld", s / 60, s % 60);
    return text;
}

}  // namespace

RenderProgress::RenderProgress(std::size_t frames, bool sequence, bool quiet)
    : _terminal(isatty(STDERR_FILENO)), _sequence(sequence), _quiet(quiet), _frames(frames) {}

void RenderProgress::clear() {
    if (!_shown.empty()) std::cerr << "\r\033[K" << std::flush;
    _shown.clear();
}

void RenderProgress::draw(const std::string& text) {
    if (text == _shown) return;
    std::cerr << "\r" << text << "\033[K" << std::flush;
    _shown = text;
}

void RenderProgress::update(std::size_t index, std::size_t done, std::size_t total, std::size_t pixels) {
    _framePixels = pixels;
    if (_quiet || !_terminal || total == 0) return;
    const double elapsed = std::chrono::duration<double>(Clock::now() - _start).count();
    // A render that ends within half a second, or a small single frame, shows nothing.
    if (_shown.empty() && (elapsed < 0.5 || (total < 64 && _frames < 2))) return;
    const double part = double(done) / double(total);
    const double fraction = (double(index) + part) / double(_frames);
    const int filled = int(fraction * kBarWidth);
    std::string text;
    if (_frames > 1) text += "frame " + std::to_string(index + 1) + "/" + std::to_string(_frames) + " ";
    text += "[" + std::string(std::size_t(filled), '#') + std::string(std::size_t(kBarWidth - filled), ' ') + "]";
    char percent[8];
    std::snprintf(percent, sizeof percent, " %3d%%", int(fraction * 100.0));
    text += percent;
    const double pixelsDone = _finishedPixels + part * double(pixels);
    if (pixelsDone > 0) {
        text += "  " + rate(pixelsDone / elapsed);
        if (fraction > 0) text += "  " + clockTime(elapsed / fraction * (1.0 - fraction)) + " left";
    }
    draw(text);
}

void RenderProgress::frameDone(std::size_t index, int number, const std::string& output) {
    const Clock::time_point now = Clock::now();
    const double seconds = std::chrono::duration<double>(now - _frameStart).count();
    _frameStart = now;
    _finishedPixels += double(_framePixels);
    if (_quiet || _terminal || !_sequence) return;
    char time[32];
    std::snprintf(time, sizeof time, "%.2f", seconds);
    std::cerr << "kel: frame " << number << " (" << index + 1 << " of " << _frames << ") rendered in " << time << " s: "
              << output << std::endl;
}

}  // namespace Zt::KelApp
