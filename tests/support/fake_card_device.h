// A device on a pseudo-terminal that answers mount, null, lookup, read and
// write from a card held in memory: for the image transfer (crafted
// images) and for counting the timer's status requests. Its lookup answers the third attribute word
// with what a device may put there (0x1A4 by default, not the card's
// size): the transfer must not rely on it.
#pragma once

#include "support/pty_pair.h"
#include "support/wire_bytes.h"

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace vukra::test {

class FakeCardDevice {
public:
    // kind: the second attribute word a lookup answers (2: a device node);
    // word2: its third.
    explicit FakeCardDevice(std::string image, std::uint32_t kind = 2, std::uint32_t word2 = 0x1A4);
    ~FakeCardDevice();
    FakeCardDevice(const FakeCardDevice&) = delete;
    FakeCardDevice& operator=(const FakeCardDevice&) = delete;

    const std::string& port() const { return pty_.slave_path; }
    // Requests served of an operation code.
    int requests(std::uint8_t code) const { return requests_[code & 15].load(); }
    int nulls() const { return requests(0); }
    // The card as it stands.
    std::string card() const;
    // Card bytes the writes changed, all told.
    long bytes_written() const { return written_.load(); }
    // Where each write began, in order.
    std::vector<std::size_t> write_positions() const;
    // Another program writing the card.
    void poke(std::size_t at, const std::string& bytes);

private:
    void serve();
    void answer(const Bytes& packet);

    PtyPair pty_;
    mutable std::mutex lock_;
    std::string image_;
    std::uint32_t kind_, word2_;
    std::atomic<int> requests_[16] = {};
    std::atomic<long> written_{0};
    std::vector<std::size_t> write_positions_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

} // namespace vukra::test
