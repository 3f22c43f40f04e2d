#include "link/line_failure.h"

#include <cstdarg>
#include <cstdio>

namespace vukra::link {

namespace {

thread_local FailureKind kind = FailureKind::kNone;
thread_local int error_value = 0;
thread_local char reason[600];

} // namespace

void note_failure(FailureKind k, int error, const char* format, ...) {
    if (kind != FailureKind::kNone) return;
    kind = k;
    error_value = error;
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(reason, sizeof reason, format, arguments);
    va_end(arguments);
}

void clear_failure() {
    kind = FailureKind::kNone;
    error_value = 0;
    reason[0] = '\0';
}

FailureKind failure_kind() { return kind; }
const char* failure_reason() { return reason; }
int failure_errno() { return error_value; }

} // namespace vukra::link
