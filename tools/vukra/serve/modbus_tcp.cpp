// The Modbus TCP door: MBAP-framed requests from any Modbus TCP client,
// relayed to the device one transaction each.
//
//   MBAP  transaction id (2)  protocol 0 (2)  length (2)  unit (1)  | PDU
//
// The framing is our own rather than libmodbus's server side: libmodbus
// answers from a register map in memory, one request at a time per
// context, with its own blocking reads and time-outs, while a gateway must
// pass a request on and the device's reply (exceptions included) back,
// keep many pipelined requests of many clients in one fair queue and answer
// each by its deadline. The header is seven bytes; checking it here is
// shorter than bending libmodbus to it.
//
// Function 3 goes to the device as 3, 16 as 16, 6 as a 16 of one word
// (answered as a 6); others get exception 1. Units 1, 0 and 255 are the
// device, another gets exception 0x0B. A quantity outside 1..125 (read) or
// 1..123 (write) gets exception 3 before anything is sent; --read-only
// answers writes with exception 1; a full queue, exception 6; no valid reply
// by the deadline, exception 0x0B.
#include "connections.h"
#include "doors.h"

#include "session/tool_interface.h"

#include <cstring>
#include <utility>

namespace vukra::serve {

namespace {

constexpr std::uint8_t kIllegalFunction = tool::ExceptionCode::kIllegalFunction;
constexpr std::uint8_t kIllegalValue = tool::ExceptionCode::kIllegalValue;
constexpr std::uint8_t kBusy = tool::ExceptionCode::kDeviceBusy;
constexpr std::uint8_t kNoResponse = tool::ExceptionCode::kNoResponse;

constexpr std::size_t kHeader = 7;      // MBAP with the unit
constexpr std::size_t kMostLength = 254; // the unit and a PDU of 253 bytes

Settings settings;
Server* server = nullptr;

std::uint16_t word(const std::uint8_t* p) { return static_cast<std::uint16_t>(p[0] << 8 | p[1]); }

Bytes reply(const std::uint8_t* request, const std::uint8_t* pdu, std::size_t length) {
    Bytes out(kHeader + length);
    std::memcpy(out.data(), request, kHeader);
    out[4] = static_cast<std::uint8_t>((length + 1) >> 8);
    out[5] = static_cast<std::uint8_t>(length + 1);
    std::memcpy(out.data() + kHeader, pdu, length);
    return out;
}

Bytes exception(const std::uint8_t* request, std::uint8_t code) {
    const std::uint8_t pdu[2] = {static_cast<std::uint8_t>(request[kHeader] | 0x80), code};
    return reply(request, pdu, 2);
}

long frame(const std::uint8_t* b, std::size_t size) {
    if (size < kHeader) return 0;
    const std::size_t length = word(b + 4);
    if (word(b + 2) != 0 || length < 2 || length > kMostLength) return -1;
    return size >= 6 + length ? static_cast<long>(6 + length) : 0;
}

// 0 when the PDU may go to the device, else the exception code.
std::uint8_t refusal(const std::uint8_t* pdu, std::size_t length) {
    switch (pdu[0]) {
    case 3:
        return length == 5 && word(pdu + 3) >= 1 && word(pdu + 3) <= tool::kMaxReadWords ? 0 : kIllegalValue;
    case 16: {
        if (settings.read_only) return kIllegalFunction;
        if (length < 6) return kIllegalValue;
        const std::size_t quantity = word(pdu + 3);
        return quantity >= 1 && quantity <= tool::kMaxWriteWords && pdu[5] == 2 * quantity && length == 6 + 2 * quantity
                   ? 0
                   : kIllegalValue;
    }
    case 6:
        if (settings.read_only) return kIllegalFunction;
        return length == 5 ? 0 : kIllegalValue;
    default:
        return kIllegalFunction;
    }
}

void take(Connection& c, const std::uint8_t* m, std::size_t length) {
    const std::uint8_t unit = m[6];
    const std::uint8_t* pdu = m + kHeader;
    const std::size_t pdu_length = length - kHeader;
    if (unit != 1 && unit != 0 && unit != 255) return send(c, exception(m, kNoResponse));
    if (const std::uint8_t code = refusal(pdu, pdu_length)) return send(c, exception(m, code));

    Bytes request(m, m + length);
    // A 6 travels as a 16 of one word.
    Bytes to_device(pdu, pdu + pdu_length);
    if (pdu[0] == 6) to_device = {16, pdu[1], pdu[2], 0, 1, 2, pdu[3], pdu[4]};

    auto job = std::make_shared<Job>();
    job->priority = pdu[0] == 3 ? Priority::kRead : Priority::kWrite;
    job->deadline = Clock::now() + std::chrono::milliseconds(settings.timeout_ms);
    auto answer_bytes = std::make_shared<Bytes>();
    job->work = [request, to_device, answer_bytes](modbus_vukra_session* s) {
        std::uint8_t got[tool::kMaxPdu];
        const long n = tool::modbus_exchange(s, to_device.data(), to_device.size(), got);
        if (n < 0) *answer_bytes = exception(request.data(), kNoResponse);
        else if (request[kHeader] == 6 && got[0] == 16) // the 6's own echo
            *answer_bytes = reply(request.data(), request.data() + kHeader, 5);
        else if (got[0] & 0x80) // the device's exception, under the client's function
            *answer_bytes = exception(request.data(), got[1]);
        else
            *answer_bytes = reply(request.data(), got, static_cast<std::size_t>(n));
    };
    std::weak_ptr<Job> weak = job;
    job->done = [c = shared(c), weak, answer_bytes](Outcome outcome) {
        if (outcome != Outcome::kDone) return;
        if (const auto j = weak.lock()) answer(*c, *j, std::move(*answer_bytes));
    };
    if (submit(c, job, exception(m, kNoResponse)) != Submitted::kQueued) send(c, exception(m, kBusy));
}

} // namespace

bool start_modbus_tcp(const Settings& s, Queue& queue) {
    static const Protocol protocol{"Modbus TCP", frame, take, std::chrono::seconds(60), 6 + kMostLength};
    settings = s;
    return (server = listen_on(s.modbus_tcp, protocol, queue, s.max_clients)) != nullptr;
}

void stop_modbus_tcp() { close_server(std::exchange(server, nullptr)); }

} // namespace vukra::serve
