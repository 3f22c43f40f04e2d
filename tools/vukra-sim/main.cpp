// vukra-sim: plays a vukra device on a pseudo-terminal (or a serial port),
// answering Modbus ASCII requests in SLIP packets from the registers of a
// table.
#include "link/ascii_frame.h"
#include "link/slip.h"
#include "modbus_device.h"
#include "platform/platform.h"
#include "register_memory.h"
#include "table/register_table.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

using namespace vukra;

namespace {

const char kUsage[] =
    "usage: vukra-sim --table FILE [--port DEV] [--baud N] [--corrupt P] [--silent] [--seed N]\n"
    "\n"
    "Plays a vukra device: opens a pseudo-terminal, prints its path on the first\n"
    "line, and answers Modbus ASCII requests for address 1 in SLIP packets, with\n"
    "function 3 (read) and 16 (write) on the registers of the table.\n"
    "\n"
    "  --table FILE  the register table; initial values from \"value\" attributes\n"
    "  --port DEV    use this serial device instead of a pseudo-terminal\n"
    "  --baud N      send replies at the pace of N baud, 8N1 (default: unpaced)\n"
    "  --corrupt P   change one random byte of a reply with probability P (0 to 1)\n"
    "  --silent      never answer\n"
    "  --seed N      seed of the random choices (default: from the clock)\n";

struct Options {
    std::string table;
    std::string port;
    unsigned baud = 0;
    double corrupt = 0;
    bool silent = false;
    unsigned seed = static_cast<unsigned>(std::chrono::steady_clock::now().time_since_epoch().count());
};

[[noreturn]] void usage_error(const char* why) {
    std::fprintf(stderr, "vukra-sim: %s\n%s", why, kUsage);
    std::exit(2);
}

Options parse(int argc, char** argv) {
    Options o;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        auto value = [&]() -> const char* {
            if (i + 1 >= argc) usage_error(("missing value after " + a).c_str());
            return argv[++i];
        };
        if (a == "--help" || a == "-h") {
            std::fputs(kUsage, stdout);
            std::exit(0);
        } else if (a == "--table") {
            o.table = value();
        } else if (a == "--port") {
            o.port = value();
        } else if (a == "--baud") {
            o.baud = static_cast<unsigned>(std::strtoul(value(), nullptr, 10));
        } else if (a == "--corrupt") {
            o.corrupt = std::strtod(value(), nullptr);
            if (!(o.corrupt >= 0 && o.corrupt <= 1)) usage_error("--corrupt takes a probability from 0 to 1");
        } else if (a == "--silent") {
            o.silent = true;
        } else if (a == "--seed") {
            o.seed = static_cast<unsigned>(std::strtoul(value(), nullptr, 10));
        } else {
            usage_error(("unknown argument " + a).c_str());
        }
    }
    if (o.table.empty()) usage_error("--table FILE is needed");
    return o;
}

// Writes a whole SLIP packet at the pace of baud bits per second, 10 bits
// a byte, in slices of about 2 ms.
void send_paced(link::Port* port, const std::uint8_t* payload, std::size_t count, unsigned baud) {
    std::vector<std::uint8_t> wire(2 * count + 2);
    std::size_t n = 0;
    wire[n++] = link::kSlipEnd;
    n += link::slip_escape(payload, count, wire.data() + n);
    wire[n++] = link::kSlipEnd;
    const double bytes_per_second = baud / 10.0;
    const std::size_t slice = std::max<std::size_t>(1, static_cast<std::size_t>(bytes_per_second / 500));
    auto start = std::chrono::steady_clock::now();
    for (std::size_t sent = 0; sent < n;) {
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

} // namespace

int main(int argc, char** argv) {
    Options options = parse(argc, argv);
    std::FILE* probe = std::fopen(options.table.c_str(), "r");
    if (probe == nullptr) {
        std::fprintf(stderr, "vukra-sim: cannot open %s\n", options.table.c_str());
        return 1;
    }
    std::fclose(probe);
    if (!table::load(options.table.c_str())) return 1;
    static sim::RegisterMemory memory;
    int registers = sim::load_registers(memory);

    std::string path = options.port;
    link::Port* port = nullptr;
    platform::PseudoTerminal pty;
    if (options.port.empty()) {
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
    port->timeout_ms = 60000;
    std::printf("%s\n", path.c_str());
    std::fprintf(stderr, "vukra-sim: %d registers from %s on %s\n", registers, options.table.c_str(), path.c_str());
    std::fflush(stdout);
    // What the link code prints about frames is not this program's output.
    if (!std::freopen("/dev/null", "w", stdout)) return 1;

    std::mt19937 random(options.seed);
    std::uniform_real_distribution<double> chance(0, 1);
    std::uint8_t request_text[link::kFrameCapacity];
    std::uint8_t reply_text[link::kFrameCapacity];
    for (;;) {
        link::AsciiFrame request;
        link::frame_init(request, request_text, link::kFrameCapacity);
        if (!link::frame_receive(port, request)) continue;
        if (options.silent || !link::frame_check(request)) continue;
        link::AsciiFrame reply;
        link::frame_init(reply, reply_text, link::kFrameCapacity);
        if (!sim::answer(memory, request, reply)) continue;
        if (options.corrupt > 0 && chance(random) < options.corrupt) corrupt(reply, random);
        if (options.baud > 0)
            send_paced(port, reply_text, static_cast<std::size_t>(reply.length), options.baud);
        else
            link::frame_send(port, reply);
    }
}
