#include "session/tool_interface.h"

#include "link/line_failure.h"
#include "link/register_transactions.h"
#include "session/session.h"

namespace vukra::tool {

Session* open(const char* port_name, const char* table_file, bool verbose) {
    Session* s = session::open(port_name, 0, table_file, verbose);
    if (s == nullptr) return nullptr;
    if (s->port->native == platform::kInvalidPort) {
        // The exported open lets a port that did not open through (its
        // transfers fail later); a tool says why now. The close leaves the
        // reason in place: it makes no exchange.
        session::close(s);
        return nullptr;
    }
    return s;
}

Hold::Hold(Session* session) : session_(session) {
    if (session_ != nullptr) platform::lock_enter(session_->operations_lock);
}

Hold::~Hold() {
    if (session_ != nullptr) platform::lock_leave(session_->operations_lock);
}

void pause_timer(Session* session) {
    if (session != nullptr && session->timer != nullptr) platform::timer_disarm(session->timer);
}

int read_register(Session* session, const table::RegisterRecord& reg, const table::TypeRecord& type, void* value,
                  std::size_t capacity) {
    if (session == nullptr || session->port == nullptr) return -1;
    platform::LockGuard operations(session->operations_lock);
    return link::modbus_read_registers(session->port, reg, type, value, capacity);
}

Failure last_failure() {
    const link::FailureKind kind = link::failure_kind();
    return Failure{kind, kind == link::FailureKind::kNone ? std::string() : std::string(link::failure_reason())};
}

} // namespace vukra::tool
