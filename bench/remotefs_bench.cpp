// Files through the remote filesystem against the line they cross.
//
// A 256 KiB file is written and read back through vukra-sim paced at
// 400000 baud, set against the time that the bytes which crossed the line
// take at that speed, measured in the same run. vukra-sim paces only its
// replies, and hands each reply's last slice (up to 2 ms of bytes) to the
// line as the slice starts rather than when a line would have carried it.
// So the session talks to the sim through a relay in this program that is
// the line: it carries the bytes of both directions at 400000 baud, no
// byte sooner than the line would have, and counts them: request and reply
// packets whole, 12-byte header, items, SLIP ends and escapes, and the
// status requests the session's timer sends meanwhile. The line's time is
// those bytes at 10 bits a byte (8N1).
//
// Also: the round trip of one 1024-byte read against the sim unpaced,
// without the relay.
#include "modbus_vukra.h"
#include "sim_child.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <poll.h>
#include <pty.h>
#include <random>
#include <string>
#include <termios.h>
#include <thread>
#include <unistd.h>
#include <vector>

using Clock = std::chrono::steady_clock;

namespace {

constexpr unsigned kBaud = 400000;
constexpr std::size_t kFileSize = 256 * 1024;
constexpr int kRoundTrips = 500;

double seconds_since(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

// vukra-sim on the example table with a temporary card, paced at kBaud or not.
std::unique_ptr<vukra::test::SimProcess> start_sim(bool paced) {
    if (paced) return bench::start_sim({"--table", "table.xml", "--baud", std::to_string(kBaud)});
    return bench::start_sim({"--table", "table.xml"});
}

// Carries bytes between the host's end of a pty pair of its own and the
// sim's pty, the host's at kBaud, and counts them.
struct Relay {
    int host = -1; // master of the host's pty
    int host_slave = -1;
    std::string host_path;
    int device = -1; // the sim's pty, opened by name
    std::atomic<bool> stop{false};
    std::atomic<unsigned long> to_device{0}, to_host{0};
    std::thread thread;
};

void raw(int fd) {
    termios t{};
    tcgetattr(fd, &t);
    cfmakeraw(&t);
    tcsetattr(fd, TCSANOW, &t);
}

bool write_all(int fd, const unsigned char* p, std::size_t n) {
    while (n > 0) {
        const ssize_t w = write(fd, p, n);
        if (w < 0) {
            if (errno == EINTR || errno == EAGAIN) continue;
            return false;
        }
        p += w;
        n -= static_cast<std::size_t>(w);
    }
    return true;
}

// Writes n bytes to fd no sooner than a line at kBaud would have carried
// them, in slices of about 2 ms; line_free is when the line in that
// direction is next free.
void carry(int fd, const unsigned char* bytes, std::size_t n, Clock::time_point& line_free) {
    const double bytes_per_second = kBaud / 10.0;
    const std::size_t slice = static_cast<std::size_t>(bytes_per_second / 500);
    line_free = std::max(line_free, Clock::now());
    for (std::size_t at = 0; at < n;) {
        const std::size_t take = std::min(slice, n - at);
        line_free += std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(take / bytes_per_second));
        std::this_thread::sleep_until(line_free);
        write_all(fd, bytes + at, take);
        at += take;
    }
}

void relay_run(Relay& r) {
    Clock::time_point to_device_free = Clock::now(), to_host_free = Clock::now();
    unsigned char buffer[4096];
    while (!r.stop) {
        pollfd p[2] = {{r.host, POLLIN, 0}, {r.device, POLLIN, 0}};
        if (poll(p, 2, 50) <= 0) continue;
        if (p[1].revents & POLLIN) {
            const ssize_t n = read(r.device, buffer, sizeof buffer);
            if (n > 0) {
                r.to_host += static_cast<unsigned long>(n);
                carry(r.host, buffer, static_cast<std::size_t>(n), to_host_free);
            }
        }
        if (p[0].revents & POLLIN) {
            const ssize_t n = read(r.host, buffer, sizeof buffer);
            if (n > 0) {
                r.to_device += static_cast<unsigned long>(n);
                carry(r.device, buffer, static_cast<std::size_t>(n), to_device_free);
            }
        }
    }
}

bool relay_start(Relay& r, const std::string& device_path) {
    char name[256];
    if (openpty(&r.host, &r.host_slave, name, nullptr, nullptr) != 0) return false;
    raw(r.host);
    raw(r.host_slave);
    r.host_path = name;
    r.device = open(device_path.c_str(), O_RDWR | O_NOCTTY);
    if (r.device < 0) return false;
    raw(r.device);
    r.thread = std::thread(relay_run, std::ref(r));
    return true;
}

void relay_stop(Relay& r) {
    r.stop = true;
    if (r.thread.joinable()) r.thread.join();
    close(r.device);
    close(r.host_slave);
    close(r.host);
}

struct Leg {
    double seconds = 0;
    unsigned long to_device = 0, to_host = 0;
    bool ok = false;
};

double line_seconds(unsigned long bytes) { return bytes * 10.0 / kBaud; }

void print_leg(const char* what, const Leg& leg) {
    const double line = line_seconds(leg.to_device + leg.to_host);
    std::printf("  %s 256 KiB: %.3f s; the line carried %lu bytes to the device and %lu back,\n", what, leg.seconds,
                leg.to_device, leg.to_host);
    std::printf("    %.3f s at %u baud; ratio line/measured %.3f (target >= 0.9), file %.0f bytes/s%s\n", line, kBaud,
                leg.seconds > 0 ? line / leg.seconds : 0.0, leg.seconds > 0 ? kFileSize / leg.seconds : 0.0,
                leg.ok ? "" : " (FAILED)");
}

// Writes then reads the file through the paced sim and the relay.
bool paced_run(Leg& writing, Leg& reading) {
    const auto sim = start_sim(true);
    Relay relay;
    if (sim == nullptr || !relay_start(relay, sim->port())) return false;
    modbus_vukra_session* s = modbus_vukra_op_session_open(relay.host_path.c_str());
    bool ok = s != nullptr && modbus_vukra_op_protected_mount(s) == 0;

    std::vector<unsigned char> data(kFileSize), back(kFileSize);
    std::mt19937 random(7);
    for (unsigned char& b : data) b = static_cast<unsigned char>(random()); // SLIP escapes as they fall

    ok = ok && modbus_vukra_op_protected_create(s, "/mem/bench.bin") == 0;
    unsigned long device0 = relay.to_device, host0 = relay.to_host;
    auto start = Clock::now();
    for (std::size_t at = 0; ok && at < kFileSize;) {
        const std::int32_t n =
            modbus_vukra_op_protected_write(s, data.data() + at, static_cast<std::int32_t>(std::min<std::size_t>(1024, kFileSize - at)));
        ok = n > 0;
        at += ok ? static_cast<std::size_t>(n) : 0;
    }
    writing = {seconds_since(start), relay.to_device - device0, relay.to_host - host0, ok};

    ok = ok && modbus_vukra_op_protected_lookup(s, "/mem/bench.bin", nullptr) == 0;
    device0 = relay.to_device;
    host0 = relay.to_host;
    start = Clock::now();
    std::size_t got = 0;
    while (ok && got < kFileSize) {
        const std::int32_t n = modbus_vukra_op_protected_read(s, back.data() + got, 1024);
        ok = n > 0;
        got += ok ? static_cast<std::size_t>(n) : 0;
    }
    reading = {seconds_since(start), relay.to_device - device0, relay.to_host - host0, ok && data == back};

    modbus_vukra_op_session_close(s);
    relay_stop(relay);
    return writing.ok && reading.ok;
}

// Round trips of one 1024-byte read against the unpaced sim, in
// microseconds; before them, the time of writing the 256 KiB file unpaced
// (what the sim and the library cost without the line).
bool round_trips(std::vector<double>& micros, double& unpaced_write) {
    const auto sim = start_sim(false);
    if (sim == nullptr) return false;
    modbus_vukra_session* s = modbus_vukra_op_session_open(sim->port().c_str());
    bool ok = s != nullptr && modbus_vukra_op_protected_mount(s) == 0 &&
              modbus_vukra_op_protected_create(s, "/mem/rtt.bin") == 0;
    std::vector<unsigned char> block(1024, 0x5A);
    const auto writing = Clock::now();
    for (std::size_t at = 0; ok && at < kFileSize; at += 1024)
        ok = modbus_vukra_op_protected_write(s, block.data(), 1024) == 1024;
    unpaced_write = seconds_since(writing);
    ok = ok && modbus_vukra_op_protected_lookup(s, "/mem/rtt.bin", nullptr) == 0;
    for (int i = 0; ok && i < kRoundTrips; ++i) {
        modbus_vukra_op_protected_seek(s, 0, 0); // answered without the device
        const auto start = Clock::now();
        ok = modbus_vukra_op_protected_read(s, block.data(), 1024) == 1024;
        micros.push_back(seconds_since(start) * 1e6);
    }
    modbus_vukra_op_session_close(s);
    return ok;
}

} // namespace

int main() {
    char dir[] = "/tmp/vukra-remotefs-XXXXXX";
    if (mkdtemp(dir) == nullptr || chdir(dir) != 0) return 1;
    std::filesystem::copy_file(VUKRA_EXAMPLES_DIR "/table.xml", "table.xml");
    Leg writing, reading;
    std::vector<double> micros;
    double unpaced_write = 0;
    bool paced, unpaced;
    {
        bench::MutedStdout muted;
        paced = paced_run(writing, reading);
        unpaced = round_trips(micros, unpaced_write);
    }
    std::filesystem::current_path("/tmp");
    std::filesystem::remove_all(dir);

    std::printf("a file through vukra-sim at %u baud (both directions paced by a relay that is the line;\n"
                "counted: every byte on the line, SLIP framing and escapes and timer status requests included):\n",
                kBaud);
    print_leg("write", writing);
    print_leg("read ", reading);
    if (!paced) std::printf("  the paced run FAILED\n");
    if (!micros.empty()) {
        std::sort(micros.begin(), micros.end());
        double sum = 0;
        for (double m : micros) sum += m;
        std::printf("one 1024-byte read against the unpaced sim, %zu round trips: median %.0f us, mean %.0f us, "
                    "best %.0f us\n",
                    micros.size(), micros[micros.size() / 2], sum / micros.size(), micros.front());
    }
    std::printf("the 256 KiB file written to the unpaced sim: %.3f s\n", unpaced_write);
    if (!unpaced) std::printf("  the unpaced run FAILED\n");
    return paced && unpaced ? 0 : 1;
}
