#include "modbus_device.h"
#include "link/register_transactions.h"

namespace vukra::sim {

namespace {

constexpr std::uint8_t kAddress = 1;
using link::kIllegalAddress;
using link::kIllegalFunction;
using link::kIllegalValue;
using link::kMaxReadWords;
using link::kMaxWriteWords;

struct Request {
    const link::AsciiFrame& frame;
    // Data bytes: the characters between ':' and the LRC, two a byte.
    int bytes() const { return (frame.length - 5) / 2; }
    std::uint8_t byte(int index) const {
        std::uint8_t b = 0;
        link::hex_decode(frame.buffer + 1 + 2 * index, 1, 0, &b);
        return b;
    }
    std::uint16_t word(int index) const { return static_cast<std::uint16_t>(byte(index) << 8 | byte(index + 1)); }
};

void start_reply(link::AsciiFrame& reply, std::uint8_t function) {
    link::frame_init(reply, reply.buffer, reply.capacity);
    link::frame_put_byte(reply, kAddress);
    link::frame_put_byte(reply, function);
}

void finish(link::AsciiFrame& reply) {
    link::frame_put_lrc(reply);
    link::frame_end(reply);
}

void exception(link::AsciiFrame& reply, std::uint8_t function, std::uint8_t code) {
    start_reply(reply, static_cast<std::uint8_t>(function | 0x80));
    link::frame_put_byte(reply, code);
    finish(reply);
}

void read_holding(RegisterMemory& memory, const Request& r, link::AsciiFrame& reply) {
    std::uint16_t first = r.word(2), count = r.word(4);
    if (r.bytes() != 6 || count == 0 || count > kMaxReadWords) return exception(reply, 3, kIllegalValue);
    if (!memory.all_allowed(first, count, false)) return exception(reply, 3, kIllegalAddress);
    start_reply(reply, 3);
    link::frame_put_byte(reply, static_cast<std::uint8_t>(2 * count));
    for (std::uint32_t k = 0; k < count; ++k) link::frame_put_field(reply, &memory.words[first + k], 2);
    finish(reply);
}

void write_multiple(RegisterMemory& memory, const Request& r, link::AsciiFrame& reply) {
    std::uint16_t first = r.word(2), count = r.word(4);
    int byte_count = r.bytes() >= 7 ? r.byte(6) : -1;
    if (count == 0 || count > kMaxWriteWords || byte_count != 2 * count || r.bytes() != 7 + byte_count)
        return exception(reply, 16, kIllegalValue);
    if (!memory.all_allowed(first, count, true)) return exception(reply, 16, kIllegalAddress);
    for (std::uint32_t k = 0; k < count; ++k) memory.words[first + k] = r.word(7 + 2 * static_cast<int>(k));
    start_reply(reply, 16);
    link::frame_put_field(reply, &first, 2);
    link::frame_put_field(reply, &count, 2);
    finish(reply);
}

} // namespace

bool answer(RegisterMemory& memory, const link::AsciiFrame& request, link::AsciiFrame& reply) {
    Request r{request};
    if (r.bytes() < 3 || r.byte(0) != kAddress) return false;
    std::uint8_t function = r.byte(1);
    if (function == 3)
        read_holding(memory, r, reply);
    else if (function == 16)
        write_multiple(memory, r, reply);
    else
        exception(reply, function, kIllegalFunction);
    return true;
}

} // namespace vukra::sim
