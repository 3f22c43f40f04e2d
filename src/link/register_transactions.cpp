#include "link/register_transactions.h"

#include "link/line_failure.h"

#include <cerrno>
#include "session/log.h"

#include "link/ascii_frame.h"
#include "platform/platform.h"
#include "table/value_conversion.h"

#include <cstdio>
#include <cstring>

namespace vukra::link {

namespace {

thread_local TransactionOutcome outcome{Failure::kNone, 0};

void note(Failure failure, std::uint8_t code = 0) { outcome = TransactionOutcome{failure, code}; }

// The longest value a reply can declare (its byte count is one byte).
constexpr std::size_t kMaxReplyBytes = 255;

struct Exchange {
    std::uint8_t request_text[kFrameCapacity];
    std::uint8_t reply_text[kFrameCapacity];
    AsciiFrame request;
    AsciiFrame reply;
    std::uint16_t address;
    std::uint16_t words;
    long elapsed_ms = 0;

    Exchange(const table::RegisterRecord& reg, const table::TypeRecord& type, std::uint8_t function)
        : address(static_cast<std::uint16_t>(table::address_of(reg))), words(static_cast<std::uint16_t>(type.words)) {
        frame_init(request, request_text, kFrameCapacity);
        frame_init(reply, reply_text, kFrameCapacity);
        frame_put_byte(request, kDeviceAddress);
        frame_put_byte(request, function);
        frame_put_field(request, &address, 2);
        frame_put_field(request, &words, 2);
        log::print("0x%04x, %s, %d mot%s\n", table::address_of(reg), type.name ? type.name : "(null)",
                    static_cast<int>(type.words), type.words > 1 ? "s" : "");
    }

    // Sends the finished request and takes the reply: -1 without a sound
    // one. Pending input is not purged first: the receive drops whatever
    // comes ahead of the reply's ':'.
    int run(Port* port) {
        frame_put_lrc(request);
        frame_end(request);
        frame_print(request);
        const ExchangeDeadline deadline(port);
        std::uint32_t start = platform::clock_ms();
        frame_send(port, request);
        note(Failure::kNoReply);
        if (!frame_receive(port, reply)) return -1;
        elapsed_ms = static_cast<long>(platform::clock_ms() - start);
        frame_print(reply);
        if (!frame_check(reply)) {
            log::print("Trame incorrecte\n");
            note(Failure::kBadFrame);
            note_failure(FailureKind::kUndecodable, EIO, "the reply was not a sound frame (start, end, length or LRC)");
            return -1;
        }
        note(Failure::kNone);
        return 1;
    }

    std::uint8_t byte_at(int position) const {
        std::uint8_t b = 0;
        hex_decode(reply_text + position, 1, 0, &b);
        return b;
    }

    std::uint16_t word_at(int position) const {
        std::uint16_t w = 0;
        hex_decode(reply_text + position, 2, 0, &w);
        return w;
    }

    bool function_is(std::uint8_t function) const {
        if (byte_at(3) == function) return true;
        if (byte_at(3) == (function | 0x80))
            note(Failure::kException, byte_at(5));
        else
            note(Failure::kWrongFunction);
        log::print("Fonction incorrecte\n");
        log::print("Error (%ld ms)\n", elapsed_ms);
        return false;
    }
};

} // namespace

TransactionOutcome last_outcome() { return outcome; }

int modbus_read_registers(Port* port, const table::RegisterRecord& reg, const table::TypeRecord& type,
                          void* destination, std::size_t capacity) {
    Exchange x(reg, type, kReadFunction);
    int sound = x.run(port);
    if (sound < 0) return sound;
    if (!x.function_is(kReadFunction)) return 0;
    // The value: as many bytes as the reply declares, as far as the frame
    // holds them (its pairs end 4 characters before its end).
    std::size_t declared = x.byte_at(5);
    std::size_t present = x.reply.length > 11 ? static_cast<std::size_t>(x.reply.length - 11) / 2 : 0;
    std::size_t count = declared < present ? declared : present;
    std::uint8_t value[kMaxReplyBytes];
    hex_decode(x.reply_text + 7, count, 0, value);
    std::memcpy(destination, value, count < capacity ? count : capacity);
    log::print("Ok (%ld ms)\n", x.elapsed_ms);
    return 1;
}

int modbus_write_registers(Port* port, const table::RegisterRecord& reg, const table::TypeRecord& type,
                           const void* source) {
    Exchange x(reg, type, kWriteFunction);
    auto byte_count = static_cast<std::uint8_t>(2 * type.words);
    frame_put_byte(x.request, byte_count);
    frame_put_field(x.request, source, byte_count);
    int sound = x.run(port);
    if (sound < 0) return sound;
    if (!x.function_is(kWriteFunction)) return 0;
    if (x.word_at(5) != x.address) {
        log::print("adresse d'ecriture incorrecte\n");
        note(Failure::kWrongEcho);
        return 0;
    }
    if (x.word_at(9) != x.words) {
        log::print("nombre de registres ecrits incorrect\n");
        note(Failure::kWrongEcho);
        return 0;
    }
    log::print("Ok (%ld ms)\n", x.elapsed_ms);
    return 1;
}

} // namespace vukra::link
