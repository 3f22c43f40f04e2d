// The tools' raw exchanges (tool_interface.h): what vukra serve relays.
#include "link/passthrough.h"
#include "remotefs/relay.h"
#include "session/session.h"
#include "session/tool_interface.h"

namespace vukra::tool {

static_assert(kMaxPdu == link::kMaxPdu);

long modbus_exchange(Session* s, const std::uint8_t* pdu, std::size_t length, std::uint8_t* reply) {
    if (s == nullptr || s->port == nullptr) return -1;
    platform::LockGuard operations(s->operations_lock);
    return link::modbus_pass(s->port, pdu, length, reply);
}

long packet_exchange(Session* s, int client, const std::uint8_t* packet, std::size_t length, std::uint8_t* reply,
                     std::size_t capacity) {
    if (s == nullptr || s->port == nullptr) return -1;
    platform::LockGuard operations(s->operations_lock);
    return remotefs::relay_packet(s->port, client, packet, length, reply, capacity);
}

void packet_client_gone(int client) { remotefs::relay_forget(client); }

} // namespace vukra::tool
