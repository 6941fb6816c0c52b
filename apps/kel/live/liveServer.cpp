#include "liveServer.h"

#include <httplib.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <new>
#include <optional>
#include <nlohmann/json.hpp>

#include "PiPluginLoader.h"
#include "kelImageFiles.h"
#include "kelScript.h"

namespace Zt::KelApp {

using json = nlohmann::json;

namespace {

// A request refused: its status and the message the page shows.
struct RequestError {
    int status;
    std::string message;
};

std::string text(const json& value) { return value.dump(-1, ' ', false, json::error_handler_t::replace); }

void reply(httplib::Response& res, int status, const json& body) {
    res.status = status;
    res.set_content(text(body), "application/json");
}

json parseBody(const httplib::Request& req) {
    try {
        json body = json::parse(req.body);
        if (!body.is_object()) throw RequestError{400, "the request body must be a JSON object"};
        return body;
    } catch (const json::parse_error& e) {
        throw RequestError{400, std::string("the request body is not valid JSON: ") + e.what()};
    }
}

const json& field(const json& body, const char* name, json::value_t type, const char* what) {
    const auto it = body.find(name);
    const bool number = type == json::value_t::number_float;
    if (it == body.end() || (number ? !it->is_number() : it->type() != type))
        throw RequestError{400, std::string("the request needs \"") + name + "\": " + what};
    return *it;
}

double finiteNumber(const json& value, const std::string& name) {
    const double number = value.get<double>();
    if (!std::isfinite(number) || std::fabs(number) > PxValidityInterval::kMaxTime)
        throw RequestError{400, "\"" + name + "\" must be a finite number of at most " +
                                    std::to_string(long(PxValidityInterval::kMaxTime)) + " in size"};
    return number;
}

json floatsJson(const LiveParameters& parameters) {
    json floats = json::array();
    for (const LiveFloat& f : parameters.floats)
        floats.push_back({{"name", f.name}, {"label", f.label}, {"value", f.value}, {"min", f.minimum}, {"max", f.maximum}});
    return floats;
}

const char* outcomeName(Preview::Outcome outcome) {
    switch (outcome) {
    case Preview::Outcome::Rendered: return "rendered";
    case Preview::Outcome::Refused: return "refused";
    case Preview::Outcome::Cancelled: return "cancelled";
    case Preview::Outcome::Failed: return "failed";
    }
    return "failed";
}

// A preview on the wire: a little-endian uint32 N, N bytes of JSON (what happened, the messages,
// the sliders, the picture's rectangle), zeros up to a multiple of 4 bytes, then the picture, rows
// from the bottom up: float32 RGBA, the very values the engine wrote, for the probe; or, with
// `eightBit`, RGBA bytes as an 8-bit file holds them (clamped to [0, 1], rounded), a quarter of the
// size, for a proxy that is on screen only until the full resolution replaces it.
std::string previewBody(const Preview& preview, const LiveParameters& parameters, const std::string& view,
                        bool eightBit) {
    json messages = json::array();
    for (const ScriptMessage& m : preview.messages)
        messages.push_back({{"line", m.line}, {"column", m.column}, {"message", m.message}, {"warning", m.warning}});
    const bool rendered = preview.outcome == Preview::Outcome::Rendered;
    const GeRectangle<int>& rect = preview.image.rect;
    const json info = {{"outcome", outcomeName(preview.outcome)},
                       {"reason", preview.reason},
                       {"compiled", preview.compiled},
                       {"messages", messages},
                       {"parameters", floatsJson(parameters)},
                       {"view", view},
                       {"scaleLevel", preview.scaleLevel},
                       {"milliseconds", preview.milliseconds},
                       {"x", rendered ? rect.xMin : 0},
                       {"y", rendered ? rect.yMin : 0},
                       {"width", rendered ? rect.width() : 0},
                       {"height", rendered ? rect.height() : 0},
                       {"pixels", eightBit ? "uint8" : "float32"}};
    const std::string head = text(info);
    const std::uint32_t length = std::uint32_t(head.size());
    const std::size_t pixelsAt = (4 + head.size() + 3) / 4 * 4;
    static_assert(sizeof(Color) == 4 * sizeof(float), "a pixel is four packed floats");
    const std::size_t values = rendered ? preview.image.pixels.size() * 4 : 0;
    std::string body(pixelsAt + values * (eightBit ? 1 : sizeof(float)), '\0');
    for (int i = 0; i < 4; ++i) body[std::size_t(i)] = char((length >> (8 * i)) & 0xff);
    std::memcpy(body.data() + 4, head.data(), head.size());
    const float* from = values ? &preview.image.pixels.front().r : nullptr;
    if (!eightBit) {
        if (values) std::memcpy(body.data() + pixelsAt, from, values * sizeof(float));
    } else {
        auto* to = reinterpret_cast<unsigned char*>(body.data() + pixelsAt);
        // NaN fails both comparisons and ends as 0.
        for (std::size_t i = 0; i < values; ++i)
            to[i] = from[i] >= 1.0f ? 255 : from[i] > 0.0f ? (unsigned char)(from[i] * 255.0f + 0.5f) : 0;
    }
    return body;
}

std::string readPageFile(const std::string& folder, const char* name) {
    const std::string path = folder + "/" + name;
    std::ifstream file(path, std::ios::binary);
    std::string content{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    if (!file || content.empty())
        throw FileError("cannot read the live page's " + path + ": build it with scripts/setup.sh (it needs npm)");
    return content;
}

}  // namespace

LivePage LivePage::load() {
    const char* folder = std::getenv("KEL_WEB_DIR");
    const std::string web = folder && *folder ? folder : PiPluginLoader::executableDirectory() + "/" KEL_DEFAULT_WEB_DIR;
    return {readPageFile(web, "index.html"), readPageFile(web, "page.js"), readPageFile(web, "page.css")};
}

struct LiveServer::Routes {
    RenderThread& thread;
    LiveSession& session;
    ScriptFile& script;
    LivePage page;
    httplib::Server server;
    int port = 0;

    // The page's state from a request: the script, and optionally values, time and view.
    PageState state(const json& body) const {
        PageState s;
        s.script = field(body, "script", json::value_t::string, "the script's text").get<std::string>();
        s.time = session.invocation().frames.empty() ? session.invocation().time : double(session.invocation().frames.front());
        if (body.contains("time")) s.time = finiteNumber(field(body, "time", json::value_t::number_float, "a number"), "time");
        if (body.contains("values")) {
            for (const auto& [name, value] : field(body, "values", json::value_t::object, "an object of numbers").items()) {
                if (!value.is_number()) throw RequestError{400, "the value of \"" + name + "\" must be a number"};
                s.values[name] = finiteNumber(value, name);
            }
        }
        if (body.contains("proxy")) s.proxy = field(body, "proxy", json::value_t::boolean, "true or false").get<bool>();
        if (body.contains("view")) {
            s.view = field(body, "view", json::value_t::string, "the name of the output or an input").get<std::string>();
            const auto& views = session.views();
            if (std::find(views.begin(), views.end(), s.view) == views.end())
                throw RequestError{400, "there is no view \"" + s.view + "\""};
        }
        return s;
    }

    // The page's numbering of its requests, when it gives one: "page" and "sequence".
    static JobTicket ticket(const json& body) {
        JobTicket t;
        if (body.contains("page")) t.page = field(body, "page", json::value_t::string, "the page's name").get<std::string>();
        if (body.contains("sequence"))
            t.sequence = field(body, "sequence", json::value_t::number_float, "a number").get<double>();
        return t;
    }

    // Only the page itself may ask: the Host names this server (no other name resolving here),
    // an Origin is this server's, and a request with a body says it is JSON, which a form on
    // another site can't send without the browser asking first (and the server never says yes).
    std::optional<RequestError> refusal(const httplib::Request& req) const {
        const std::string self[] = {"127.0.0.1:" + std::to_string(port), "localhost:" + std::to_string(port)};
        const std::string host = req.get_header_value("Host");
        if (host != self[0] && host != self[1]) return RequestError{403, "requests must be addressed to " + self[0]};
        if (req.has_header("Origin")) {
            const std::string origin = req.get_header_value("Origin");
            if (origin != "http://" + self[0] && origin != "http://" + self[1])
                return RequestError{403, "requests from another origin (" + origin + ") are refused"};
        }
        if (req.method == "POST" && !req.get_header_value("Content-Type").starts_with("application/json"))
            return RequestError{415, "requests carry JSON: Content-Type: application/json"};
        return std::nullopt;
    }

    template <class Handler>
    httplib::Server::Handler guarded(Handler handler) {
        return [handler](const httplib::Request& req, httplib::Response& res) {
            try {
                handler(req, res);
            } catch (const RequestError& e) {
                reply(res, e.status, {{"error", e.message}});
            } catch (const std::bad_alloc&) {
                reply(res, 500, {{"error", "out of memory"}});
            } catch (const ExBase& e) {
                reply(res, 500, {{"error", readableReason(e)}});
            } catch (const std::exception& e) {
                reply(res, 500, {{"error", e.what()}});
            }
        };
    }

    void install() {
        server.set_payload_max_length(kMaxBody);
        server.set_pre_routing_handler([this](const httplib::Request& req, httplib::Response& res) {
            const std::optional<RequestError> refused = refusal(req);
            if (!refused) return httplib::Server::HandlerResponse::Unhandled;
            reply(res, refused->status, {{"error", refused->message}});
            return httplib::Server::HandlerResponse::Handled;
        });
        // Errors the library answers itself (a body too large, no such path) get a message too.
        server.set_error_handler([](const httplib::Request&, httplib::Response& res) {
            if (!res.body.empty()) return;
            const std::string message = res.status == 413 ? "the request body is larger than " +
                                                                std::to_string(kMaxBody) + " bytes"
                                                          : "no such page or request (" + std::to_string(res.status) + ")";
            reply(res, res.status, {{"error", message}});
        });
        const auto file = [this](std::string LivePage::*content, const char* type) {
            return [this, content, type](const httplib::Request&, httplib::Response& res) {
                res.set_content(page.*content, type);
                res.set_header("Cache-Control", "no-store");
            };
        };
        server.Get("/", file(&LivePage::html, "text/html; charset=utf-8"));
        server.Get("/page.js", file(&LivePage::script, "text/javascript; charset=utf-8"));
        server.Get("/page.css", file(&LivePage::style, "text/css; charset=utf-8"));

        server.Get("/api/session", guarded([this](const httplib::Request&, httplib::Response& res) {
            const Invocation& in = session.invocation();
            const std::string current = script.text();
            json frames = nullptr;
            if (!in.frames.empty()) frames = {*std::min_element(in.frames.begin(), in.frames.end()), *std::max_element(in.frames.begin(), in.frames.end())};
            reply(res, 200,
                  {{"script", script.path()},
                   {"text", current},
                   {"views", session.views()},
                   {"frames", frames},
                   {"time", in.frames.empty() ? in.time : double(in.frames.front())},
                   {"scaleLevel", in.scaleLevel},
                   {"proxyLevel", session.proxyLevel()},
                   {"parameters", floatsJson(liveParameters(in, current))}});
        }));

        server.Post("/api/render", guarded([this](const httplib::Request& req, httplib::Response& res) {
            const json body = parseBody(req);
            const PageState s = state(body);
            Preview preview;
            if (!thread.run([&] { preview = session.preview(s); }, ticket(body)))
                preview.outcome = Preview::Outcome::Cancelled;
            const std::string view = s.view.empty() ? session.views().front() : s.view;
            // Moved, not copied: a full-resolution picture is tens of megabytes.
            const bool eightBit =
                body.contains("pixels") &&
                field(body, "pixels", json::value_t::string, "\"float32\" or \"uint8\"").get<std::string>() == "uint8";
            res.body = previewBody(preview, liveParameters(session.invocation(), s.script), view, eightBit);
            res.set_header("Content-Type", "application/octet-stream");
        }));

        server.Post("/api/stop", guarded([this](const httplib::Request& req, httplib::Response& res) {
            thread.run([] {}, ticket(parseBody(req)));
            reply(res, 200, {{"ok", true}});
        }));

        server.Post("/api/save", guarded([this](const httplib::Request& req, httplib::Response& res) {
            const json body = parseBody(req);
            try {
                script.save(field(body, "script", json::value_t::string, "the script's text").get<std::string>());
            } catch (const FileError& e) {
                throw RequestError{500, e.what()};
            }
            reply(res, 200, {{"ok", true}, {"path", script.path()}});
        }));

        server.Post("/api/render-file", guarded([this](const httplib::Request& req, httplib::Response& res) {
            const json body = parseBody(req);
            const PageState s = state(body);
            std::string path;
            try {
                path = script.outputInside(field(body, "path", json::value_t::string, "the output file").get<std::string>());
            } catch (const FileError& e) {
                throw RequestError{403, e.what()};
            }
            int status = kExitCancelled;
            std::string failure;
            try {
                thread.run([&] { status = session.renderToFile(s, path); }, ticket(body));
            } catch (const std::runtime_error& e) {  // UsageError, FileError: refused before any output
                throw RequestError{400, e.what()};
            } catch (const ExBase& e) {
                status = kExitRefused;
                failure = readableReason(e);
            }
            const std::string message = !failure.empty()         ? failure
                                        : status == kExitOk        ? "written"
                                        : status == kExitCancelled ? "cancelled"
                                                                   : "the script does not compile";
            reply(res, 200,
                  {{"ok", status == kExitOk}, {"cancelled", status == kExitCancelled}, {"path", path}, {"message", message}});
        }));
    }
};

LiveServer::LiveServer(RenderThread& thread, LiveSession& session, ScriptFile& script, LivePage page)
    : _routes(new Routes{thread, session, script, std::move(page), {}, 0}) {
    _routes->install();
}

LiveServer::~LiveServer() = default;

int LiveServer::bind(int port) {
    const int bound = port == 0 ? _routes->server.bind_to_any_port("127.0.0.1")
                                : (_routes->server.bind_to_port("127.0.0.1", port) ? port : -1);
    if (bound < 0) throw UsageError("cannot listen on 127.0.0.1:" + std::to_string(port) + ": the port is taken or not allowed");
    _routes->port = bound;
    return bound;
}

void LiveServer::serve() { _routes->server.listen_after_bind(); }
void LiveServer::stop() { _routes->server.stop(); }

}  // namespace Zt::KelApp
