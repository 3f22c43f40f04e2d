// vukra-sim: plays a vukra device on a pseudo-terminal (or a serial port):
// Modbus ASCII requests in SLIP packets are answered from the registers of
// a table, remote-filesystem requests (SLIP packets starting with 1) from
// the device's filesystem, a kernel of its own with an SD card image.
#include "../common/command_line.h"
#include "../common/null_device.h"
#include "../common/table_errors.h"
#include "card.h"
#include "faults.h"
#include "file_service.h"
#include "link/ascii_frame.h"
#include "link/slip.h"
#include "modbus_device.h"
#include "platform/platform.h"
#include "register_memory.h"
#include "remotefs/local_server.h"
#include "table/register_table.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace vukra;

namespace {

struct Options {
    std::string table;
    std::string port;
    std::string listen; // HOST:PORT to serve on TCP instead of a line
    std::uint32_t baud = 0;
    double corrupt = 0;
    sim::FaultOptions faults;
    sim::CardOptions card;
    std::uint32_t seed = static_cast<std::uint32_t>(std::chrono::steady_clock::now().time_since_epoch().count());
};

// Another device's status vocabulary: the sim's statuses and what is
// answered instead, at most a few dozen pairs.
struct StatusPair {
    std::int32_t from, to;
};
std::vector<StatusPair> status_pairs;

std::int32_t foreign_status(std::int32_t status) {
    for (const StatusPair& p : status_pairs)
        if (p.from == status) return p.to;
    return status;
}

// "FROM=TO[,FROM=TO...]", each a decimal status; "" when it reads.
std::string read_statuses(const std::string& text) {
    std::size_t at = 0;
    while (at <= text.size()) {
        const std::size_t comma = std::min(text.find(',', at), text.size());
        const std::string pair = text.substr(at, comma - at);
        const std::size_t equals = pair.find('=');
        long long from = 0, to = 0;
        char* end = nullptr;
        if (equals == std::string::npos || equals == 0 || equals + 1 == pair.size()) return "\"" + pair + "\" is not FROM=TO";
        from = std::strtoll(pair.c_str(), &end, 10);
        if (end != pair.c_str() + equals) return "\"" + pair + "\" is not FROM=TO";
        to = std::strtoll(pair.c_str() + equals + 1, &end, 10);
        if (*end != '\0') return "\"" + pair + "\" is not FROM=TO";
        if (from == 0 || to == 0 || from < INT32_MIN || from > INT32_MAX || to < INT32_MIN || to > INT32_MAX)
            return "\"" + pair + "\": a status is a non-zero 32-bit number";
        status_pairs.push_back({static_cast<std::int32_t>(from), static_cast<std::int32_t>(to)});
        at = comma + 1;
    }
    return "";
}

// A probability: a decimal number from 0 to 1.
std::string probability(const std::string& text, double& out) {
    if (text.empty() || text.find_first_not_of("0123456789.") != std::string::npos ||
        text.find_first_of("0123456789") == std::string::npos || text.find('.') != text.rfind('.'))
        return "\"" + text + "\" is not a decimal number";
    double v = std::stod(text);
    if (!(v >= 0 && v <= 1)) return text + " is not a probability from 0 to 1";
    out = v;
    return "";
}

[[noreturn]] void usage_error(const std::string& why) {
    std::fprintf(stderr, "vukra-sim: %s (see vukra-sim --help)\n", why.c_str());
    std::exit(2);
}

Options parse(int argc, char** argv) {
    Options o;
    std::string baud, corrupt, seed;
    sim::FaultTexts fault_texts;
    CLI::App app{"Plays a vukra device: opens a pseudo-terminal, prints its path on the first line of\n"
                 "standard output, and answers Modbus ASCII requests for address 1 in SLIP packets,\n"
                 "with function 3 (read) and 16 (write) on the registers of the table. A register's\n"
                 "access holds: reading a \"W\" or writing an \"R\" register gives exception 2.\n"
                 "Remote-filesystem requests on the same line are answered from the device's own\n"
                 "filesystem: \"/dev/sdcard0\" is the SD card image as one file, \"/mem/...\" the\n"
                 "files of the card's volume, and the rest of the device's namespace is there too.\n"
                 "Warnings and errors go to standard error; with -v also what it serves and the kernel's lines.",
                 "vukra-sim"};
    app.add_option("--table", o.table, "the register table; initial values from \"value\" attributes")->required();
    auto* port_option = app.add_option("--port", o.port, "use this serial device instead of a pseudo-terminal");
    app.add_option("--listen", o.listen,
                   "serve on TCP at HOST:PORT instead of a pseudo-terminal, as a device behind a serial device\n"
                   "server does (IPv6 in brackets, * for every address; port 0 takes a free one); the first\n"
                   "line of standard output is then tcp://HOST:PORT (tcp://localhost:PORT for *). One client\n"
                   "at a time: a second connection waits, accepted by the system but not served, until the\n"
                   "first one closes")
        ->excludes(port_option)
        ->check(CLI::Validator(
            [](std::string& text) -> std::string {
                link::TcpAddress address;
                return link::parse_host_port(text, address, true)
                           ? ""
                           : text + " is not HOST:PORT (an IPv6 address in brackets, a port from 0 to 65535)";
            },
            "HOST:PORT"));
    app.add_option("--baud", baud, "send replies at the pace of N baud, 8N1 (default: unpaced)")->check(sim::not_empty);
    app.add_option("--corrupt", corrupt, "change one random byte of a reply with probability P (0 to 1)")->check(sim::not_empty);
    sim::add_fault_options(app, o.faults, fault_texts);
    app.add_option("--image", o.card.image,
                   "the SD card: a ufs image (vukra-ufs makes them), locked while the sim runs and written\n"
                   "as the device writes its card; a FILE that does not exist is made (8 MiB, a new\n"
                   "volume). Without it the card is a new temporary one");
    app.add_flag("-v,--verbose", o.card.verbose,
                 "show what it serves, the library's own lines (such as \"Erreur LRC\") and the device\n"
                 "kernel's messages on standard error (without it only warnings and errors go there)");
    std::string statuses;
    app.add_option("--statuses", statuses,
                   "answer file requests with another device's statuses: FROM=TO pairs separated by commas,\n"
                   "each one of the sim's statuses and the number answered instead (e.g. -44=2,-20=17: no\n"
                   "such file answered as 2, exists as 17); the others as they are")
        ->check(sim::not_empty);
    app.add_option("--seed", seed, "seed of the random choices (default: from the clock)")->check(sim::not_empty);
    app.set_version_flag("--version", "vukra-sim " VUKRA_VERSION);
    tools::parse_command_line(app, argc, argv);
    std::string why;
    if (!sim::read_count("--baud", baud, 1, 100000000, o.baud, why)) usage_error(why);
    if (!corrupt.empty() && !(why = probability(corrupt, o.corrupt)).empty()) usage_error("--corrupt: " + why);
    if (!sim::read_count("--seed", seed, 0, 0xFFFFFFFFull, o.seed, why)) usage_error(why);
    if (!(why = sim::read_fault_options(fault_texts, o.faults)).empty()) usage_error(why);
    if (!statuses.empty() && !(why = read_statuses(statuses)).empty()) usage_error("--statuses: " + why);
    if (!status_pairs.empty()) remotefs::set_server_statuses(foreign_status);
    return o;
}

// Set when the program is asked to stop: a slow paced reply is given up
// then, so that the stop does not wait for it.
std::atomic<bool> stopping{false};

// Writes a whole SLIP packet at the pace of baud bits per second, 10 bits
// a byte, in slices of about 2 ms (or fewer bytes if asked to stop).
void send_paced(link::Port* port, const std::uint8_t* payload, std::size_t count, unsigned baud) {
    std::vector<std::uint8_t> wire(2 * count + 2);
    std::size_t n = 0;
    wire[n++] = link::kSlipEnd;
    n += link::slip_escape(payload, count, wire.data() + n);
    wire[n++] = link::kSlipEnd;
    const double bytes_per_second = baud / 10.0;
    const std::size_t slice = std::max<std::size_t>(1, static_cast<std::size_t>(bytes_per_second / 500));
    auto start = std::chrono::steady_clock::now();
    for (std::size_t sent = 0; sent < n && !stopping.load();) {
        std::size_t take = std::min(slice, n - sent);
        link::serial_write(port, wire.data() + sent, take);
        sent += take;
        std::this_thread::sleep_until(start + std::chrono::duration<double>(sent / bytes_per_second));
    }
}

// Changes one hex digit of the reply (data or LRC) to a digit of another
// value, so that the damage always shows in the LRC.
void corrupt(link::AsciiFrame& reply, std::mt19937& random) {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    std::size_t digits = static_cast<std::size_t>(reply.length) - 3; // between ':' and CR LF
    std::uint8_t& c = reply.buffer[1 + random() % digits];
    std::uint8_t value = 0;
    std::uint8_t pair[2] = {'0', c};
    link::hex_decode(pair, 1, 0, &value);
    c = static_cast<std::uint8_t>(kDigits[(value + 1 + random() % 15) % 16]);
}

// Changes one random byte of a file reply to another value.
void corrupt(std::uint8_t* frame, std::size_t length, std::mt19937& random) {
    frame[random() % length] ^= static_cast<std::uint8_t>(1 + random() % 255);
}

struct Device {
    Options options;
    link::Port* port = nullptr;
    platform::NativePort listener = platform::kInvalidPort; // with --listen
    std::uint32_t timeout_ms = 60000;
    sim::RegisterMemory* memory = nullptr;
    std::mt19937 random;
    std::uniform_real_distribution<double> chance{0, 1};
    sim::FaultCount count;
    // Held while a request is acted on; the stop takes it to tidy up.
    platform::RecursiveLock busy;
};

Device device;

void send(Device& d, const std::uint8_t* bytes, std::size_t length) {
    if (d.options.baud > 0)
        send_paced(d.port, bytes, length, d.options.baud);
    else
        link::slip_send(d.port, bytes, length);
}

void send_to_host(const std::uint8_t* bytes, std::size_t length) { send(device, bytes, length); }

void answer_registers(Device& d, link::AsciiFrame& request) {
    if (!link::frame_check(request)) return;
    const sim::Turn turn = sim::next_turn(d.options.faults, d.count, -1);
    if (!turn.answer) return;
    std::uint8_t reply_text[link::kFrameCapacity];
    link::AsciiFrame reply;
    link::frame_init(reply, reply_text, link::kFrameCapacity);
    if (!sim::answer(*d.memory, request, reply)) return;
    if (d.options.corrupt > 0 && d.chance(d.random) < d.options.corrupt) corrupt(reply, d.random);
    sim::deliver_register_reply(d.options.faults, d.count, turn, reply_text, static_cast<std::size_t>(reply.length), send_to_host);
}

void answer_files(Device& d, const std::uint8_t* packet, std::size_t length) {
    const sim::Turn turn = sim::next_turn(d.options.faults, d.count, length >= 2 ? packet[1] : -2);
    if (!turn.answer) return;
    static std::uint8_t reply[2048];
    const std::size_t n = sim::answer_file_request(packet, length, reply);
    if (n == 0) return;
    if (d.options.corrupt > 0 && d.chance(d.random) < d.options.corrupt) corrupt(reply, n, d.random);
    sim::deliver_file_reply(d.options.faults, d.count, turn, packet, length, reply, n, send_to_host);
}

// Takes packets off the line: a file request whole, Modbus ASCII text into
// a frame that ':' starts and a line feed ends, as many packets as it takes.
void serve(void*) {
    Device& d = device;
    std::uint8_t packet[2048];
    std::uint8_t request_text[link::kFrameCapacity];
    link::AsciiFrame request;
    link::frame_init(request, request_text, link::kFrameCapacity);
    for (;;) {
        if (d.listener != platform::kInvalidPort && d.port->native == platform::kInvalidPort) {
            // The client has gone: the next one waiting is served, from a
            // fresh start of its first request.
            const platform::NativePort client = platform::tcp_accept(d.listener);
            if (client == platform::kInvalidPort) {
                platform::sleep_ms(100);
                continue;
            }
            platform::LockGuard hold(d.busy);
            link::serial_close(d.port);
            d.port = link::tcp_adopt(client, d.timeout_ms);
            if (d.port == nullptr) std::_Exit(1);
            link::frame_init(request, request_text, link::kFrameCapacity);
        }
        const long n = link::slip_receive(d.port, packet, sizeof packet);
        if (n <= 0) continue;
        platform::LockGuard hold(d.busy);
        if (packet[0] == sim::kFileFrameMarker) {
            answer_files(d, packet, static_cast<std::size_t>(n));
            continue;
        }
        for (long i = 0; i < n; ++i) {
            const std::uint8_t c = packet[i];
            if (c == ':') request.length = 0;
            if (request.length >= request.capacity) request.length = 0; // an endless line is dropped
            request.buffer[request.length++] = c;
            if (c == '\n') {
                answer_registers(d, request);
                link::frame_init(request, request_text, link::kFrameCapacity);
            }
        }
    }
}

} // namespace

int main(int argc, char** argv) {
    // Stopping waits for the request at hand and writes the card back.
    platform::stop_requests_hold();
    tools::install_table_error_handler("vukra-sim");
    Options options = parse(argc, argv);
    if (!tools::table_opens(options.table.c_str())) {
        std::fprintf(stderr, "vukra-sim: cannot open %s\n", options.table.c_str());
        return 1;
    }
    if (!tools::load_table(options.table.c_str())) {
        std::fprintf(stderr, "vukra-sim: cannot load the register table %s\n", options.table.c_str());
        return 1;
    }
    tools::warn_if_no_register("vukra-sim", options.table.c_str());
    static sim::RegisterMemory memory;
    int registers = sim::load_registers(memory);

    std::string path = options.port;
    link::Port* port = nullptr;
    platform::PseudoTerminal pty;
    if (!options.listen.empty()) {
        // HOST:PORT as a client names it, except that port 0 (the system
        // chooses) is allowed here; the parser took it already.
        link::TcpAddress address;
        char why[256] = "";
        if (link::parse_host_port(options.listen, address, true))
            device.listener = platform::tcp_listen(address.host, address.service, why, sizeof why);
        if (device.listener == platform::kInvalidPort) {
            std::fprintf(stderr, "vukra-sim: cannot listen on %s: %s\n", options.listen.c_str(), why);
            return 1;
        }
        // "*" listens on every address; the name printed is then the one
        // that reaches it from this host.
        const bool every = std::strcmp(address.host, "*") == 0;
        const bool v6 = std::strchr(address.host, ':') != nullptr;
        path = std::string("tcp://") + (v6 ? "[" : "") + (every ? "localhost" : address.host) + (v6 ? "]" : "") + ":" +
               std::to_string(platform::tcp_local_port(device.listener));
        port = link::tcp_adopt(platform::kInvalidPort, 60000); // no client yet
    } else if (options.port.empty()) {
        if (platform::pty_open(pty)) {
            path = pty.path;
            port = link::serial_open(0, nullptr, pty.master, nullptr);
        }
    } else {
        const link::SerialSettings settings = link::kSessionSettings;
        port = link::serial_open(0, nullptr, platform::serial_open(path.c_str()), &settings);
        if (port->native == platform::kInvalidPort) port = nullptr;
    }
    if (port == nullptr) {
        std::fprintf(stderr, "vukra-sim: cannot open the line %s\n", path.c_str());
        return 1;
    }
    if (!sim::card_open(options.card)) return 1;
    port->timeout_ms = 60000;
    std::printf("%s\n", path.c_str());
    std::fflush(stdout);
    // What the link code prints ("Erreur LRC") is not this program's output:
    // it goes nowhere, or with -v to standard error, after what it serves.
    if (options.card.verbose) {
        std::fprintf(stderr, "vukra-sim: %d registers from %s on %s; the card %s\n", registers,
                     options.table.c_str(), path.c_str(),
                     options.card.image.empty() ? "is a temporary one" : options.card.image.c_str());
        if (dup2(STDERR_FILENO, STDOUT_FILENO) < 0) return 1;
        std::setvbuf(stdout, nullptr, _IOLBF, 0);
    } else if (!std::freopen(tools::kNullDevice, "w", stdout)) {
        return 1;
    }

    device.options = options;
    device.port = port;
    device.memory = &memory;
    device.random.seed(options.seed);
    platform::lock_init(device.busy);
    platform::Thread server;
    if (!platform::thread_start(server, serve, nullptr)) {
        std::fprintf(stderr, "vukra-sim: cannot start serving\n");
        sim::card_close();
        return 1;
    }
    platform::stop_request_wait();
    stopping = true;
    platform::lock_enter(device.busy); // the request at hand is finished; no other starts
    sim::card_close();
    std::fflush(stderr);
    std::_Exit(0);
}
