// Files through the remote filesystem against the line they cross.
//
// A 256 KiB file is written and read back through vukra-sim and a line at
// 400000 baud, set against the time that the bytes which crossed the line
// take at that speed, measured in the same run: the session talks to the
// sim through a relay in this program that is the line (paced_line.h).
// The sim does not pace its replies itself: a reply paced twice (the sim's
// 2 ms slices carried again by the relay, which must wait for each) loses
// both sleeps' lateness on every slice, time that neither the line nor the
// host spends.
//
// Also: the round trip of one 1024-byte read straight to the sim.
#include "modbus_vukra.h"
#include "stopwatch.h"
#include "paced_line.h"
#include "sim_child.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr unsigned kBaud = 400000;
constexpr std::size_t kFileSize = 256 * 1024;
constexpr int kRoundTrips = 500;

// vukra-sim on the example table with a temporary card.
std::unique_ptr<vukra::test::SimProcess> start_sim() { return bench::start_sim({"--table", "table.xml"}); }

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

// Writes then reads the file through the relay that is the line.
bool paced_run(Leg& writing, Leg& reading) {
    const auto sim = start_sim();
    bench::PacedLine relay(kBaud);
    if (sim == nullptr || !relay.start(sim->port())) return false;
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
    relay.finish();
    return writing.ok && reading.ok;
}

// Round trips of one 1024-byte read straight to the sim, in
// microseconds; before them, the time of writing the 256 KiB file there
// (what the sim and the library cost without the line).
bool round_trips(std::vector<double>& micros, double& unpaced_write) {
    const auto sim = start_sim();
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
        std::printf("one 1024-byte read straight to the sim, %zu round trips: median %.0f us, mean %.0f us, "
                    "best %.0f us\n",
                    micros.size(), micros[micros.size() / 2], sum / micros.size(), micros.front());
    }
    std::printf("the 256 KiB file written straight to the sim: %.3f s\n", unpaced_write);
    if (!unpaced) std::printf("  the unpaced run FAILED\n");
    return paced && unpaced ? 0 : 1;
}
