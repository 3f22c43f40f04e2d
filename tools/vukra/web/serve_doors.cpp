// vukra serve's doors that show registers by name: the web door (--http)
// and the MQTT bridge (--mqtt, with Home Assistant discovery). Both show
// the one board that one reading round keeps, once a period (--every),
// and write through the same checks; every exchange goes through serve's
// queue.
#include "../device.h"
#include "../serve/doors.h"
#include "door.h"
#include "writes.h"

#ifdef VUKRA_HAVE_MQTT
#include "../mqtt_bridge.h"
#include "ha_discovery.h"
#endif

#include <cstdio>
#include <memory>

namespace vukra::serve {

namespace {

// What the two doors share; made by the first that opens, ended by the
// last that closes.
struct Plant {
    Queue* queue = nullptr;
    web::Board board;
    web::Line line;
    web::Rounds rounds;
    web::Pages pages;
    int users = 0;
    std::mutex hook_mutex;
    std::function<void()> after_round; // the MQTT bridge's publishing
    web::Door* door = nullptr;
};

Plant* plant = nullptr; // one serve per process

// The door's end of a job: started, finished, given up.
struct Waiter {
    std::mutex mutex;
    std::condition_variable changed;
    bool started = false, finished = false, ended = false, gave_up = false;
};

// Runs work on the line's thread through the queue, as a client of its own
// (so the queue's turns are fair between requests), and waits for it: not
// started after deadline, waited for once started.
web::Ran run_job(Queue& q, web::LineCounters& counters, const std::function<void(modbus_vukra_session*)>& work,
                 web::Urgency urgency, Clock::time_point deadline) {
    auto w = std::make_shared<Waiter>();
    auto job = std::make_shared<Job>();
    job->client = open_client(q);
    job->priority = urgency == web::Urgency::kWrite  ? Priority::kWrite
                    : urgency == web::Urgency::kRead ? Priority::kRead
                                                     : Priority::kPeriodic;
    job->deadline = deadline;
    // work is this caller's: touched only while the caller waits for it.
    job->work = [w, &work](modbus_vukra_session* s) {
        {
            const std::lock_guard<std::mutex> lock(w->mutex);
            if (w->gave_up) return;
            w->started = true;
        }
        work(s);
        const std::lock_guard<std::mutex> lock(w->mutex);
        w->finished = true;
        w->changed.notify_all();
    };
    job->done = [w](Outcome) {
        const std::lock_guard<std::mutex> lock(w->mutex);
        w->ended = true;
        w->changed.notify_all();
    };
    const Submitted submitted = submit(q, job);
    if (submitted != Submitted::kQueued) {
        close_client(q, job->client);
        return submitted == Submitted::kClientFull || submitted == Submitted::kFull ? web::Ran::kBusy
                                                                                    : web::Ran::kStopped;
    }
    web::Ran ran;
    {
        std::unique_lock<std::mutex> lock(w->mutex);
        w->changed.wait_until(lock, deadline, [&w] { return w->finished || w->ended; });
        if (!w->started) w->gave_up = true;
        else w->changed.wait(lock, [&w] { return w->finished; });
        ran = w->finished ? (Clock::now() <= deadline ? web::Ran::kDone : web::Ran::kLate) : web::Ran::kExpired;
    }
    if (ran == web::Ran::kExpired) {
        abandon(*job);
        ++counters.timeouts;
    }
    close_client(q, job->client);
    return ran;
}

Plant* open_plant(const Settings& settings, Queue& queue) {
    if (plant != nullptr) {
        ++plant->users;
        return plant;
    }
    auto p = std::make_unique<Plant>();
    p->queue = &queue;
    const std::string why = web::make_pages(p->pages);
    if (!why.empty()) {
        std::fprintf(stderr, "vukra: %s\n", why.c_str());
        return nullptr;
    }
    // The line's thread does not run yet: the table is still this thread's.
    web::fill(p->board);
    Plant* raw = p.get();
    p->line.run = [raw](const std::function<void(modbus_vukra_session*)>& work, web::Urgency urgency,
                        Clock::time_point deadline) {
        return run_job(*raw->queue, raw->board.counters, work, urgency, deadline);
    };
    p->rounds.board = &p->board;
    p->rounds.line = &p->line;
    p->rounds.period = std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(settings.every));
    p->rounds.after_round = [raw] {
        const std::lock_guard<std::mutex> lock(raw->hook_mutex);
        if (raw->after_round) raw->after_round();
    };
    web::start(p->rounds);
    p->users = 1;
    plant = p.release();
    return plant;
}

void close_plant() {
    if (plant == nullptr || --plant->users > 0) return;
    web::stop(plant->rounds);
    web::remove_pages(plant->pages);
    delete plant;
    plant = nullptr;
}

Clock::time_point request_deadline(const Settings& s) {
    return Clock::now() + std::chrono::milliseconds(s.timeout_ms);
}

#ifdef VUKRA_HAVE_MQTT
struct Bridge {
    cli::Mqtt* mqtt = nullptr;
    std::string line_topic;
    std::atomic<bool> stopping{false};
    std::thread sets, follower;
    web::Discovery discovery;
    std::vector<web::Config> configs;
    bool discovering = false;
};
Bridge* bridge = nullptr;

void publish_values(Plant& p, Bridge& b) {
    const std::lock_guard<std::mutex> lock(p.board.mutex);
    for (const web::Entry& e : p.board.entries)
        if (e.readable && cli::mqtt_name_problem(e.reg.name).empty())
            cli::mqtt_publish_value(b.mqtt, e.reg.name, cli::json_text(cli::reading_object(e.last, e.time)));
}

void publish_line(Plant& p, Bridge& b) {
    bool known, up;
    {
        const std::lock_guard<std::mutex> lock(p.board.mutex);
        known = p.board.line_known;
        up = p.board.line_up;
    }
    if (known) cli::mqtt_publish(b.mqtt, b.line_topic, up ? "online" : "offline", true);
}

void publish_discovery(Bridge& b) {
    for (const web::Config& c : b.configs) cli::mqtt_publish(b.mqtt, c.topic, c.payload, true);
}
#endif

} // namespace

bool start_web(const Settings& settings, Queue& queue) {
    Plant* p = open_plant(settings, queue);
    if (p == nullptr) return false;
    std::string why;
    web::DoorSettings door{settings.http, settings.http_token_file, settings.read_only,
                           std::chrono::milliseconds(settings.timeout_ms)};
    p->door = web::start_door(door, p->board, p->line, p->pages, why);
    if (p->door == nullptr) {
        std::fprintf(stderr, "vukra: %s\n", why.c_str());
        close_plant();
        return false;
    }
    return true;
}

void stop_web() {
    if (plant == nullptr) return;
    web::stop_door(plant->door);
    plant->door = nullptr;
    close_plant();
}

bool start_mqtt(const Settings& settings, Queue& queue) {
#ifndef VUKRA_HAVE_MQTT
    (void)queue;
    std::fprintf(stderr, "vukra: this vukra was built without MQTT (libmosquitto): %s is not served\n",
                 settings.mqtt.c_str());
    return false;
#else
    Plant* p = open_plant(settings, queue);
    if (p == nullptr) return false;
    auto b = std::make_unique<Bridge>();
    std::string why;
    b->mqtt = cli::mqtt_start(cli::MqttSettings{settings.mqtt, settings.mqtt_credentials, settings.mqtt_cafile}, why);
    if (b->mqtt == nullptr) {
        std::fprintf(stderr, "vukra: %s\n", why.c_str());
        close_plant();
        return false;
    }
    for (const web::Entry& e : p->board.entries)
        if (const std::string problem = cli::mqtt_name_problem(e.reg.name); !problem.empty())
            std::fprintf(stderr, "vukra: %s is not published: %s\n", e.reg.name.c_str(), problem.c_str());
    b->line_topic = cli::mqtt_prefix(b->mqtt) + "/line";
    Bridge* raw = b.get();
    if (!settings.ha_discovery.empty()) {
        b->discovering = true;
        b->discovery.prefix = settings.ha_discovery;
        b->discovery.bridge = cli::mqtt_prefix(b->mqtt);
        b->discovery.name = settings.name.empty() ? web::default_device_name(settings.port) : settings.name;
        b->configs = web::discovery_configs(b->discovery, p->board);
        // Home Assistant started again: it asks for the configs anew.
        cli::mqtt_watch(b->mqtt, b->discovery.prefix + "/status",
                        [raw](const std::string&, const std::string& payload) {
                            if (payload == "online") publish_discovery(*raw);
                        });
        // A config of this device that names no register now: cleared.
        cli::mqtt_watch(b->mqtt, web::node_filter(b->discovery),
                        [raw](const std::string& topic, const std::string& payload) {
                            if (!payload.empty() && web::stale(raw->configs, topic))
                                cli::mqtt_publish(raw->mqtt, topic, "", true);
                        });
    }
    cli::mqtt_on_connect(b->mqtt, [raw, p] {
        publish_line(*p, *raw);
        if (raw->discovering) publish_discovery(*raw);
    });
    {
        const std::lock_guard<std::mutex> lock(p->hook_mutex);
        p->after_round = [raw, p] { publish_values(*p, *raw); };
    }
    // The line's state as soon as it changes, not at the end of a round
    // stuck behind a silent device.
    b->follower = std::thread([raw, p] {
        std::uint64_t seen = 0;
        while (!raw->stopping) {
            std::vector<web::Event> news;
            web::events_after(p->board, seen, news, std::chrono::milliseconds(200));
            bool line = false;
            for (const web::Event& e : news) line |= e.kind == "line";
            if (!news.empty()) seen = news.back().id;
            if (line) publish_line(*p, *raw);
        }
    });
    b->sets = std::thread([raw, p, settings] {
        cli::SetRequest request;
        while (!raw->stopping) {
            if (!cli::mqtt_next_set(raw->mqtt, request, 200)) continue;
            std::string text = request.payload;
            while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
            const web::Written w =
                web::write_text(p->board, p->line, request.name, text, settings.read_only, request_deadline(settings));
            if (w.status == 200) continue;
            std::fprintf(stderr, "vukra: %s/set: %s\n", request.name.c_str(), w.why.c_str());
            cli::mqtt_publish_error(raw->mqtt, request.name, w.why);
        }
    });
    bridge = b.release();
    std::fprintf(stderr, "vukra: MQTT to %s\n", settings.mqtt.c_str());
    return true;
#endif
}

void stop_mqtt() {
#ifdef VUKRA_HAVE_MQTT
    if (bridge == nullptr) return;
    {
        const std::lock_guard<std::mutex> lock(plant->hook_mutex);
        plant->after_round = nullptr;
    }
    bridge->stopping = true;
    bridge->sets.join();
    bridge->follower.join();
    cli::mqtt_publish(bridge->mqtt, bridge->line_topic, "offline", true);
    cli::mqtt_stop(bridge->mqtt);
    delete bridge;
    bridge = nullptr;
    close_plant();
#endif
}

} // namespace vukra::serve
