// A serial line between the session and vukra-sim, in this program.
//
// vukra-sim paces only its replies, and hands each reply's last slice (up
// to 2 ms of bytes) to the line as the slice starts rather than when a line
// would have carried it. So the benchmarks that set a transfer against the
// line's time talk to the sim through this relay, which is the line: it
// carries the bytes of both directions at its baud rate, no byte sooner
// than the line would have, and counts them (request and reply packets
// whole: header, items, SLIP ends and escapes, and the status requests the
// session's timer sends meanwhile). The line's time is those bytes at 10
// bits a byte (8N1).
#pragma once

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <string>
#include <termios.h>
#include <thread>
#include <unistd.h>

namespace bench {

// Carries bytes between the host's end of a pty pair of its own and the
// sim's pty, both ways at baud, and counts them.
struct PacedLine {
    using Clock = std::chrono::steady_clock;

    unsigned baud = 400000;
    int host = -1; // master of the host's pty
    int host_slave = -1;
    std::string host_path; // what the session opens
    int device = -1;       // the sim's pty, opened by name
    std::atomic<bool> stop{false};
    std::atomic<unsigned long> to_device{0}, to_host{0};
    std::thread thread;

    explicit PacedLine(unsigned line_baud) : baud(line_baud) {}
    PacedLine(const PacedLine&) = delete;
    PacedLine& operator=(const PacedLine&) = delete;
    ~PacedLine() { finish(); }

    // The line's time for bytes, in seconds.
    double seconds(unsigned long bytes) const { return bytes * 10.0 / baud; }
    unsigned long carried() const { return to_device + to_host; }

    static void raw(int fd) {
        termios t{};
        tcgetattr(fd, &t);
        cfmakeraw(&t);
        tcsetattr(fd, TCSANOW, &t);
    }

    static bool write_all(int fd, const unsigned char* p, std::size_t n) {
        while (n > 0) {
            const ssize_t w = ::write(fd, p, n);
            if (w < 0) {
                if (errno == EINTR || errno == EAGAIN) continue;
                return false;
            }
            p += w;
            n -= static_cast<std::size_t>(w);
        }
        return true;
    }

    // Writes n bytes to fd no sooner than the line would have carried them,
    // in slices of about 2 ms; line_free is when the line in that direction
    // is next free.
    void carry(int fd, const unsigned char* bytes, std::size_t n, Clock::time_point& line_free) const {
        const double bytes_per_second = baud / 10.0;
        const std::size_t slice = std::max<std::size_t>(1, static_cast<std::size_t>(bytes_per_second / 500));
        line_free = std::max(line_free, Clock::now());
        for (std::size_t at = 0; at < n;) {
            const std::size_t take = std::min(slice, n - at);
            line_free +=
                std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(take / bytes_per_second));
            std::this_thread::sleep_until(line_free);
            write_all(fd, bytes + at, take);
            at += take;
        }
    }

    void run() {
        Clock::time_point to_device_free = Clock::now(), to_host_free = Clock::now();
        unsigned char buffer[4096];
        while (!stop) {
            pollfd p[2] = {{host, POLLIN, 0}, {device, POLLIN, 0}};
            if (poll(p, 2, 50) <= 0) continue;
            if (p[1].revents & POLLIN) {
                const ssize_t n = ::read(device, buffer, sizeof buffer);
                if (n > 0) {
                    to_host += static_cast<unsigned long>(n);
                    carry(host, buffer, static_cast<std::size_t>(n), to_host_free);
                }
            }
            if (p[0].revents & POLLIN) {
                const ssize_t n = ::read(host, buffer, sizeof buffer);
                if (n > 0) {
                    to_device += static_cast<unsigned long>(n);
                    carry(device, buffer, static_cast<std::size_t>(n), to_device_free);
                }
            }
        }
    }

    // Opens the host's pty and the sim's, and starts carrying.
    bool start(const std::string& device_path) {
        char name[256];
        if (openpty(&host, &host_slave, name, nullptr, nullptr) != 0) return false;
        raw(host);
        raw(host_slave);
        host_path = name;
        device = ::open(device_path.c_str(), O_RDWR | O_NOCTTY);
        if (device < 0) return false;
        raw(device);
        thread = std::thread([this] { run(); });
        return true;
    }

    void finish() {
        stop = true;
        if (thread.joinable()) thread.join();
        for (int* fd : {&device, &host_slave, &host}) {
            if (*fd >= 0) ::close(*fd);
            *fd = -1;
        }
    }
};

} // namespace bench
