#include "support/pty_pair.h"

#include "platform/platform.h"
#include "support/wire_bytes.h"

#include <algorithm>
#include <cerrno>
#include <poll.h>
#include <stdexcept>
#include <unistd.h>

namespace vukra::test {

PtyPair::PtyPair() {
    platform::PseudoTerminal pty;
    if (!platform::pty_open(pty)) throw std::runtime_error("no pseudo-terminal");
    master = static_cast<int>(pty.master);
    slave = static_cast<int>(pty.slave);
    slave_path = pty.path;
}

PtyPair::~PtyPair() {
    ::close(master);
    ::close(slave);
}

void PtyPair::send(const std::vector<std::uint8_t>& bytes) const {
    std::size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = ::write(master, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) throw std::runtime_error("write to pty master failed");
        done += static_cast<std::size_t>(n);
    }
}

void PtyPair::send_packet(const std::string& payload) const {
    std::vector<std::uint8_t> wire(payload.size() + 2, 0xC0);
    std::copy(payload.begin(), payload.end(), wire.begin() + 1);
    send(wire);
}

std::vector<std::uint8_t> PtyPair::receive(std::size_t count, int timeout_ms) const {
    std::vector<std::uint8_t> out;
    while (out.size() < count) {
        pollfd p{master, POLLIN, 0};
        if (::poll(&p, 1, timeout_ms) <= 0) break;
        std::uint8_t chunk[4096];
        ssize_t n = ::read(master, chunk, std::min(sizeof chunk, count - out.size()));
        if (n <= 0) break;
        out.insert(out.end(), chunk, chunk + n);
    }
    return out;
}

std::vector<std::uint8_t> PtyPair::receive_packet(int timeout_ms) const {
    SlipReader line;
    for (;;) {
        pollfd p{master, POLLIN, 0};
        if (::poll(&p, 1, line.packet.empty() ? timeout_ms : std::max(timeout_ms, 2000)) <= 0) return {};
        std::uint8_t byte;
        if (::read(master, &byte, 1) != 1) return {};
        if (line.take(byte)) return line.packet;
    }
}

std::vector<std::uint8_t> bytes_of(const std::string& text) { return {text.begin(), text.end()}; }

} // namespace vukra::test
