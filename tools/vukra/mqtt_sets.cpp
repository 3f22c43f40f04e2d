// Writing the registers that MQTT set messages ask for.
#include "device.h"
#include "mqtt_bridge.h"
#include "poll_values.h"

#include "session/named_registers.h"
#include "table/value_parse.h"

#include <cstdio>

namespace vukra::cli {

namespace {

// Checked against the table and the value's type before anything is sent;
// a refusal or a failed write goes to the error topic.
void apply(modbus_vukra_session* s, Mqtt* m, const SetRequest& request) {
    Polled p{request.name};
    std::string why = look_up(p, true);
    std::string text = request.payload;
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
    std::uint8_t value[session::kTransferSize] = {};
    if (why.empty() && !table::parse_value(p.type, text.c_str(), value, sizeof value))
        why = "\"" + text + "\" is not a value of " + p.name + "'s type " + (p.type.name ? p.type.name : "?") +
              ": nothing was sent";
    const std::int32_t count = 2 * p.type.words;
    if (why.empty() && modbus_vukra_op_protected_writereg(s, p.name.c_str(), value, count) != count)
        why = "cannot write " + p.name + ": " + transaction_failure();
    if (!why.empty()) {
        std::fprintf(stderr, "vukra: %s\n", why.c_str());
        mqtt_publish_error(m, p.name, why);
    }
}

} // namespace

void mqtt_apply_sets(Mqtt* m, modbus_vukra_session* s, std::uint32_t wait_ms) {
    SetRequest request;
    for (std::uint32_t wait = wait_ms; mqtt_next_set(m, request, wait); wait = 0) apply(s, m, request);
}

} // namespace vukra::cli
