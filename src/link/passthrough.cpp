#include "link/passthrough.h"

#include "link/ascii_frame.h"
#include "link/line_failure.h"
#include "link/register_transactions.h"
#include "link/slip.h"

#include <cerrno>

namespace vukra::link {

namespace {

// Replies taken for one request before giving up on it.
constexpr int kMostReplies = 3;

std::uint16_t word(const std::uint8_t* p) { return static_cast<std::uint16_t>(p[0] << 8 | p[1]); }

// Whether the reply PDU answers the request PDU (an exception reply to its
// function does).
bool answers(const std::uint8_t* pdu, std::size_t length, const std::uint8_t* reply, std::size_t got) {
    if (got < 2) return false;
    if (reply[0] == (pdu[0] | 0x80)) return got == 2;
    if (reply[0] != pdu[0]) return false;
    if (pdu[0] == kReadFunction)
        return length >= 5 && reply[1] == 2 * word(pdu + 3) && got == 2u + reply[1];
    if (pdu[0] == kWriteFunction) return length >= 5 && got == 5 && word(reply + 1) == word(pdu + 1) &&
                                          word(reply + 3) == word(pdu + 3);
    return true;
}

} // namespace

long modbus_pass(Port* port, const std::uint8_t* pdu, std::size_t length, std::uint8_t* reply) {
    if (port == nullptr || length == 0 || length > kMaxPdu) return -1;
    std::uint8_t request_text[kFrameCapacity];
    std::uint8_t reply_text[kFrameCapacity];
    AsciiFrame request;
    AsciiFrame answer;
    frame_init(request, request_text, kFrameCapacity);
    frame_init(answer, reply_text, kFrameCapacity);
    frame_put_byte(request, kDeviceAddress);
    for (std::size_t i = 0; i < length; ++i) frame_put_byte(request, pdu[i]);
    frame_put_lrc(request);
    frame_end(request);
    frame_print(request);
    serial_purge(port);
    frame_send(port, request);
    // A reply that does not answer this request (one too late for an earlier
    // exchange, come after the purge) is passed over, a few times.
    for (int heard = 0; heard < kMostReplies; ++heard) {
        frame_init(answer, reply_text, kFrameCapacity);
        if (!frame_receive(port, answer)) return -1;
        frame_print(answer);
        if (!frame_check(answer)) {
            note_failure(FailureKind::kUndecodable, EIO, "the reply was not a sound frame (start, end, length or LRC)");
            return -1;
        }
        // The PDU's pairs lie between the address and the LRC.
        const std::size_t got = static_cast<std::size_t>(answer.length - 7) / 2;
        if (got > kMaxPdu) return -1;
        // One byte at a time: the bytes keep their order on any host.
        for (std::size_t i = 0; i < got; ++i) hex_decode(reply_text + 3 + 2 * i, 1, 0, reply + i);
        if (answers(pdu, length, reply, got)) return static_cast<long>(got);
    }
    note_failure(FailureKind::kUndecodable, EIO, "the replies did not answer the request (another function, count or address)");
    return -1;
}

long packet_pass(Port* port, const std::uint8_t* packet, std::size_t length, std::uint8_t* reply,
                 std::size_t capacity) {
    if (port == nullptr) return -1;
    serial_purge(port);
    slip_send(port, packet, length);
    return slip_receive(port, reply, capacity);
}

} // namespace vukra::link
