// The session family of exports.
#include "session/export_guard.h"
#include "session/session.h"

#include <cstring>

namespace session = vukra::session;
namespace platform = vukra::platform;
using session::Session;

namespace {

constexpr std::int32_t kNoSession = 4095;

std::int32_t flags_word(const MountFlags& flags) {
    std::int32_t word;
    std::memcpy(&word, flags.bytes, sizeof word);
    return word;
}

} // namespace

extern "C" {

MODBUS_VUKRA_API modbus_vukra_session* modbus_vukra_op_session_open(const char* port_name) {
    return session::guarded<Session*>(nullptr, [&] { return session::open(port_name, 0); });
}

MODBUS_VUKRA_API modbus_vukra_session* modbus_vukra_op_session_open2(void* port_handle) {
    return session::guarded<Session*>(
        nullptr, [&] { return session::open(nullptr, reinterpret_cast<std::intptr_t>(port_handle)); });
}

MODBUS_VUKRA_API std::int32_t modbus_vukra_op_session_close(modbus_vukra_session* s) {
    return session::guarded<std::int32_t>(-1, [&] { return session::close(s); });
}

MODBUS_VUKRA_API std::int32_t modbus_vukra_op_session_info(modbus_vukra_session* s, std::int32_t* info) {
    if (s == nullptr || info == nullptr) return -1;
    info[MODBUS_VUKRA_INFO_REQUEST_FLAGS] = flags_word(s->request_flags);
    info[MODBUS_VUKRA_INFO_REPLY_FLAGS] = flags_word(s->reply_flags);
    if (s->port == nullptr) {
        // An unconnected record has no locks; its status block is all it has.
        std::memcpy(info + 2, s->status, sizeof s->status);
        return 0;
    }
    platform::LockGuard state(s->state_lock);
    std::memcpy(info + 2, s->status, sizeof s->status);
    return 0;
}

MODBUS_VUKRA_API std::int32_t modbus_vukra_op_session_error(modbus_vukra_session* s) {
    return s == nullptr ? kNoSession : s->error.load();
}

MODBUS_VUKRA_API std::int32_t modbus_vukra_op_session_hwnd(modbus_vukra_session* s, void* window,
                                                           std::uint32_t message_number) {
    if (s == nullptr) return kNoSession;
    s->host_window = window;
    s->host_message = message_number;
    return 0;
}

MODBUS_VUKRA_API std::int32_t modbus_vukra_op_session_callback(modbus_vukra_session* s,
                                                               modbus_vukra_callback callback) {
    if (s == nullptr) return kNoSession;
    s->host_callback = callback;
    return 0;
}

MODBUS_VUKRA_API std::int32_t modbus_vukra_transfer_bytes(modbus_vukra_session* s, std::uint64_t* bytes) {
    if (s == nullptr || bytes == nullptr) return -1;
    if (s->port == nullptr) { // an unconnected record has no locks and moves nothing
        bytes[0] = bytes[1] = 0;
        return 0;
    }
    platform::LockGuard state(s->state_lock);
    bytes[0] = s->line_bytes[0];
    bytes[1] = s->line_bytes[1];
    return 0;
}

MODBUS_VUKRA_API std::int32_t modbus_vukra_op_cancelfs(modbus_vukra_session* s) {
    if (s == nullptr) return -1;
    if (s->port == nullptr) {
        s->cancel = 1;
        return 0;
    }
    platform::LockGuard state(s->state_lock);
    s->cancel = 1;
    return 0;
}

} // extern "C"
