#include "kelProgress.h"

#include <unistd.h>

#include <cstdio>
#include <string>

namespace Zt::KelApp {

ProgressBar::ProgressBar(std::size_t frames) : _enabled(isatty(STDERR_FILENO)), _frames(frames) {}

void ProgressBar::clear() {
    if (_shown) std::fprintf(stderr, "\r%60s\r", "");
    _shown = false;
}

void ProgressBar::update(std::size_t frame, std::size_t done, std::size_t total) {
    using namespace std::chrono;
    if (!_enabled || total == 0) return;
    // A render that ends within half a second, or a small single frame, shows nothing.
    if (!_shown && (steady_clock::now() - _start < milliseconds(500) || (total < 64 && _frames < 2))) return;
    _shown = true;
    const double fraction = (double(frame) + double(done) / double(total)) / double(_frames);
    const int filled = int(fraction * 40.0);
    std::fprintf(stderr, "\r[%s%s] %3d%%", std::string(std::size_t(filled), '#').c_str(),
                 std::string(std::size_t(40 - filled), ' ').c_str(), int(fraction * 100.0));
    std::fflush(stderr);
}

}  // namespace Zt::KelApp
