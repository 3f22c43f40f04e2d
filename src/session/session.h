// The Session: one connection to a device, owned by the host between an
// open call and session_close.
#pragma once

#include "link/serial_port.h"
#include "modbus_vukra.h"
#include "platform/platform.h"
#include "remotefs/messages.h"

#include <atomic>
#include <cstdint>

// Words of the status block, guarded by the state lock.
enum StatusWord : int {
    kStatusDurationMs = 0,
    kStatusBitsPerSecond = 1,
    kStatusDirection = 2,
    kStatusPhase = 3,
    kStatusProgress = 4,
    kStatusWords = 5,
};

inline constexpr std::int32_t kPhaseDone = 4;

struct modbus_vukra_session {
    const char* mount_path;       // the process-wide identity text
    MountFlags request_flags;     // 0, 1, 1, 1
    MountFlags reply_flags;       // of the last mount reply
    std::uint32_t volume;         // all ones until mounted
    std::uint32_t directory_ref;  // current handle: directory reference
    std::int32_t file_descriptor; // current handle: file descriptor
    std::int32_t position;        // file position or directory cookie
    // Status of the last reply, or a local error; the timer thread's status
    // request writes it while host threads may read it.
    std::atomic<std::int32_t> error;
    std::uint8_t verbose;         // prints the open call's diagnostics
    std::uint8_t mirror_enabled;  // paths holding "/mem" go to the mirror
    std::uint8_t mirror_selected; // the last path-routed operation went there
    modbus_vukra_session* mirror; // the local mirror session, or null
    std::uint32_t timeout_ms;
    std::int32_t status[kStatusWords];
    std::atomic<std::int32_t> cancel; // image transfer cancel request (state lock)
    // Image transfer: bytes of the image that crossed the line so far, and
    // that must cross in all (0 until the map is read); state lock.
    std::uint64_t line_bytes[2] = {0, 0};
    vukra::link::Port* port;             // null for an unconnected record
    // Read by the timer thread while the host may set them.
    std::atomic<void*> host_window;       // stored, used on Windows only
    std::atomic<std::uint32_t> host_message;
    vukra::platform::RecursiveLock operations_lock;
    vukra::platform::RecursiveLock state_lock;
    std::atomic<modbus_vukra_callback> host_callback;
    // The timer thread that sends the status request once a second while
    // mounted; null for an unconnected record. Its context is this record.
    vukra::platform::Timer* timer;
};

namespace vukra::session {

using Session = modbus_vukra_session;

// The process-wide open flag: 1 while a connected Session exists.
bool is_open();

inline constexpr const char* kTableFile = "table.xml";

// Opens a Session on a port named or handed over (exactly one of the two),
// with the register table of table_file.
// verbose: the open's own lines are printed (the exported opens never are).
Session* open(const char* port_name, std::intptr_t port_handle, const char* table_file = kTableFile,
              bool verbose = false);
std::int32_t close(Session* session);

// The "%s.%s" text of computer and user names that mount paths point to;
// rebuilt by every open call.
const char* refresh_identity();

inline constexpr std::uint32_t kStatusPeriodMs = 1000;

// The timer's routine: the status request under the operations lock, then
// the host window's message and the host callback, then the re-arming.
void periodic_status();

} // namespace vukra::session
