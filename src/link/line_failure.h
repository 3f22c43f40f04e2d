// Why the calling thread's last open, or last exchange on the line, failed:
// a kind and the reason for a person. Results stay what they are (-1, a
// null Session, the error word 513); this only says more about them.
#pragma once

namespace vukra::link {

enum class FailureKind {
    kNone,        // nothing failed since the thread's last open or exchange
    kPort,        // the port could not be opened
    kTable,       // the register table could not be loaded
    kBusy,        // another session of this process is open
    kTimeout,     // no reply within the port's time-out
    kLine,        // the line failed: connection refused or dropped, a read error
    kUndecodable, // a reply came that does not decode
};

// Records a failure: its kind, the errno a POSIX program would see, and the
// reason (printf-style, no line end). The first of an exchange wins until
// clear_failure: a time-out after its cause is not news.
void note_failure(FailureKind kind, int error, const char* format, ...) __attribute__((format(printf, 3, 4)));
void clear_failure();

FailureKind failure_kind();
const char* failure_reason(); // "" with kNone
int failure_errno();          // 0 with kNone

} // namespace vukra::link
