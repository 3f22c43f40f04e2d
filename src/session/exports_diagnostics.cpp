// The two exports outside the op family: where the diagnostics go, and a
// failure in words. A host cannot learn either through the 30: the
// diagnostics are printed, and a status's meaning, or why an open gave
// NULL, is nowhere in their results.
#include "link/line_failure.h"
#include "remotefs/statuses.h"
#include "remotefs/transport.h"
#include "session/export_guard.h"
#include "session/log.h"

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

} // extern "C"
