// vukra serve [--modbus-tcp HOST:PORT] [--share HOST:PORT] [--read-only] [--max-clients N]
//
// One process owns the device's line and serves every door at once: all
// the doors' requests go through one queue (queue.h) to one thread, the
// line's. SIGTERM and Ctrl-C close the doors, let the exchange in flight
// finish and end serve with status 0.
#include "../cli.h"
#include "../device.h"
#include "../poll_values.h"
#include "connections.h"
#include "doors.h"

#include <csignal>
#include <cstdio>
#include <pthread.h>
#include <thread>

namespace vukra::serve {

namespace {

constexpr Door kDoors[] = {
    {"Modbus TCP", "--modbus-tcp", &Settings::modbus_tcp, start_modbus_tcp, stop_modbus_tcp},
    {"the shared line", "--share", &Settings::share, start_share, stop_share},
#ifdef VUKRA_HAVE_WEB
    {"the web door", "--http", &Settings::http, start_web, stop_web},
    {"MQTT", "--mqtt", &Settings::mqtt, start_mqtt, stop_mqtt},
#endif
};

int serve(cli::Options& o, Settings settings) {
    bool any = false;
    for (const Door& d : kDoors) any |= !(settings.*d.address).empty();
    if (!any) {
        std::string options;
        for (const Door& d : kDoors) options += std::string(options.empty() ? "" : ", ") + d.option;
        return cli::fail("serve needs a door: " + options);
    }
    if (!settings.ha_discovery.empty() && settings.mqtt.empty())
        return cli::fail("--ha-discovery publishes through the MQTT bridge: give --mqtt URL too");
    for (const Door& d : kDoors) {
        const std::string& address = settings.*d.address;
        const bool listens = d.address != &Settings::mqtt; // MQTT's is the broker's URL
        if (listens && !address.empty() && !address_reads(address))
            return cli::fail(std::string(d.option) + " " + address + " is not HOST:PORT (an IPv6 address in brackets)");
    }
    if (settings.read_only && !settings.share.empty())
        std::fprintf(stderr, "vukra: warning: --read-only holds for Modbus TCP; the shared line still writes\n");
    cli::data_stream(o);
    // The doors' and the line's threads leave SIGINT and SIGTERM to this one.
    sigset_t ending;
    sigemptyset(&ending);
    sigaddset(&ending, SIGINT);
    sigaddset(&ending, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &ending, nullptr);
    std::signal(SIGPIPE, SIG_IGN);

    modbus_vukra_session* session = cli::device_session(o);
    if (session == nullptr) return 1;
    settings.table = o.table;
    settings.port = o.port;
    Queue queue;
    std::size_t opened = 0;
    for (; opened < std::size(kDoors); ++opened) {
        const Door& d = kDoors[opened];
        if (!(settings.*d.address).empty() && !d.start(settings, queue)) break;
    }
    int status = 0;
    if (opened == std::size(kDoors)) {
        std::thread line([&queue, session] { run(queue, session); });
        int signal = 0;
        sigwait(&ending, &signal);
        for (std::size_t i = std::size(kDoors); i-- > 0;)
            if (!(settings.*kDoors[i].address).empty()) kDoors[i].stop();
        stop(queue);
        line.join();
    } else {
        status = 1;
        while (opened-- > 0)
            if (!(settings.*kDoors[opened].address).empty()) kDoors[opened].stop();
    }
    pthread_sigmask(SIG_UNBLOCK, &ending, nullptr);
    return status;
}

} // namespace

const Door* doors(std::size_t& count) {
    count = std::size(kDoors);
    return kDoors;
}

} // namespace vukra::serve

namespace vukra::cli {

void add_serve_command(CLI::App& app, Options& options) {
    auto s = std::make_shared<serve::Settings>();
    CLI::App* command = app.add_subcommand(
        "serve", "serve the device to many clients at once through one queue: Modbus TCP clients and programs "
                 "that open tcp://HOST:PORT, until SIGTERM or Ctrl-C");
    command->add_option("--modbus-tcp", s->modbus_tcp,
                        "HOST:PORT: a Modbus TCP server (functions 3, 6, 16; units 0, 1, 255) relaying to the device");
    command->add_option("--share", s->share,
                        "HOST:PORT: the library's own line protocol shared: open tcp://HOST:PORT with vukra, vukra "
                        "mount, the Python package or a C host");
#ifdef VUKRA_HAVE_WEB
    command->add_option("--http", s->http,
                        "HOST:PORT: the web door: the live page (/), the map (/map), a JSON API (/api/registers), "
                        "events (/api/events), a page of its own (/ui) and Prometheus metrics (/metrics)");
    command->add_option("--http-token-file", s->http_token_file,
                        "a file whose first line is the token a write through the web door needs (Authorization: "
                        "Bearer TOKEN, or open /ui?token=TOKEN); required off loopback");
    command->add_option("--mqtt", s->mqtt,
                        "mqtt://HOST:PORT/PREFIX: every readable register published as vukra poll --mqtt does, "
                        "sets from PREFIX/register/NAME/set, the line's state at PREFIX/line");
    add_mqtt_options(command, s->mqtt_credentials, s->mqtt_cafile);
    command->add_option("--ha-discovery", s->ha_discovery,
                        "with --mqtt: Home Assistant discovery under PREFIX (default homeassistant)")
        ->expected(0, 1)
        ->default_str("homeassistant");
    command->add_option("--name", s->name, "the device's name in Home Assistant (default: from the port)");
    command->add_option("--every", s->every, "seconds between the web door's and MQTT's reading rounds (default 1)")
        ->check(CLI::Range(0.05, 86400.0));
#endif
    command->add_flag("--read-only", s->read_only,
                      "answer Modbus TCP writes with exception 1 (illegal function); the shared line still writes");
    command->add_option("--max-clients", s->max_clients, "connections at once, per door (default 32)")
        ->check(CLI::Range(1u, 1024u));
    command->footer("Addresses are explicit (127.0.0.1:1502, [::1]:1502; port 0 takes a free one); a door on any\n"
                    "but a loopback address carries no authentication, and serve says so. See docs/serve.md.");
    choose(command, options, [&options, s] { return serve::serve(options, *s); });
}

} // namespace vukra::cli
