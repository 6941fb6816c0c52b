// Progress of a render on standard error. On a terminal: one bar, drawn again only when what it
// shows changes, with the frame (n of N), the share done, the pixels per second and the time
// left. Elsewhere (a farm log, a pipe): one plain line per finished frame of a --frames render,
// with its number, its place in the sequence, its time and its output; a single frame prints
// nothing, so that a render that succeeds leaves standard error empty. Quiet prints nothing.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>

namespace Zt::KelApp {

class RenderProgress {
public:
    // `frames` to render; `sequence`: a --frames render, whose frames are reported one by one.
    RenderProgress(std::size_t frames, bool sequence, bool quiet);
    ~RenderProgress() { clear(); }
    RenderProgress(const RenderProgress&) = delete;
    RenderProgress& operator=(const RenderProgress&) = delete;

    // Erases the bar, so that a message can follow on a clean line.
    void clear();
    // `done` of `total` tiles of frame `index` (from 0), whose image has `pixels` pixels.
    void update(std::size_t index, std::size_t done, std::size_t total, std::size_t pixels);
    // Frame `index`, number `number`, is rendered into (the temporary of) `output`.
    void frameDone(std::size_t index, int number, const std::string& output);

private:
    using Clock = std::chrono::steady_clock;
    void draw(const std::string& text);

    bool _terminal;
    bool _sequence;
    bool _quiet;
    std::size_t _frames;
    double _finishedPixels = 0;  // of the frames done
    std::size_t _framePixels = 0;
    std::string _shown;          // the bar as drawn last, empty when none is on screen
    Clock::time_point _start = Clock::now();
    Clock::time_point _frameStart = _start;
};

}  // namespace Zt::KelApp
