// The exports outside the op family, for what a host cannot get through
// the 30: where the diagnostics go (they are printed), a failure in words
// (a status's meaning, why an open gave NULL, what the line met), and the
// strict reading of a value typed by a person (register_atob is lenient by
// contract: text that does not parse still gives 0).
#include "link/line_failure.h"
#include "remotefs/statuses.h"
#include "remotefs/transport.h"
#include "session/export_guard.h"
#include "session/log.h"
#include "session/named_registers.h"
#include "table/register_table.h"
#include "table/value_parse.h"

#include <cstdio>

extern "C" {

MODBUS_VUKRA_API void modbus_vukra_set_log(modbus_vukra_log_callback callback, void* context) {
    (void)vukra::session::guarded(0, [&] {
        vukra::log::set_sink(callback, context);
        return 0;
    });
}

MODBUS_VUKRA_API int32_t modbus_vukra_explain(int32_t status, int32_t doing, char* text, int32_t size) {
    using namespace vukra;
    char words[700];
    int error = 0;
    const bool line = status == 0 || status == remotefs::kNoReply;
    if (line && link::failure_kind() != link::FailureKind::kNone) {
        error = link::failure_errno();
        std::snprintf(words, sizeof words, "%s", link::failure_reason());
    } else if (status == 0) {
        words[0] = '\0';
    } else {
        error = remotefs::errno_of(status, static_cast<remotefs::Doing>(doing));
        remotefs::status_words(status, words, sizeof words);
    }
    if (text != nullptr && size > 0) std::snprintf(text, static_cast<std::size_t>(size), "%s", words);
    return error;
}

MODBUS_VUKRA_API int32_t modbus_vukra_register_parse(void* value, const char* name, const char* text) {
    using namespace vukra;
    return session::guarded<std::int32_t>(-1, [&] {
        if (value == nullptr || text == nullptr) return -1;
        table::TableLock table_lock; // a session opened meanwhile may reload the table
        table::RegisterRecord reg;
        table::TypeRecord type;
        if (!table::find_register(reg, type, name)) return -1;
        return table::parse_value(type, text, value, session::kTransferSize) ? 0 : -1;
    });
}

} // extern "C"
