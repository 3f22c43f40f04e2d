#include "writes.h"

#include "metrics.h"

#include "../device.h"
#include "link/register_transactions.h"
#include "session/named_registers.h"
#include "table/value_parse.h"

#include <array>
#include <memory>

namespace vukra::web {

bool value_text(const nlohmann::json& value, std::string& text) {
    if (value.is_string()) {
        text = value.get<std::string>();
        return true;
    }
    if (value.is_number()) {
        text = value.dump();
        return true;
    }
    if (!value.is_array() || value.empty()) return false;
    text.clear();
    for (const nlohmann::json& element : value) {
        if (!element.is_number()) return false;
        text += (text.empty() ? "" : " ") + element.dump();
    }
    return true;
}

Written write_text(Board& b, Line& line, const std::string& name, const std::string& text, bool read_only,
                   Clock::time_point deadline) {
    Written w;
    const Entry* e = find(b, name);
    const auto refuse = [&w](int status, std::string why) {
        w.status = status;
        w.why = std::move(why);
        return w;
    };
    if (e == nullptr) return refuse(404, "no register " + name + " in the table");
    if (read_only) return refuse(403, "vukra serve runs with --read-only: nothing was sent");
    if (!e->writable) return refuse(403, name + " is read-only (access \"R\" in the table): nothing was sent");
    if (e->reg.type.words <= 0 || e->reg.type.words > 123)
        return refuse(400, name + "'s type has " + std::to_string(e->reg.type.words) +
                               " words; one Modbus write carries 1 to 123: nothing was sent");
    auto value = std::make_shared<std::array<std::uint8_t, session::kTransferSize>>();
    if (!table::parse_value(e->reg.type, text.c_str(), value->data(), value->size()))
        return refuse(400, "\"" + text + "\" is not a value of " + name + "'s type " +
                               (e->reg.type.name ? e->reg.type.name : "?") + ": nothing was sent");
    const std::size_t index = b.by_name.at(name);
    auto result = std::make_shared<Written>();
    const Ran ran = line.run(
        [&b, index, value, result](modbus_vukra_session* s) {
            const Entry& entry = b.entries[index];
            const std::int32_t count = 2 * entry.reg.type.words;
            const bool ok = modbus_vukra_op_protected_writereg(s, entry.reg.name.c_str(), value->data(), count) == count;
            count_transaction(b.counters);
            if (!ok) {
                const bool silent = link::last_outcome().failure == link::Failure::kNoReply;
                result->status = silent ? 504 : 502;
                result->why = "cannot write " + entry.reg.name + ": " + cli::transaction_failure();
                return;
            }
            if (entry.readable) result->read_back = read_entry(s, b, index).ok;
        },
        Urgency::kWrite, deadline);
    if (ran == Ran::kBusy) return refuse(503, "the line's queue is full: nothing was sent");
    if (ran == Ran::kStopped) return refuse(503, "vukra serve is stopping: nothing was sent");
    if (ran == Ran::kExpired) return refuse(504, "the line was busy past the request's time: nothing was sent");
    if (ran == Ran::kLate) return refuse(504, "no reply from the device in time");
    return *result;
}

} // namespace vukra::web
