// The ways a render ends early: a signal (an interrupt at the terminal, or the SIGTERM and SIGHUP
// that schedulers and closing terminals send) or a time limit. Both cancel through
// PxRequestMgr, the host's cancellation point, so the render unwinds normally: temporaries are
// removed, nothing is written to the output, and the command exits 3.
#pragma once

#include <condition_variable>
#include <mutex>
#include <optional>
#include <thread>

namespace Zt::KelApp {

// From this call on, SIGINT, SIGTERM and SIGHUP cancel the render instead of killing the process.
void cancelOnSignals();
// The name of the signal that cancelled the render ("an interrupt", "SIGTERM"…), or null.
const char* cancellingSignal();

// Cancels the render after `seconds` unless destroyed first.
class Watchdog {
public:
    explicit Watchdog(std::optional<double> seconds);
    ~Watchdog();
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;
    bool expired();

private:
    std::mutex _mutex;
    std::condition_variable _changed;
    bool _stopped = false;
    bool _expired = false;
    std::thread _thread;
};

}  // namespace Zt::KelApp
