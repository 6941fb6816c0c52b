// The one thread on which a live session compiles and renders. The engine compiles on the
// application thread only, and the server answers on many threads, so every job goes through
// here: this thread is the application thread, runs one job at a time, and the newest job wins.
// A job that comes while another runs cancels it through the host's cancellation point
// (PxRequestMgr), so a script that loops for ever never holds up the next keystroke; a job still
// waiting when a newer one comes is dropped unstarted. Newer is by the page's own numbering where
// a job carries it (JobTicket): requests on different connections may arrive out of order.
#pragma once

#include <condition_variable>
#include <functional>
#include <future>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace Zt::KelApp {

// Who asked for a job, and when: a page numbers its requests. A job is older than another of the
// same page with a higher number; jobs without a page (tools, scripts) go by arrival only.
struct JobTicket {
    std::string page;
    double sequence = 0;
    bool isOlderThan(const JobTicket& other) const {
        return !page.empty() && page == other.page && sequence < other.sequence;
    }
};

class RenderThread {
public:
    RenderThread();
    ~RenderThread();
    RenderThread(const RenderThread&) = delete;
    RenderThread& operator=(const RenderThread&) = delete;

    // Runs `job` on this thread and waits for it; rethrows what it throws. Returns false, without
    // running it, when a newer job replaced it before it started, a newer one is already waiting
    // or running, or the thread is stopping.
    bool run(std::function<void()> job, const JobTicket& ticket = {});
    // Cancels the running job and drops the waiting one; later jobs are refused.
    void stop();

private:
    struct Job {
        std::function<void()> work;
        JobTicket ticket;
        std::promise<bool> done;
    };
    void loop();

    std::mutex _mutex;
    std::condition_variable _changed;
    std::optional<Job> _waiting;
    std::optional<JobTicket> _running;
    bool _stopping = false;
    std::thread _thread;
};

}  // namespace Zt::KelApp
