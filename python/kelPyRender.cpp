#include "kelPyRender.h"

#include <chrono>
#include <exception>
#include <optional>
#include <thread>

#include <pybind11/pybind11.h>

#include "PxImage.h"

namespace Zt::KelPython {

namespace py = pybind11;

namespace {

// Short enough that an interrupt is seen well within a second, long enough that waiting costs
// nothing next to a frame.
constexpr std::chrono::milliseconds kSignalPoll(50);

// Counts the render out of the gate however it ends.
class Admission {
public:
    explicit Admission(RenderGate& gate) : _gate(gate) {}
    ~Admission() { _gate.leave(); }
    Admission(const Admission&) = delete;
    Admission& operator=(const Admission&) = delete;

private:
    RenderGate& _gate;
};

KelApp::RenderedFrame renderUnlessAbandoned(const std::function<KelApp::RenderedFrame()>& render,
                                            const std::atomic<bool>& abandoned) {
    RenderGate& gate = RenderGate::instance();
    while (true) {
        if (!gate.enter(abandoned)) throw ExCancelled("python/kelPyRender", __LINE__, "Render cancelled");
        const Admission admitted(gate);
        try {
            return render();
        } catch (const ExCancelled&) {
            if (abandoned) throw;
            // Another render's cancellation: render again once it is lifted.
        }
    }
}

}  // namespace

RenderGate& RenderGate::instance() {
    static RenderGate gate;
    return gate;
}

bool RenderGate::enter(const std::atomic<bool>& abandoned) {
    std::unique_lock lock(_mutex);
    _changed.wait(lock, [&] { return !_cancelling || abandoned; });
    if (abandoned) return false;
    ++_active;
    return true;
}

void RenderGate::leave() {
    std::lock_guard lock(_mutex);
    if (--_active == 0 && _cancelling) {
        PxRequestMgr::getInstance().reset();
        _cancelling = false;
        _changed.notify_all();
    }
}

void RenderGate::abandon(std::atomic<bool>& abandoned) {
    std::lock_guard lock(_mutex);
    abandoned = true;
    // With no render counted in, nothing would lift the cancellation.
    if (_active > 0) {
        _cancelling = true;
        PxRequestMgr::getInstance().cancel();
    }
    _changed.notify_all();
}

KelApp::RenderedFrame renderInterruptibly(const std::function<KelApp::RenderedFrame()>& render) {
    std::mutex mutex;
    std::condition_variable finished;
    bool done = false;
    std::atomic<bool> abandoned{false};
    std::optional<KelApp::RenderedFrame> frame;
    std::exception_ptr failure;
    bool interrupted = false;
    {
        py::gil_scoped_release released;
        std::thread worker([&] {
            try {
                frame = renderUnlessAbandoned(render, abandoned);
            } catch (...) {
                failure = std::current_exception();
            }
            std::lock_guard lock(mutex);
            done = true;
            finished.notify_all();
        });
        std::unique_lock lock(mutex);
        while (!finished.wait_for(lock, kSignalPoll, [&] { return done; })) {
            if (interrupted) continue;
            lock.unlock();
            {
                // The handler's exception stays set on this thread until it is thrown below.
                py::gil_scoped_acquire held;
                interrupted = PyErr_CheckSignals() != 0;
            }
            if (interrupted) RenderGate::instance().abandon(abandoned);
            lock.lock();
        }
        lock.unlock();
        worker.join();
    }
    if (interrupted) throw py::error_already_set();
    if (failure) std::rethrow_exception(failure);
    return std::move(*frame);
}

}  // namespace Zt::KelPython
