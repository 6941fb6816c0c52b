// Renders called from Python: each runs on a thread of its own while the calling thread waits
// without the GIL and runs Python's signal handlers every 50 ms, so that an interrupt
// (KeyboardInterrupt) cancels the render through the host's cancellation point within a fraction
// of a second, and other Python threads run meanwhile.
//
// The host has one cancellation point for the whole process: cancelling one render cancels every
// render in flight. RenderGate keeps an interrupt to the render it was meant for: a render that is
// cancelled without having been abandoned by its own caller starts again once every cancelled
// render has unwound and the cancellation is lifted. Python delivers interrupts to the main thread
// only, so a render on another thread never ends by an interrupt; at worst it renders again.
#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>

#include "kelFrame.h"

namespace Zt::KelPython {

class RenderGate {
public:
    static RenderGate& instance();

    // Counts a render in once no cancellation is in progress; false, without counting it in, if
    // `abandoned` is set first.
    bool enter(const std::atomic<bool>& abandoned);
    // Counts a render out; the last one out after a cancellation lifts it.
    void leave();
    // Sets `abandoned` and cancels every render counted in.
    void abandon(std::atomic<bool>& abandoned);

private:
    std::mutex _mutex;
    std::condition_variable _changed;
    int _active = 0;
    bool _cancelling = false;
};

// Runs `render` on a thread of its own, through RenderGate, while this thread (which holds the
// GIL) waits as described above. Returns the frame or rethrows what `render` threw; when a
// signal handler raises (KeyboardInterrupt), abandons the render, waits until it has unwound and
// throws the handler's exception.
KelApp::RenderedFrame renderInterruptibly(const std::function<KelApp::RenderedFrame()>& render);

}  // namespace Zt::KelPython
