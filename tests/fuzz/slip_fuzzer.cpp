// The SLIP receive path on arbitrary line bytes: escapes, END runs, ESC at
// the end of the input, packets longer than the buffer and packets split
// across the Port's 4096-byte refills. Every packet received must be the
// one a plain byte-by-byte reading of the line gives, with nothing written
// past the caller's capacity.
//
// The first byte picks the buffer's capacity; with its lowest bit set the
// rest is a payload sent with slip_send and received back whole instead.
#include "link/slip.h"
#include "fuzz_line.h"

#include <cstring>
#include <vector>

using namespace vukra;
using namespace vukra::link;

namespace {

using Packet = std::vector<std::uint8_t>;

// The packets of line, read one byte at a time: END ends a packet that has
// bytes, ESC takes the next byte (DC for END, DD for ESC, any other as it
// is), and a packet that reaches capacity ends there, the byte that did not
// fit being dropped. An unfinished packet at the end is lost.
std::vector<Packet> packets_of(const std::uint8_t* line, std::size_t size, std::size_t capacity) {
    std::vector<Packet> packets;
    Packet p;
    for (std::size_t i = 0; i < size; ++i) {
        std::uint8_t b = line[i];
        if (b == kSlipEnd) {
            if (!p.empty()) packets.push_back(std::move(p));
            p.clear();
            continue;
        }
        if (b == kSlipEsc) {
            if (++i == size) break;
            b = line[i] == kSlipEscEnd ? kSlipEnd : line[i] == kSlipEscEsc ? kSlipEsc : line[i];
        }
        if (p.size() == capacity) {
            packets.push_back(std::move(p));
            p.clear();
            continue;
        }
        p.push_back(b);
    }
    return packets;
}

void round_trip(const std::uint8_t* payload, std::size_t size) {
    fuzz::FuzzLine& l = fuzz::line();
    fuzz::feed(nullptr, 0);
    if (slip_send(&l.port, payload, size) != static_cast<long>(size)) __builtin_trap();
    const std::vector<std::uint8_t> wire = fuzz::take_all(l.far_end);
    if (wire.size() < size + 2 || wire.front() != kSlipEnd || wire.back() != kSlipEnd) __builtin_trap();
    fuzz::feed(wire.data(), wire.size());
    Packet back(size + 1);
    const long n = slip_receive(&l.port, back.data(), back.size());
    if (size == 0) {
        if (n != -1) __builtin_trap(); // an empty packet is two END bytes, skipped
        return;
    }
    if (n != static_cast<long>(size) || std::memcmp(back.data(), payload, size) != 0) __builtin_trap();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 1) return 0;
    if (data[0] & 1) {
        round_trip(data + 1, size - 1);
        return 0;
    }
    const std::size_t capacity = data[0] < 200 ? 1 + data[0] % 40 : 1980;
    const std::vector<Packet> expected = packets_of(data + 1, size - 1, capacity);
    fuzz::feed(data + 1, size - 1);
    fuzz::FuzzLine& l = fuzz::line();
    for (std::size_t k = 0; k <= expected.size(); ++k) {
        Packet buffer(capacity); // exactly the capacity: a byte past it is caught
        const long n = slip_receive(&l.port, buffer.data(), capacity);
        if (k == expected.size()) {
            if (n != -1) __builtin_trap(); // the line is used up
            break;
        }
        if (n != static_cast<long>(expected[k].size()) || std::memcmp(buffer.data(), expected[k].data(), expected[k].size()) != 0)
            __builtin_trap();
        if (serial_received_count() > size - 1) __builtin_trap();
    }
    return 0;
}
