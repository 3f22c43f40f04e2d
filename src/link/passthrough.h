// Requests relayed to the device as a client made them, for a gateway
// (vukra serve): a Modbus request (its PDU, function code and data) sent
// in an ASCII frame to the device's address, and a remote-filesystem packet
// sent as one SLIP packet. Each drops what the line holds first, so that a
// reply that came too late for an earlier exchange is never taken for this
// one's.
#pragma once

#include "link/serial_port.h"

#include <cstddef>
#include <cstdint>

namespace vukra::link {

// The longest PDU a Modbus request or reply carries (function and data).
inline constexpr std::size_t kMaxPdu = 253;

// Sends the request PDU and gives the reply's PDU in reply (kMaxPdu bytes):
// its length, or -1 without a sound reply that answers this request. An
// exception reply (the function with 0x80 and its code) is a reply. A
// function 3 reply must carry the words asked for, a function 16 reply echo
// the address and quantity; any other function's reply must name it. A reply
// that does not answer (a late one to an earlier request) is passed over.
long modbus_pass(Port* port, const std::uint8_t* pdu, std::size_t length, std::uint8_t* reply);

// Sends one packet and receives one into reply (capacity bytes): its
// length, or -1 when none came within the time-out.
long packet_pass(Port* port, const std::uint8_t* packet, std::size_t length, std::uint8_t* reply,
                 std::size_t capacity);

} // namespace vukra::link
