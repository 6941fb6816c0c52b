#include "liveRenderThread.h"

#include "PxImage.h"
#include "ZtCore.h"

namespace Zt::KelApp {

RenderThread::RenderThread() : _thread([this] { loop(); }) {}

RenderThread::~RenderThread() {
    stop();
    _thread.join();
}

bool RenderThread::run(std::function<void()> job, const JobTicket& ticket) {
    std::future<bool> done;
    {
        std::lock_guard lock(_mutex);
        if (_stopping || (_waiting && ticket.isOlderThan(_waiting->ticket)) || (_running && ticket.isOlderThan(*_running)))
            return false;
        if (_waiting) _waiting->done.set_value(false);
        _waiting.emplace(Job{std::move(job), ticket, {}});
        done = _waiting->done.get_future();
        // Under the lock, so the cancellation reaches the job that runs now, never the next one:
        // the loop clears it under the same lock before it starts a job.
        if (_running) PxRequestMgr::getInstance().cancel();
    }
    _changed.notify_all();
    return done.get();
}

void RenderThread::stop() {
    {
        std::lock_guard lock(_mutex);
        _stopping = true;
        if (_waiting) _waiting->done.set_value(false);
        _waiting.reset();
        if (_running) PxRequestMgr::getInstance().cancel();
    }
    _changed.notify_all();
}

void RenderThread::loop() {
    PiAppThread::setCurrent();
    std::unique_lock lock(_mutex);
    while (true) {
        _changed.wait(lock, [this] { return _stopping || _waiting; });
        if (_stopping) return;
        Job job = std::move(*_waiting);
        _waiting.reset();
        _running = job.ticket;
        PxRequestMgr::getInstance().reset();
        lock.unlock();
        try {
            job.work();
            job.done.set_value(true);
        } catch (...) {
            job.done.set_exception(std::current_exception());
        }
        lock.lock();
        _running.reset();
    }
}

}  // namespace Zt::KelApp
