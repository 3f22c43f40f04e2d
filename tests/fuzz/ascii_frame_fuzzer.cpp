// Modbus ASCII replies on arbitrary line bytes (SLIP packets are made of
// them as they come): the frame receive, its check, and the register
// transactions that read the reply's function code, byte count, echoes
// and value. None may write past the frame or the caller's value, and
// each result must agree with what the transaction says went wrong.
//
// First byte: bit 0 picks a read (function 3) or a write (16); bit 1
// runs the receive and check alone. Second byte: the register's words.
#include "link/ascii_frame.h"
#include "link/register_transactions.h"
#include "fuzz_line.h"

#include <cstdio>
#include <cstring>
#include <memory>

using namespace vukra;
using namespace vukra::link;

namespace {

int strict_digit(std::uint8_t c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

// A frame the check takes must end in CR LF after at least 9 characters
// from ':'; when all between are hex digits, its bytes and LRC sum to 0.
void receive_and_check() {
    auto text = std::make_unique<std::uint8_t[]>(kFrameCapacity);
    AsciiFrame frame;
    frame_init(frame, text.get(), kFrameCapacity);
    const int received = frame_receive(&fuzz::line().port, frame);
    if (frame.length < 0 || frame.length > kFrameCapacity) __builtin_trap();
    if (received == 1 && text[static_cast<std::size_t>(frame.length) - 1] != '\n') __builtin_trap();
    if (received != 1) return;
    frame_print(frame);
    if (frame_check(frame) != 1) return;
    const std::int32_t len = frame.length;
    if (len < 9 || text[0] != ':' || text[static_cast<std::size_t>(len) - 2] != '\r') __builtin_trap();
    unsigned sum = 0;
    for (std::int32_t i = 1; i + 1 < len - 2; i += 2) {
        const int high = strict_digit(text[static_cast<std::size_t>(i)]);
        const int low = strict_digit(text[static_cast<std::size_t>(i) + 1]);
        if (high < 0 || low < 0) return;
        sum += static_cast<unsigned>(high * 16 + low);
    }
    if ((len - 3) % 2 == 0 && sum % 256 != 0) __builtin_trap();
}

void transaction(bool write, std::int32_t words) {
    table::TypeRecord type{"fuzz", words, "short", 2 * words, 0, "TYPE_FUZZ"};
    table::RegisterRecord reg{"r", "t", nullptr, 100, 2, table::kAccessReadWrite, "fuzz", nullptr, nullptr};
    const std::size_t bytes = static_cast<std::size_t>(2 * words);
    auto value = std::make_unique<std::uint8_t[]>(bytes); // exactly the value: a byte past it is caught
    std::memset(value.get(), 0x5A, bytes);
    const int result = write ? modbus_write_registers(&fuzz::line().port, reg, type, value.get())
                             : modbus_read_registers(&fuzz::line().port, reg, type, value.get(), bytes);
    const Failure failure = last_outcome().failure;
    const bool agrees = (result == 1 && failure == Failure::kNone) ||
                        (result == -1 && (failure == Failure::kNoReply || failure == Failure::kBadFrame)) ||
                        (result == 0 && (failure == Failure::kException || failure == Failure::kWrongFunction ||
                                         failure == Failure::kWrongEcho));
    if (!agrees) __builtin_trap();
    if (write && failure == Failure::kWrongEcho && result != 0) __builtin_trap();
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    std::FILE* quiet = std::freopen("/dev/null", "w", stdout); // frames and messages
    (void)quiet;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2) return 0;
    fuzz::feed(data + 2, size - 2);
    if (data[0] & 2)
        receive_and_check();
    else
        transaction(data[0] & 1, 1 + data[1] % 127);
    return 0;
}
