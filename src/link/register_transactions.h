// One Modbus request and its reply for the whole value of one register:
// function 3 (read holding registers) to read, 16 (write multiple
// registers) to write, device address 1. Each transaction prints what it
// sent and received and how long the device took.
//
// Results: 1 done, 0 the device answered wrongly (an exception reply
// included), -1 no valid reply (time-out, read failure, unsound frame).
#pragma once

#include "link/serial_port.h"
#include "table/register_table.h"

#include <cstddef>

namespace vukra::link {

inline constexpr std::uint8_t kDeviceAddress = 1;
inline constexpr std::uint8_t kReadFunction = 3;
inline constexpr std::uint8_t kWriteFunction = 16;

// The most registers one request carries: function 3 reads at most 125,
// function 16 writes at most 123 (a Modbus PDU holds 253 bytes).
inline constexpr std::uint32_t kMaxReadWords = 125;
inline constexpr std::uint32_t kMaxWriteWords = 123;

// Modbus exception codes a device or a gateway answers.
enum ExceptionCode : std::uint8_t {
    kIllegalFunction = 1,
    kIllegalAddress = 2,
    kIllegalValue = 3,
    kDeviceFailure = 4,
    kAcknowledge = 5,
    kDeviceBusy = 6,
    kGatewayPath = 0x0A,
    kNoResponse = 0x0B, // gateway: the target device failed to respond
};

// Reads the register into destination (at most capacity bytes, as one
// host-order number of 2 x words bytes).
int modbus_read_registers(Port* port, const table::RegisterRecord& reg, const table::TypeRecord& type,
                          void* destination, std::size_t capacity);

// Writes 2 x words bytes from source, a host-order number.
int modbus_write_registers(Port* port, const table::RegisterRecord& reg, const table::TypeRecord& type,
                           const void* source);

// Why the calling thread's last transaction failed, for tools that tell a
// person more than the result does. It does not change any result.
enum class Failure {
    kNone,          // the last transaction succeeded
    kNoReply,       // no reply within the port's time-out, or the line failed
    kBadFrame,      // a reply came but was not a sound frame (start, end, length, LRC)
    kException,     // the device answered with an exception: exception_code says which
    kWrongFunction, // a reply for another function
    kWrongEcho,     // a write's reply echoed another address or quantity
};
struct TransactionOutcome {
    Failure failure;
    std::uint8_t exception_code; // with kException
};
TransactionOutcome last_outcome();

} // namespace vukra::link
