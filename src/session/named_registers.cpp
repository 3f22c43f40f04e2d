#include "session/named_registers.h"
#include "session/log.h"

#include "link/register_transactions.h"
#include "table/value_conversion.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace vukra::session {

namespace {

std::int32_t clamp_count(std::int32_t count) { return std::clamp(count, 0, kTransferSize); }

// The verbose log line of a value, as "read %s\n" or "write %s\n".
void log_value(const Session* s, const char* format, const char* name, const table::TypeRecord& type,
               const void* value) {
    if (!s->verbose) return;
    char text[table::kValueTextSize] = {};
    if (!table::binary_to_text(text, sizeof text, type, value))
        log::print("error: cannot display value in register %s\n", name);
    log::print(format, text);
}

bool find(const Session* s, const char* name, table::RegisterRecord& reg, table::TypeRecord& type) {
    if (table::find_register(reg, type, name)) return true;
    if (s->verbose) log::print("error: cannot find register %s\n", name ? name : "(null)");
    return false;
}

} // namespace

std::int32_t read_register(Session* s, const char* name, void* value, std::int32_t count) {
    if (s == nullptr || value == nullptr) return -1;
    table::TableLock table_lock;
    table::RegisterRecord reg;
    table::TypeRecord type;
    if (!find(s, name, reg, type)) return -1;
    std::uint8_t transfer[kTransferSize] = {};
    if (link::modbus_read_registers(s->port, reg, type, transfer, sizeof transfer) <= 0) {
        if (s->verbose) log::print("error: cannot read register %s\n", name);
        return -1;
    }
    count = clamp_count(count);
    std::memcpy(value, transfer, static_cast<std::size_t>(count));
    log_value(s, "read %s\n", name, type, value);
    return count;
}

std::int32_t write_register(Session* s, const char* name, const void* value, std::int32_t count) {
    if (s == nullptr || value == nullptr) return -1;
    count = clamp_count(count);
    std::uint8_t transfer[kTransferSize] = {};
    std::memcpy(transfer, value, static_cast<std::size_t>(count));
    table::TableLock table_lock;
    table::RegisterRecord reg;
    table::TypeRecord type;
    if (!find(s, name, reg, type)) return -1;
    if (link::modbus_write_registers(s->port, reg, type, transfer) <= 0) {
        if (s->verbose) log::print("error: cannot write register %s\n", name);
        return -1;
    }
    log_value(s, "write %s\n", name, type, value);
    return count;
}

} // namespace vukra::session
