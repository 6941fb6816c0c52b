// The HTTP face of a live session, on 127.0.0.1 only: the page's three files, and the requests
// it makes (GET /api/session; POST /api/render, /api/stop, /api/save, /api/render-file, each
// with a JSON body). A request that is malformed, too large, from another origin or for a path
// outside the script's folder gets a clear error (a status and {"error": MESSAGE}) and changes
// nothing; the server goes on serving.
#pragma once

#include <memory>
#include <string>

#include "liveRenderThread.h"
#include "liveScriptFile.h"
#include "liveSession.h"

namespace Zt::KelApp {

// The page's files, read when the server starts: index.html, page.js and page.css from `web`
// beside the executable's folder (where the build puts them), or from KEL_WEB_DIR.
struct LivePage {
    std::string html, script, style;
    static LivePage load();
};

class LiveServer {
public:
    LiveServer(RenderThread& thread, LiveSession& session, ScriptFile& script, LivePage page);
    ~LiveServer();

    // Binds 127.0.0.1:`port`, or a free port for 0, and returns the port; UsageError when it can't.
    int bind(int port);
    // Serves until stop(); from any thread.
    void serve();
    void stop();

    // The largest request body taken: far above any script, far below a burden on memory.
    static constexpr std::size_t kMaxBody = 1 << 20;

private:
    struct Routes;
    std::unique_ptr<Routes> _routes;
};

}  // namespace Zt::KelApp
