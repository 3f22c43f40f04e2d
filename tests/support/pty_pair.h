// A pseudo-terminal standing in for the serial line: the test holds the
// master (the device's end) and the code under test opens the slave path.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace vukra::test {

struct PtyPair {
    int master = -1;
    int slave = -1; // held open so the line is never hung up
    std::string slave_path;

    PtyPair();
    ~PtyPair();
    PtyPair(const PtyPair&) = delete;
    PtyPair& operator=(const PtyPair&) = delete;

    // Writes all bytes to the master end.
    void send(const std::vector<std::uint8_t>& bytes) const;
    // Writes payload between two SLIP END bytes, unescaped (test payloads
    // are text).
    void send_packet(const std::string& payload) const;
    // Reads from the master end until count bytes came or timeout_ms passed.
    std::vector<std::uint8_t> receive(std::size_t count, int timeout_ms = 2000) const;
    // One SLIP packet from the master end, unescaped, or nothing when none
    // began within timeout_ms (a packet begun is waited for to its end).
    std::vector<std::uint8_t> receive_packet(int timeout_ms) const;
};

std::vector<std::uint8_t> bytes_of(const std::string& text);

} // namespace vukra::test
