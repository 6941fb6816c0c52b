#include "kelCancellation.h"

#include <chrono>
#include <csignal>

#include "PxImage.h"

namespace Zt::KelApp {

namespace {

volatile std::sig_atomic_t gSignal = 0;

extern "C" void onCancellingSignal(int signal) {
    gSignal = signal;
    PxRequestMgr::getInstance().cancel();
}

}  // namespace

void cancelOnSignals() {
    PxRequestMgr::getInstance().reset();
    for (int signal : {SIGINT, SIGTERM, SIGHUP}) std::signal(signal, onCancellingSignal);
}

const char* cancellingSignal() {
    switch (gSignal) {
    case SIGINT: return "an interrupt";
    case SIGTERM: return "SIGTERM";
    case SIGHUP: return "SIGHUP";
    default: return nullptr;
    }
}

Watchdog::Watchdog(std::optional<double> seconds) {
    if (!seconds) return;
    _thread = std::thread([this, limit = std::chrono::duration<double>(*seconds)] {
        std::unique_lock lock(_mutex);
        if (!_changed.wait_for(lock, limit, [this] { return _stopped; })) {
            _expired = true;
            PxRequestMgr::getInstance().cancel();
        }
    });
}

Watchdog::~Watchdog() {
    {
        std::lock_guard lock(_mutex);
        _stopped = true;
    }
    _changed.notify_all();
    if (_thread.joinable()) _thread.join();
}

bool Watchdog::expired() {
    std::lock_guard lock(_mutex);
    return _expired;
}

}  // namespace Zt::KelApp
