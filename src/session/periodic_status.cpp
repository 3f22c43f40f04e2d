// What the timer thread does once a second while the Session is mounted.
#include "remotefs/file_operations.h"
#include "session/session.h"

namespace vukra::session {

namespace {

constexpr std::uint32_t kLockRetryMs = 5;

// Takes the operations lock unless the timer is being stopped meanwhile: a
// close holds that lock while it waits for this thread, and must not wait
// in vain.
bool enter_operations(Session& s, const platform::Timer* timer) {
    for (;;) {
        if (platform::timer_stopping(timer)) return false;
        if (platform::lock_try_enter(s.operations_lock)) return true;
        platform::sleep_ms(kLockRetryMs);
    }
}

} // namespace

void periodic_status() {
    platform::Timer* timer = platform::timer_current();
    if (timer == nullptr) return;
    auto* s = static_cast<Session*>(platform::timer_context(timer));
    if (s == nullptr || !enter_operations(*s, timer)) return;
    remotefs::null_request(*s); // whatever the answer: the host reads it
    platform::lock_leave(s->operations_lock);

    if (void* window = s->host_window.load(); window != nullptr)
        platform::notify_window(window, s->host_message.load(), s);
    if (modbus_vukra_callback callback = s->host_callback.load(); callback != nullptr)
        callback(s); // may close s: nothing below touches it
    platform::timer_rearm(timer);
}

} // namespace vukra::session
