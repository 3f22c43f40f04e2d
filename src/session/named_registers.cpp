#include "session/named_registers.h"

#include "link/register_transactions.h"
#include "remotefs/transport.h"
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
        std::printf("error: cannot display value in register %s\n", name);
    std::printf(format, text);
}

bool find(const Session* s, const char* name, table::RegisterRecord& reg, table::TypeRecord& type) {
    if (table::find_register(reg, type, name)) return true;
    if (s->verbose) std::printf("error: cannot find register %s\n", name ? name : "(null)");
    return false;
}

// Runs one transaction on a quiet line and says whether it answered this
// register. What the line holds from an exchange given up earlier (a reply
// that came after its time-out, a reply sent twice) goes first, as in the
// file transport: otherwise it would be taken for this request's answer.
// A sound reply from another address, or a read reply whose value is not
// the register's size, is not this register's answer either. A device
// that did not answer leaves 513 in the error word, as a file operation
// does.
template <typename Transaction>
bool answered(Session* s, const table::TypeRecord& type, bool reading, Transaction run) {
    if (s->port != nullptr) link::serial_purge(s->port);
    const int result = run();
    const link::TransactionOutcome o = link::last_outcome();
    if (result < 0 && o.failure == link::Failure::kNoReply) s->error = remotefs::kNoReply;
    if (result <= 0 || o.reply_address != link::kDeviceAddress) return false;
    return !reading || o.value_bytes == 2 * type.words;
}

} // namespace

std::int32_t read_register(Session* s, const char* name, void* value, std::int32_t count) {
    if (s == nullptr || value == nullptr) return -1;
    table::TableLock table_lock;
    table::RegisterRecord reg;
    table::TypeRecord type;
    if (!find(s, name, reg, type)) return -1;
    std::uint8_t transfer[kTransferSize] = {};
    if (!answered(s, type, true, [&] { return link::modbus_read_registers(s->port, reg, type, transfer, sizeof transfer); })) {
        if (s->verbose) std::printf("error: cannot read register %s\n", name);
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
    if (!answered(s, type, false, [&] { return link::modbus_write_registers(s->port, reg, type, transfer); })) {
        if (s->verbose) std::printf("error: cannot write register %s\n", name);
        return -1;
    }
    log_value(s, "write %s\n", name, type, value);
    return count;
}

} // namespace vukra::session
