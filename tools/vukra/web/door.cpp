#include "door.h"

#include "access.h"
#include "metrics.h"
#include "ui_page.h"
#include "writes.h"

#include <httplib.h>

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace vukra::web {

namespace {

// Connections are served by threads made as they are needed, up to
// kMaxWorkers, kept for the next ones; more wait their turn. (httplib's own
// pool has a fixed handful, which a few event streams would fill.)
// httplib asks for a TaskQueue subclass: the one class here.
class Workers final : public httplib::TaskQueue {
public:
    void enqueue(std::function<void()> fn) override {
        const std::lock_guard<std::mutex> lock(mutex_);
        jobs_.push_back(std::move(fn));
        if (idle_ == 0 && threads_.size() < kMaxWorkers) threads_.emplace_back([this] { work(); });
        else wake_.notify_one();
    }
    void shutdown() override {
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            stopping_ = true;
        }
        wake_.notify_all();
        for (std::thread& t : threads_) t.join();
    }

private:
    void work() {
        std::unique_lock<std::mutex> lock(mutex_);
        for (;;) {
            ++idle_;
            wake_.wait(lock, [this] { return stopping_ || !jobs_.empty(); });
            --idle_;
            if (jobs_.empty()) return;
            std::function<void()> job = std::move(jobs_.front());
            jobs_.pop_front();
            lock.unlock();
            job();
            lock.lock();
        }
    }
    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<std::function<void()>> jobs_;
    std::vector<std::thread> threads_;
    std::size_t idle_ = 0;
    bool stopping_ = false;
};

} // namespace

struct Door {
    DoorSettings settings;
    Address bound;
    bool loopback = true;
    std::string token;
    Board* board = nullptr;
    Line* line = nullptr;
    Pages* pages = nullptr;
    std::string map_html;
    httplib::Server server;
    std::thread listener;
    std::atomic<std::size_t> event_clients{0};
};

namespace {

using httplib::Request;
using httplib::Response;

void json_reply(Response& res, int status, const nlohmann::ordered_json& body) {
    res.status = status;
    res.set_content(cli::json_text(body) + "\n", "application/json");
}

void refuse(Response& res, int status, const std::string& why) {
    nlohmann::ordered_json body;
    body["error"] = why;
    json_reply(res, status, body);
    if (status == 401) res.set_header("WWW-Authenticate", "Bearer");
}

std::string own_address(const Door& d) {
    const std::string host = d.bound.host.find(':') != std::string::npos ? "[" + d.bound.host + "]" : d.bound.host;
    return host + ":" + std::to_string(d.bound.port);
}

// The host the client reached the door by: what the page's forms post to.
std::string page_host(const Door& d, const Request& req) {
    const std::string host = req.get_header_value("Host");
    return plain_host_header(host) ? host : own_address(d);
}

// A write's checks before anything else: another site's page, the token.
bool may_write(const Door& d, const Request& req, Response& res) {
    const std::string origin = req.get_header_value("Origin");
    if (!origin.empty() && origin != "http://" + req.get_header_value("Host")) {
        refuse(res, 403, "a page of " + origin + " may not write here");
        return false;
    }
    if (d.token.empty()) return true;
    if (same_token(request_token(req.get_header_value("Authorization"), req.get_header_value("Cookie")), d.token))
        return true;
    refuse(res, 401, "a write needs the token of --http-token-file (Authorization: Bearer TOKEN)");
    return false;
}

// /?token=T and /ui?token=T: the token goes into a cookie for the page's writes.
bool take_page_token(const Door& d, const Request& req, Response& res) {
    if (!req.has_param("token")) return true;
    if (d.token.empty() || !same_token(req.get_param_value("token"), d.token)) {
        refuse(res, 401, "wrong token");
        return false;
    }
    res.set_header("Set-Cookie", token_cookie(d.token));
    return true;
}

Clock::time_point deadline(const Door& d) { return Clock::now() + d.settings.request_wait; }

int line_refusal(Ran ran, std::string& why) {
    switch (ran) {
    case Ran::kDone:
    case Ran::kLate: return 0;
    case Ran::kBusy: why = "the line's queue is full"; return 503;
    case Ran::kStopped: why = "vukra serve is stopping"; return 503;
    case Ran::kExpired: break;
    }
    why = "the line was busy past the request's time";
    return 504;
}

// The live page, every register read (name null) or only the one named.
void live(Door& d, const Request& req, Response& res, const char* name, int status) {
    std::string html, why;
    bool written = false;
    const std::string host = page_host(d, req);
    const Ran ran = d.line->run(
        [&](modbus_vukra_session* s) { written = live_page(*d.pages, s, d.board->counters, host, name, html); },
        Urgency::kRead, deadline(d));
    if (const int refused = line_refusal(ran, why)) return refuse(res, refused, why);
    if (!written) return refuse(res, 500, "cannot write the page in " + d.pages->dir);
    res.status = status;
    res.set_content(html, "text/html");
}

void post_form(Door& d, const Request& req, Response& res) {
    if (!may_write(d, req, res)) return;
    httplib::Params form;
    httplib::detail::parse_query_text(req.body, form);
    if (form.size() != 1) return refuse(res, 400, "the form sends one NAME=VALUE");
    const std::string name = form.begin()->first;
    const Written w = write_text(*d.board, *d.line, name, form.begin()->second, d.settings.read_only, deadline(d));
    if (w.status != 200) res.set_header("X-Vukra-Refusal", w.why);
    live(d, req, res, name.c_str(), w.status);
}

void get_all(Door& d, Response& res) {
    nlohmann::ordered_json all = nlohmann::ordered_json::array();
    {
        const std::lock_guard<std::mutex> lock(d.board->mutex);
        for (const Entry& e : d.board->entries)
            if (e.readable) all.push_back(entry_json(e));
    }
    json_reply(res, 200, all);
}

void get_one(Door& d, const Request& req, Response& res) {
    const std::string name = req.matches[1];
    const Entry* e = find(*d.board, name);
    if (e == nullptr) return refuse(res, 404, "no register " + name + " in the table");
    if (!e->readable) return refuse(res, 403, name + " is write-only (access \"W\" in the table)");
    const std::size_t index = d.board->by_name.at(name);
    cli::Reading r;
    bool silent = false;
    std::string why;
    const Ran ran = d.line->run(
        [&](modbus_vukra_session* s) {
            r = read_entry(s, *d.board, index);
            silent = !r.ok && link_silent();
        },
        Urgency::kRead, deadline(d));
    if (const int refused = line_refusal(ran, why)) return refuse(res, refused, why);
    if (!r.ok) return refuse(res, silent ? 504 : 502, "cannot read " + name + ": " + r.error);
    json_reply(res, 200, entry_json_locked(*d.board, index));
}

void put_one(Door& d, const Request& req, Response& res) {
    if (!may_write(d, req, res)) return;
    const std::string name = req.matches[1];
    const nlohmann::json body = nlohmann::json::parse(req.body, nullptr, false);
    std::string text;
    if (find(*d.board, name) == nullptr) return refuse(res, 404, "no register " + name + " in the table");
    if (body.is_discarded() || !body.is_object() || !body.contains("value"))
        return refuse(res, 400, "the body is a JSON object {\"value\": V}");
    if (!value_text(body["value"], text))
        return refuse(res, 400, "the value is a number, an array of numbers (a buffer) or a text");
    const Written w = write_text(*d.board, *d.line, name, text, d.settings.read_only, deadline(d));
    if (w.status != 200) return refuse(res, w.status, w.why);
    const std::size_t index = d.board->by_name.at(name);
    if (w.read_back) return json_reply(res, 200, entry_json_locked(*d.board, index));
    nlohmann::ordered_json done;
    done["name"] = name;
    done["written"] = true;
    json_reply(res, 200, done);
}

void events(Door& d, const Request& req, Response& res) {
    if (++d.event_clients > kMaxEventClients) {
        --d.event_clients;
        return refuse(res, 503, "too many event clients");
    }
    auto last = std::make_shared<std::uint64_t>(0);
    // A new client hears first whether the device answers.
    auto first = std::make_shared<std::string>("retry: 1000\n\n");
    {
        const std::lock_guard<std::mutex> lock(d.board->mutex);
        *last = d.board->last_event;
        if (d.board->line_known)
            *first += std::string("event: line\ndata: {\"state\":\"") + (d.board->line_up ? "up" : "down") + "\"}\n\n";
    }
    const std::string resume = req.get_header_value("Last-Event-ID");
    if (!resume.empty() && resume.find_first_not_of("0123456789") == std::string::npos && resume.size() < 20)
        *last = std::min<std::uint64_t>(*last, std::stoull(resume));
    res.set_header("Cache-Control", "no-cache");
    Board* board = &*d.board;
    res.set_chunked_content_provider(
        "text/event-stream",
        [board, last, first](std::size_t, httplib::DataSink& sink) {
            std::string out;
            out.swap(*first);
            if (!out.empty()) return sink.write(out.data(), out.size());
            std::vector<Event> news;
            if (!events_after(*board, *last, news, std::chrono::seconds(15))) return false;
            for (const Event& e : news)
                out += "id: " + std::to_string(e.id) + "\nevent: " + e.kind + "\ndata: " + e.data + "\n\n";
            if (!news.empty()) *last = news.back().id;
            if (out.empty()) out = ": still here\n\n";
            return sink.write(out.data(), out.size());
        },
        [&d](bool) { --d.event_clients; });
}

void routes(Door& d) {
    httplib::Server& s = d.server;
    // A door on loopback answers only to loopback names: another site
    // cannot rebind its own name onto it.
    s.set_pre_routing_handler([&d](const Request& req, Response& res) {
        if (d.loopback && !loopback_host_header(req.get_header_value("Host"))) {
            refuse(res, 403, "this door answers to loopback host names only");
            return httplib::Server::HandlerResponse::Handled;
        }
        // httplib bounds a body by its Content-Length only: a chunked one
        // would be read without end. No client of the door needs one.
        if (req.has_header("Transfer-Encoding")) {
            refuse(res, 411, "a body goes with its Content-Length (at most " + std::to_string(kMaxBody) + " bytes)");
            res.set_header("Connection", "close");
            return httplib::Server::HandlerResponse::Handled;
        }
        return httplib::Server::HandlerResponse::Unhandled;
    });
    s.Get("/", [&d](const Request& req, Response& res) {
        if (take_page_token(d, req, res)) live(d, req, res, nullptr, 200);
    });
    s.Post("/modbus.cb", [&d](const Request& req, Response& res) { post_form(d, req, res); });
    s.Get("/map", [&d](const Request&, Response& res) { res.set_content(d.map_html, "text/html"); });
    s.Get("/api/registers", [&d](const Request&, Response& res) { get_all(d, res); });
    s.Get("/api/registers/(.+)", [&d](const Request& req, Response& res) { get_one(d, req, res); });
    s.Put("/api/registers/(.+)", [&d](const Request& req, Response& res) { put_one(d, req, res); });
    s.Get("/api/events", [&d](const Request& req, Response& res) { events(d, req, res); });
    s.Get("/ui", [&d](const Request& req, Response& res) {
        if (take_page_token(d, req, res)) res.set_content(ui_page(), "text/html; charset=utf-8");
    });
    s.Get("/metrics", [&d](const Request&, Response& res) {
        res.set_content(metrics_text(*d.board), "text/plain; version=0.0.4; charset=utf-8");
    });
}

} // namespace

Door* start_door(const DoorSettings& settings, Board& board, Line& line, Pages& pages, std::string& why) {
    auto d = std::make_unique<Door>();
    d->settings = settings;
    d->board = &board;
    d->line = &line;
    d->pages = &pages;
    if (!parse_address(settings.address, d->bound, why)) return nullptr;
    d->loopback = is_loopback(d->bound.host);
    if (!settings.token_file.empty()) {
        why = read_token(settings.token_file, d->token);
        if (!why.empty()) return nullptr;
    } else if (!d->loopback) {
        why = "the web door on " + settings.address +
              " is not on loopback: writes need a token there (--http-token-file FILE)";
        return nullptr;
    }
    // The table does not change while serve runs: the map is made once,
    // here, before the line's thread takes the table.
    if (!map_page(pages, d->map_html)) {
        why = "cannot write the register map page in " + pages.dir;
        return nullptr;
    }
    routes(*d);
    httplib::Server& s = d->server;
    s.new_task_queue = [] { return new Workers; };
    s.set_read_timeout(5, 0);
    s.set_write_timeout(5, 0);
    s.set_keep_alive_timeout(5);
    s.set_keep_alive_max_count(1000);
    s.set_payload_max_length(kMaxBody);
    s.set_tcp_nodelay(true); // a reply's header and body are two writes: no 40 ms wait between them
    const bool bound = d->bound.port == 0 ? (d->bound.port = s.bind_to_any_port(d->bound.host)) > 0
                                          : s.bind_to_port(d->bound.host, d->bound.port);
    if (!bound) {
        why = "cannot listen on " + settings.address + " (in use, or not an address of this machine)";
        return nullptr;
    }
    Door* door = d.release();
    door->listener = std::thread([door] { door->server.listen_after_bind(); });
    std::fprintf(stderr, "vukra: web on http://%s/\n", own_address(*door).c_str());
    if (!door->loopback)
        std::fprintf(stderr, "vukra: warning: the web door on %s speaks plain HTTP: its token and values cross the "
                             "network in clear (put a TLS proxy in front of it outside a trusted network)\n",
                     settings.address.c_str());
    return door;
}

std::string door_address(const Door* door) { return own_address(*door); }

void stop_door(Door* door) {
    if (door == nullptr) return;
    close(*door->board);
    door->server.stop();
    if (door->listener.joinable()) door->listener.join();
    delete door;
}

} // namespace vukra::web
