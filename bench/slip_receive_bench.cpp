// Throughput of the SLIP receive path on a pseudo-terminal, next to the raw
// throughput of the same pty in the same run, and the system calls the
// receive path makes per packet (read and poll are counted by wrapping them
// at link time).
#include "link/serial_port.h"
#include "link/slip.h"
#include "platform/platform.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <poll.h>
#include <random>
#include <unistd.h>
#include <vector>

extern "C" {
ssize_t __real_read(int fd, void* buffer, size_t count);
int __real_poll(pollfd* fds, nfds_t n, int timeout);
}

namespace {

std::atomic<long> syscalls{0};

} // namespace

extern "C" ssize_t __wrap_read(int fd, void* buffer, size_t count) {
    syscalls.fetch_add(1, std::memory_order_relaxed);
    return __real_read(fd, buffer, count);
}

extern "C" int __wrap_poll(pollfd* fds, nfds_t n, int timeout) {
    syscalls.fetch_add(1, std::memory_order_relaxed);
    return __real_poll(fds, n, timeout);
}

using namespace vukra;
using Clock = std::chrono::steady_clock;

namespace {

constexpr std::size_t kPayload = 256;
constexpr int kPackets = 4000;

struct Writer {
    int fd;
    const std::vector<std::uint8_t>* wire;
};

void write_all(void* raw) {
    auto* w = static_cast<Writer*>(raw);
    const std::uint8_t* p = w->wire->data();
    std::size_t left = w->wire->size();
    while (left > 0) {
        ssize_t n = ::write(w->fd, p, std::min<std::size_t>(left, 4096));
        if (n <= 0) return;
        p += n;
        left -= static_cast<std::size_t>(n);
    }
}

std::vector<std::uint8_t> make_wire(std::size_t& payload_bytes) {
    std::mt19937 rng(7);
    std::vector<std::uint8_t> wire;
    payload_bytes = 0;
    for (int i = 0; i < kPackets; ++i) {
        wire.push_back(link::kSlipEnd);
        for (std::size_t j = 0; j < kPayload; ++j) {
            // Mostly ASCII frame text, with the occasional byte to escape.
            auto b = static_cast<std::uint8_t>(j % 97 == 0 ? link::kSlipEnd : '0' + rng() % 43);
            if (b == link::kSlipEnd) {
                wire.push_back(link::kSlipEsc);
                wire.push_back(link::kSlipEscEnd);
            } else {
                wire.push_back(b);
            }
        }
        wire.push_back(link::kSlipEnd);
        payload_bytes += kPayload;
    }
    return wire;
}

// Seconds to move the whole wire through the pty with plain reads.
double raw_run(int master, int slave, const std::vector<std::uint8_t>& wire) {
    Writer w{master, &wire};
    platform::Thread t;
    auto start = Clock::now();
    platform::thread_start(t, write_all, &w);
    std::vector<std::uint8_t> buffer(65536);
    std::size_t got = 0;
    while (got < wire.size()) {
        pollfd p{slave, POLLIN, 0};
        if (::poll(&p, 1, 2000) <= 0) break;
        ssize_t n = ::read(slave, buffer.data(), buffer.size());
        if (n <= 0) break;
        got += static_cast<std::size_t>(n);
    }
    double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    platform::thread_join(t, 5000);
    return got == wire.size() ? seconds : -1;
}

// Seconds to receive every packet with slip_receive, and the calls it made.
double slip_run(int master, link::Port* port, const std::vector<std::uint8_t>& wire, long& calls) {
    Writer w{master, &wire};
    platform::Thread t;
    std::uint8_t packet[1024];
    syscalls = 0;
    auto start = Clock::now();
    platform::thread_start(t, write_all, &w);
    int received = 0;
    while (received < kPackets && link::slip_receive(port, packet, sizeof packet) == static_cast<long>(kPayload))
        ++received;
    double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    calls = syscalls;
    platform::thread_join(t, 5000);
    return received == kPackets ? seconds : -1;
}

} // namespace

int main() {
    platform::PseudoTerminal pty;
    if (!platform::pty_open(pty)) return 1;
    const int master = static_cast<int>(pty.master);
    const char* name = pty.path;

    // The port prints its ready line; the results follow it.
    const link::SerialSettings settings{400000, 'N', 8, 1, 2000};
    link::Port* port = link::serial_open(0, name, 0, &settings);
    std::size_t payload_bytes = 0;
    const std::vector<std::uint8_t> wire = make_wire(payload_bytes);

    double best_raw = 1e9, best_slip = 1e9;
    long calls = 0;
    for (int round = 0; round < 5; ++round) {
        double raw = raw_run(master, static_cast<int>(port->native), wire);
        long round_calls = 0;
        double slip = slip_run(master, port, wire, round_calls);
        if (raw < 0 || slip < 0) {
            std::printf("a run lost bytes\n");
            return 1;
        }
        best_raw = std::min(best_raw, raw);
        if (slip < best_slip) {
            best_slip = slip;
            calls = round_calls;
        }
    }
    const double mb = 1024.0 * 1024.0;
    double raw_rate = static_cast<double>(wire.size()) / best_raw;
    double slip_rate = static_cast<double>(wire.size()) / best_slip;
    std::printf("%d packets of %zu bytes (%zu bytes on the wire), best of 5 runs\n", kPackets, kPayload, wire.size());
    std::printf("raw pty read:       %8.1f MiB/s\n", raw_rate / mb);
    std::printf("slip_receive:       %8.1f MiB/s (payload %.1f MiB/s)\n", slip_rate / mb,
                static_cast<double>(payload_bytes) / best_slip / mb);
    std::printf("system calls/packet: %.2f (read + poll)\n", static_cast<double>(calls) / kPackets);
    std::printf("ratio slip/raw:     %8.2f (target >= 0.50)\n", slip_rate / raw_rate);
    link::serial_close(port);
    platform::serial_close(pty.master);
    platform::serial_close(pty.slave);
    return 0;
}
