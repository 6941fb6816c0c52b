// Progress of a render on standard error: a bar for long renders, drawn only when standard error
// is a terminal, so that logs and pipes stay clean.
#pragma once

#include <chrono>
#include <cstddef>

namespace Zt::KelApp {

class ProgressBar {
public:
    explicit ProgressBar(std::size_t frames);
    ~ProgressBar() { clear(); }
    ProgressBar(const ProgressBar&) = delete;
    ProgressBar& operator=(const ProgressBar&) = delete;

    // Erases the bar, so that a message can follow on a clean line.
    void clear();
    // `done` of `total` tiles of frame `frame` (from 0) are rendered.
    void update(std::size_t frame, std::size_t done, std::size_t total);

private:
    bool _enabled;
    std::size_t _frames;
    bool _shown = false;
    std::chrono::steady_clock::time_point _start = std::chrono::steady_clock::now();
};

}  // namespace Zt::KelApp
