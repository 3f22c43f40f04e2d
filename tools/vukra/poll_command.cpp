// vukra poll NAME... [--every S] [--count N] [--format text|csv|json]
//                    [--mqtt URL [--mqtt-credentials FILE] [--mqtt-cafile FILE]]
//
// Reads the registers once a period on one session and writes one line (or
// one JSON object) a round on standard output; a failed read is told on its
// line and the poll goes on. With --mqtt each value is also published to
// the broker, and writes asked for on its set topics are made between two
// register reads (see mqtt_bridge.h). Ctrl-C ends the poll with status 0.
#include "cli.h"
#include "device.h"
#include "interrupt.h"
#include "poll_values.h"
#include "register_reads.h"

#ifdef VUKRA_HAVE_MQTT
#include "mqtt_bridge.h"
#endif

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <thread>

namespace vukra::cli {

namespace {

struct PollOptions {
    std::vector<std::string> names;
    double every = 1.0;
    unsigned long count = 0; // 0: until Ctrl-C
    Format format = Format::kText;
    std::string mqtt, credentials, ca_file;
    unsigned gap = kDefaultGap;
};

using Clock = std::chrono::steady_clock;

int poll(Options& o, const PollOptions& po) {
    const Format format = po.format;
    std::FILE* out = data_stream(o);
    std::vector<Polled> polled;
    modbus_vukra_session* s = open_for_reading(o, po.names, polled);
    if (s == nullptr) return 1;
    Grouping grouping; // kept from round to round: the spans the device refused
    grouping.gap = po.gap;
#ifdef VUKRA_HAVE_MQTT
    std::unique_ptr<Mqtt, void (*)(Mqtt*)> mqtt(nullptr, mqtt_stop);
    if (!po.mqtt.empty()) {
        std::string why;
        for (const Polled& p : polled)
            if (!(why = mqtt_name_problem(p.name)).empty()) return fail(why);
        mqtt.reset(mqtt_start(MqttSettings{po.mqtt, po.credentials, po.ca_file}, why));
        if (!mqtt) return fail(why);
    }
#endif

    const InterruptCaught caught;
    const auto period = std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(po.every));
    bool failed_read = false;
    std::fputs(header_line(format, polled).c_str(), out);
    Clock::time_point next = Clock::now();
    for (unsigned long round = 0; (po.count == 0 || round < po.count) && !interrupted(); ++round) {
        const std::string time = timestamp();
        std::function<void()> between; // before each transaction of the round
#ifdef VUKRA_HAVE_MQTT
        // A set waits at most for the read in progress.
        if (mqtt) between = [&] {
            if (!interrupted()) mqtt_apply_sets(mqtt.get(), s, 0);
        };
#endif
        const std::vector<Reading> readings = read_registers(s, polled, grouping, between);
        for (const Reading& r : readings) {
            failed_read |= !r.ok;
#ifdef VUKRA_HAVE_MQTT
            if (mqtt) mqtt_publish_value(mqtt.get(), r.name, json_text(reading_object(r, time)));
#endif
        }
        std::fputs(round_line(format, time, readings).c_str(), out);
        if (std::fflush(out) != 0) return fail("cannot write standard output");
        if (po.count != 0 && round + 1 == po.count) break;
        // The next round keeps to the period; one that is already late
        // starts at once, and the missed ones are not made up.
        next += period;
        if (next < Clock::now()) next = Clock::now();
        while (!interrupted() && Clock::now() < next) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(next - Clock::now()).count();
            const auto wait = static_cast<std::uint32_t>(std::min<long long>(left + 1, 50));
#ifdef VUKRA_HAVE_MQTT
            if (mqtt) {
                mqtt_apply_sets(mqtt.get(), s, wait);
                continue;
            }
#endif
            std::this_thread::sleep_for(std::chrono::milliseconds(wait));
        }
    }
    if (std::fflush(out) != 0) return fail("cannot write standard output");
    // Ended by Ctrl-C: the poll did what it was asked. A counted poll tells
    // whether every read succeeded.
    return interrupted() || !failed_read ? 0 : 1;
}

} // namespace

void add_poll_command(CLI::App& app, Options& options) {
    auto po = std::make_shared<PollOptions>();
    CLI::App* command = app.add_subcommand(
        "poll", "read registers once a period and write one line a round (with a UTC time) until Ctrl-C or --count; "
                "with --mqtt also publish them to a broker");
    command->add_option("NAME", po->names, "register names")->required();
    command->add_option("--every", po->every, "seconds between rounds (default 1; decimals allowed)")
        ->check(CLI::Validator(
            [](std::string& text) {
                char* end = nullptr;
                const double seconds = std::strtod(text.c_str(), &end);
                if (!text.empty() && *end == '\0' && seconds > 0 && seconds <= 86400) return std::string();
                return "is a number of seconds above 0, at most 86400, not \"" + text + "\"";
            },
            "SECONDS"));
    // Without --count the poll runs until Ctrl-C; 0 or a negative count is a
    // usage error rather than a poll that never ends.
    command->add_option("--count", po->count, "stop after N rounds (status 1 if a read failed)")
        ->check(CLI::Validator(
            [](std::string& text) {
                const bool digits = text.find_first_not_of("0123456789") == std::string::npos;
                if (digits && text.find_first_not_of('0') != std::string::npos) return std::string();
                return "is a number of rounds from 1 up, not \"" + text + "\"";
            },
            "N>=1"));
    add_format_option(command, po->format, "text, csv or json (one object a line)");
    add_gap_option(command, po->gap);
    command->add_option("--mqtt", po->mqtt,
                        "publish to mqtt://HOST:PORT/PREFIX (mqtts:// for TLS): retained JSON at PREFIX/register/NAME, "
                        "writes from PREFIX/register/NAME/set, refusals at PREFIX/register/NAME/error, PREFIX/status "
                        "online/offline")
#ifdef VUKRA_HAVE_MQTT
        ->check(CLI::Validator(mqtt_url_problem, "URL"))
#else
        ->check(CLI::Validator(
            [](const std::string&) { return std::string("this vukra was built without MQTT (libmosquitto)"); }, "URL"))
#endif
        ;
    add_mqtt_options(command, po->credentials, po->ca_file);
    choose(command, options, [&options, po] { return poll(options, *po); });
}

} // namespace vukra::cli
