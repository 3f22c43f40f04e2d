// Opening and closing a Session.
#include "session/session.h"

#include "link/line_failure.h"

#include <cerrno>
#include "session/log.h"

#include "kernel/kernel_start.h"
#include "table/register_table.h"

#include <atomic>
#include <cstdio>
#include <cstring>
#include <new>

namespace vukra::session {

namespace {

std::atomic<int> open_flag{0};

Session* new_record() {
    auto* s = new (std::nothrow) Session;
    if (s == nullptr) return nullptr;
    std::memset(static_cast<void*>(s), 0, sizeof *s);
    s->volume = 0xFFFFFFFFu;
    s->directory_ref = 0;
    s->file_descriptor = -1;
    s->request_flags = MountFlags{{0, 1, 1, 1}};
    s->timeout_ms = link::kSessionSettings.timeout_ms;
    s->mount_path = refresh_identity();
    return s;
}

// A record that failed to open is released whole: the host never sees it.
// A port opened by name is closed; a handle the host handed over stays
// open, the host's as before the call.
Session* give_up(Session* s) {
    if (s->port != nullptr) {
        if (s->port->adopted)
            link::serial_release(s->port);
        else
            link::serial_close(s->port);
    }
    delete s;
    return nullptr;
}

} // namespace

bool is_open() { return open_flag.load() != 0; }

Session* open(const char* port_name, std::intptr_t port_handle, const char* table_file, bool verbose) {
    const link::SerialSettings settings = link::kSessionSettings;
    Session* s = new_record();
    if (s == nullptr) return nullptr;
    s->verbose = verbose ? 1 : 0;

    if (port_name == nullptr && port_handle == 0) {
        // The unconnected record that serves as a mirror session.
        if (!is_open()) return give_up(s);
        return s;
    }
    kernel::kernel_start(); // once per process; later calls do nothing
    if (is_open()) {
        link::clear_failure();
        link::note_failure(link::FailureKind::kBusy, EBUSY, "another session of this process is open");
        return give_up(s);
    }

    if (s->verbose) {
        if (port_name != nullptr)
            log::print("%s %d bauds\n", port_name, static_cast<int>(settings.baud));
        else
            log::print("%d bauds\n", static_cast<int>(settings.baud));
    }
    s->port = link::serial_open(0, port_name, port_handle, &settings);
    if (s->port == nullptr) {
        if (s->verbose) log::print("error: cannot open serial port\n");
        return give_up(s);
    }
    // The register table is process-wide; every open loads it again.
    if (!table::load(table_file)) {
        if (s->verbose) log::print("error: cannot open file: %s\n", table_file);
        link::note_failure(link::FailureKind::kTable, EINVAL, "cannot load the register table %s", table_file);
        return give_up(s);
    }

    platform::lock_init(s->operations_lock);
    platform::lock_init(s->state_lock);
    {
        platform::LockGuard state(s->state_lock);
        s->status[kStatusDirection] = 0;
        s->status[kStatusPhase] = kPhaseDone;
        s->status[kStatusProgress] = 0;
    }
    open_flag = 1;
    // The thread runs from now on; a successful mount arms it.
    s->timer = platform::timer_start(periodic_status, s, kStatusPeriodMs);
    return s;
}

std::int32_t close(Session* s) {
    if (s == nullptr || s->port == nullptr) return -1;
    // Both locks are held to the end, so that no operation of another
    // thread is half-way through when the port goes.
    platform::lock_enter(s->operations_lock);
    platform::lock_enter(s->state_lock);
    // The timer thread goes first: it reaches the record through its
    // context. From the host callback (on the timer thread itself) this
    // only disarms, and the thread ends once the callback has returned.
    platform::timer_stop(s->timer);
    s->timer = nullptr;
    link::serial_close(s->port);
    s->port = nullptr;
    s->volume = 0xFFFFFFFFu;
    s->directory_ref = 0;
    s->file_descriptor = -1;
    s->mirror_enabled = 0;
    s->mirror_selected = 0;
    platform::lock_leave(s->state_lock);
    platform::lock_leave(s->operations_lock);
    platform::lock_destroy(s->state_lock);
    platform::lock_destroy(s->operations_lock);
    open_flag = 0;
    delete s->mirror; // only the memory: a mirror record has no port
    delete s;
    return 0;
}

} // namespace vukra::session
