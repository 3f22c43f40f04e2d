// A device on a pseudo-terminal that answers mount, null, lookup and read
// from a card image held in memory: for the image transfer's refusals and
// for counting the timer's status requests.
#pragma once

#include "support/pty_pair.h"
#include "support/wire_bytes.h"

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>

namespace vukra::test {

class FakeCardDevice {
public:
    // kind: the second attribute word a lookup answers (2: a device node).
    explicit FakeCardDevice(std::string image, std::uint32_t kind = 2);
    ~FakeCardDevice();
    FakeCardDevice(const FakeCardDevice&) = delete;
    FakeCardDevice& operator=(const FakeCardDevice&) = delete;

    const std::string& port() const { return pty_.slave_path; }
    int nulls() const { return nulls_.load(); }
    int reads() const { return reads_.load(); }

private:
    void serve();
    void answer(const Bytes& packet);

    PtyPair pty_;
    std::string image_;
    std::uint32_t kind_;
    std::atomic<int> nulls_{0};
    std::atomic<int> reads_{0};
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

} // namespace vukra::test
