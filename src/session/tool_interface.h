// The library as the project's own tools see it: the public C interface
// (modbus_vukra.h) and the little more a command-line tool needs, here. A
// tool touches nothing else of the Session: its fields, its locks and its
// timer stay the library's.
#pragma once

#include "link/line_failure.h"
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
// For a tool that reads by the table's records rather than by name, or
// forwards what others send (one SLIP packet, one Modbus transaction: added
// with the tool that needs them). Each holds the operations lock.

// A function-3 read of reg (of type) into value (capacity bytes, one
// host-order number): 1, 0 for a wrong answer, -1 for no valid reply.
int read_register(Session* session, const table::RegisterRecord& reg, const table::TypeRecord& type, void* value,
                  std::size_t capacity);

} // namespace vukra::tool
