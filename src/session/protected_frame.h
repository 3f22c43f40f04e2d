// The frame shared by every protected_* export: the operation runs whole
// under the Session's operations lock, which serialises the host's threads
// and the timer thread on one device.
#pragma once

#include "session/export_guard.h"
#include "session/session.h"

namespace vukra::session {

// A null Session is refused (-1) whether or not a session is open, and so
// is a record without a port: it has no lock to take.
template <typename Operation>
std::int32_t protected_call(Session* s, Operation&& operation) noexcept {
    if (s == nullptr || s->port == nullptr) return -1;
    platform::LockGuard operations(s->operations_lock);
    return guarded<std::int32_t>(-1, operation);
}

} // namespace vukra::session
