// The library as the project's own tools see it: the public C interface
// (modbus_vukra.h) and the little more a command-line tool needs, here. A
// tool touches nothing else of the Session: its fields, its locks and its
// timer stay the library's.
#pragma once

#include "link/line_failure.h"
#include "link/register_transactions.h"
#include "modbus_vukra.h"
#include "remotefs/statuses.h" // the statuses the project knows, in words and as errno
#include "table/register_table.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace vukra::tool {

using Session = modbus_vukra_session;

// The statuses the project knows (remotefs/statuses.h): errno_of(status,
// doing) and status_words(status, text, size) by its rule for the others.
using remotefs::Doing;
using remotefs::errno_of;
using remotefs::status_words;

// ---- opening ---------------------------------------------------------------

// Opens a Session on port_name (a device path or tcp://HOST:PORT) with the
// register table of table_file. With verbose the session's own lines (the
// open's, each value moved by name) are printed through the log sink. Null
// when it cannot: last_failure() says why (a port that does not open is
// refused here, where the exported open lets it through).
Session* open(const char* port_name, const char* table_file, bool verbose);

// ---- a sequence of calls -----------------------------------------------------

// Holds the Session's operations lock while it lives, the lock every
// protected call takes again on the same thread: a sequence of calls (a
// lookup and the reads that follow it) runs with nothing of another thread,
// the timer's status request included, in between, and the error word a
// failure left is still there to be put into words.
class Hold {
public:
    explicit Hold(Session* session);
    ~Hold();
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;

private:
    Session* session_;
};

// Stops the Session's once-a-second status request until the next mount
// (a tool that keeps the line busy itself).
void pause_timer(Session* session);

// ---- why the last call failed ------------------------------------------------

// The error word of a file operation whose exchange with the device failed
// (no reply, a reply that does not decode, a dropped connection).
inline constexpr std::int32_t kLineFailed = 513;

using FailureKind = link::FailureKind; // kNone, kPort, kTable, kBusy, kTimeout, kLine, kUndecodable

struct Failure {
    FailureKind kind = FailureKind::kNone;
    std::string reason; // for a person, without a line end; empty with kNone
};

// Why the calling thread's last open, or last exchange with the device,
// failed.
Failure last_failure();

// ---- raw exchanges with the device -------------------------------------------
// For a tool that reads by the table's records rather than by name. Holds
// the operations lock.

// A function-3 read of reg (of type) into value (capacity bytes, one
// host-order number): 1, 0 for a wrong answer, -1 for no valid reply.
int read_register(Session* session, const table::RegisterRecord& reg, const table::TypeRecord& type, void* value,
                  std::size_t capacity);

// For a tool that forwards what others send (vukra serve), each under the
// Session's operations lock, after dropping what the line holds, so that a
// reply too late for an earlier exchange is never taken for this one's.

// The longest PDU (function code and data) of a Modbus request or reply,
// the most registers a read or a write carries, and the exception codes.
inline constexpr std::size_t kMaxPdu = 253;
using link::kMaxReadWords;
using link::kMaxWriteWords;
using ExceptionCode = link::ExceptionCode;

// One Modbus transaction as a client asked for it: the request PDU goes to
// the device's address in an ASCII frame; the reply's PDU lands in reply
// (kMaxPdu bytes). Its length, or -1 without a sound reply that answers
// this request (a read's reply must carry the words asked for, a write's
// echo its address and quantity). An exception reply (the function with
// 0x80, and its code) is a reply.
long modbus_exchange(Session* session, const std::uint8_t* pdu, std::size_t length, std::uint8_t* reply);

// One SLIP packet of client (a number the tool gives each of its clients)
// to the device and one back into reply (capacity bytes): its length, or -1
// when none came within the time-out. The device's one current file handle
// is kept to each client's own (see remotefs/relay.h).
long packet_exchange(Session* session, int client, const std::uint8_t* packet, std::size_t length,
                     std::uint8_t* reply, std::size_t capacity);
// The client has gone.
void packet_client_gone(int client);

} // namespace vukra::tool
