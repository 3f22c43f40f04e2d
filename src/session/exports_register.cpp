// The register family of exports.
#include "session/named_registers.h"
#include "session/protected_frame.h"
#include "table/value_conversion.h"

namespace session = vukra::session;
namespace table = vukra::table;

extern "C" {

MODBUS_VUKRA_API std::int32_t modbus_vukra_op_protected_readreg(modbus_vukra_session* s, const char* name,
                                                                void* value, std::int32_t count) {
    return session::protected_call(s, [&] { return session::read_register(s, name, value, count); });
}

MODBUS_VUKRA_API std::int32_t modbus_vukra_op_protected_writereg(modbus_vukra_session* s, const char* name,
                                                                 const void* value, std::int32_t count) {
    return session::protected_call(s, [&] { return session::write_register(s, name, value, count); });
}

MODBUS_VUKRA_API char* modbus_vukra_op_register_btoa(char* text, const char* name, const void* value) {
    return session::guarded<char*>(nullptr, [&]() -> char* {
        table::TableLock table_lock; // a session opened meanwhile may reload the table
        table::RegisterRecord reg;
        table::TypeRecord type;
        if (!table::find_register(reg, type, name)) return nullptr;
        return table::binary_to_text(text, table::kValueTextSize, type, value) ? text : nullptr;
    });
}

MODBUS_VUKRA_API std::int32_t modbus_vukra_op_register_atob(void* value, const char* name, const char* text) {
    return session::guarded<std::int32_t>(-1, [&] {
        table::TableLock table_lock;
        table::RegisterRecord reg;
        table::TypeRecord type;
        if (!table::find_register(reg, type, name)) return -1;
        return table::text_to_binary(value, type.name, text) ? 0 : -1;
    });
}

} // extern "C"
