// The one door to the operating system. Everything that needs a serial
// port, a thread, a lock, the clock, the machine's names or a raw file goes
// through these declarations; platform/posix and platform/win32 each
// implement all of them, and nothing outside platform/ includes an OS header.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vukra::platform {

// ---- serial port --------------------------------------------------------

// A HANDLE on Win32, a file descriptor on POSIX.
using NativePort = std::intptr_t;
inline constexpr NativePort kInvalidPort = -1;

// Opens an existing serial device for reading and writing, not shared.
// Returns kInvalidPort when it cannot be opened.
NativePort serial_open(const char* name);

// What the calling thread's last failed serial_open or serial_configure
// met; ask right after the failure.
enum class PortProblem { kOther, kMissing, kDenied, kNotSerial, kBusy };
PortProblem last_port_problem();

// Applies the fixed line settings at the given speed: 8 data bits, no
// parity, 1 stop bit, no flow control, DTR on, RTS off, event character
// 0xC0, and a total read time-out of timeout_ms per read with no interval
// time-out. Returns 0, or -1 when the port refuses (the port stays open: its
// owner decides).
int serial_configure(NativePort port, std::uint32_t baud, std::uint32_t timeout_ms);

// Watches the receive events and sizes both driver queues (65536 bytes).
void serial_setup_queues(NativePort port);

// Waits up to timeout_ms for input, then returns whatever is available, at
// most capacity bytes: a count above 0, 0 when the time-out ran out, -1 on
// failure. On Win32 the wait is the port's total read time-out, set to
// timeout_ms when it differs.
long serial_read_some(NativePort port, void* buffer, std::size_t capacity, std::uint32_t timeout_ms);

// Writes all count bytes in one blocking transfer; the count or -1.
long serial_write(NativePort port, const void* bytes, std::size_t count);

// Aborts pending transfers and empties both queues of the driver.
void serial_purge(NativePort port);

// Ends a break condition on the line.
void serial_clear_break(NativePort port);

// Purges, cancels outstanding transfers and releases the port.
void serial_close(NativePort port);

// A pseudo-terminal standing in for a serial line, both ends in raw mode:
// master is the device's end, path names the other end for an open by name.
// The slave end is held open too, so that the line is not hung up between
// the opens of whoever uses it; release it with serial_close. False where
// the system has no pseudo-terminals.
struct PseudoTerminal {
    NativePort master = kInvalidPort;
    NativePort slave = kInvalidPort;
    char path[256] = {};
};
bool pty_open(PseudoTerminal& pty);

// The system's text for the last error of this thread, in the default
// language (valid until the next call from the same thread).
const char* last_error_text();

// ---- TCP connection to a serial device server ---------------------------

// A connected stream socket (a SOCKET on Win32, a descriptor on POSIX),
// blocking, with Nagle's delay off: a request is one small write and waits
// for its reply. kInvalidPort when there is none.
//
// Connects to host (a name, an IPv4 or an IPv6 address without brackets)
// and service (a port number), trying each address the name resolves to,
// all within timeout_ms. On failure returns kInvalidPort and puts the
// reason for a person in why ("connection refused", "no such host").
NativePort tcp_connect(const char* host, const char* service, std::uint32_t timeout_ms, char* why,
                       std::size_t why_size);

// Waits up to timeout_ms for input, then returns what has arrived, at most
// capacity bytes: a count above 0, 0 when the time-out ran out, -1 when the
// connection is over (closed by the other end, or failed).
long tcp_read_some(NativePort socket, void* buffer, std::size_t capacity, std::uint32_t timeout_ms);

// Writes all count bytes; the count, or -1 when the connection is over.
long tcp_write(NativePort socket, const void* bytes, std::size_t count);

// Drops, without waiting, what has arrived (not what keeps arriving
// meanwhile). False when the connection turns out to be over.
bool tcp_drain(NativePort socket);

// False when the other end has closed the connection or it failed; what
// has arrived stays to be read.
bool tcp_connected(NativePort socket);

void tcp_close(NativePort socket);

// A listening socket on host and service (a name or address; "0.0.0.0",
// "::" or "*" for every address), with room for a few connections waiting
// to be accepted. kInvalidPort with the reason in why on failure.
NativePort tcp_listen(const char* host, const char* service, char* why, std::size_t why_size);
// The port number a listening socket was given (the system's choice when
// asked for port 0).
unsigned tcp_local_port(NativePort listener);
// Waits for the next connection and returns it (kInvalidPort on failure).
NativePort tcp_accept(NativePort listener);

// ---- locks --------------------------------------------------------------

// A recursive lock with a critical section's behaviour: the owning thread
// may enter again and must leave as often as it entered.
struct RecursiveLock {
    alignas(16) unsigned char storage[64];
};

void lock_init(RecursiveLock& lock);
void lock_enter(RecursiveLock& lock);
void lock_leave(RecursiveLock& lock);
// Enters when the lock is free or already the caller's; false otherwise.
bool lock_try_enter(RecursiveLock& lock);
void lock_destroy(RecursiveLock& lock);

class LockGuard {
public:
    explicit LockGuard(RecursiveLock& lock) : lock_(lock) { lock_enter(lock_); }
    ~LockGuard() { lock_leave(lock_); }
    LockGuard(const LockGuard&) = delete;
    LockGuard& operator=(const LockGuard&) = delete;

private:
    RecursiveLock& lock_;
};

// ---- threads ------------------------------------------------------------

using ThreadEntry = void (*)(void* argument);

struct Thread {
    std::intptr_t handle = 0; // 0 while no thread runs
    std::uint64_t id = 0;
};

// Starts entry(argument) on a new thread. Returns false if none could be made.
bool thread_start(Thread& thread, ThreadEntry entry, void* argument);

// Waits up to timeout_ms for the thread to end and releases it. Returns
// false on time-out; the thread is then left running and still owned.
bool thread_join(Thread& thread, std::uint32_t timeout_ms);

std::uint64_t current_thread_id();
void sleep_ms(std::uint32_t milliseconds);

// ---- the timer thread ----------------------------------------------------

// A one-shot timer on a thread of its own with a small message queue. The
// thread waits for messages (arm, disarm, re-arm, quit); while armed, it
// calls the expiry routine once the period has run out since the arming,
// then is no longer armed until someone arms it again. So a routine that
// re-arms at its end counts the next period from there.
//
// The block lives on the heap and is owned jointly by whoever started it
// and by its thread: timer_stop gives up the starter's share, the thread
// gives up its own when it ends, and the last one frees it. So a routine
// that stops its own timer (a host callback closing its session) neither
// waits for nor ends the thread it runs on, and the thread still has its
// block to finish with.
struct Timer;

// Called on the timer thread, without arguments: timer_current() tells
// which timer expired and timer_context() what it serves.
using TimerRoutine = void (*)();

// Makes the block and its thread, not armed. Null when either cannot be
// made.
Timer* timer_start(TimerRoutine routine, void* context, std::uint32_t period_ms);

// Arms: the routine runs once the period has passed. Retried every 100 ms
// while the thread's queue has no room. Nothing for a null or stopped timer.
void timer_arm(Timer* timer);
void timer_disarm(Timer* timer);
// Re-arms after an expiry (posted once).
void timer_rearm(Timer* timer);
// Takes effect at the next arming.
void timer_set_period(Timer* timer, std::uint32_t period_ms);

// Milliseconds left before the expiry while armed; the whole period while
// not armed; 0 for a null timer.
std::uint32_t timer_remaining(const Timer* timer);
bool timer_is_armed(const Timer* timer);
// True once timer_stop was called: the routine should leave what it serves
// alone from then on.
bool timer_stopping(const Timer* timer);

// The timer whose thread calls this, or null on any other thread.
Timer* timer_current();
void* timer_context(const Timer* timer);

// Stops the timer and gives up the caller's share of the block (the
// pointer must not be used afterwards). From another thread: asks the
// thread to quit and waits up to 2000 ms for it; a thread that has not
// ended by then is ended (Win32) or let go to end on its own (POSIX, where
// a thread cannot be ended from outside without leaving its locks held).
// From the timer's own thread: only disarms; the thread ends when the
// routine returns. Nothing for a null timer.
void timer_stop(Timer* timer);

// Sends a window the message (wParam 0, lParam the given value) without
// waiting for it to be handled. Windows only; elsewhere there are no
// windows and nothing happens.
void notify_window(void* window, std::uint32_t message, void* lparam);

// ---- requests to stop ----------------------------------------------------

// A program that must tidy up before it ends (a tool that serves until it
// is told to stop) holds back the requests to stop it: SIGINT, SIGTERM and
// SIGHUP on POSIX, Ctrl-C, Ctrl-Break and the console's closing on Win32.
// Call it before any thread is started; the threads inherit it.
void stop_requests_hold();
// Waits until such a request comes, then returns.
void stop_request_wait();

// ---- clock and names ----------------------------------------------------

struct LocalTime {
    int second, minute, hour, day, month /* 1 to 12 */, year;
};
LocalTime local_time();

// Milliseconds of a monotonic clock; wraps at 2^32.
std::uint32_t clock_ms();

// The computer's and the user's names, cut to size - 1 characters and
// NUL-terminated; an empty text when the system does not tell.
void computer_name(char* buffer, std::size_t size);
void user_name(char* buffer, std::size_t size);

// ---- memory handed to the host ------------------------------------------

// Zeroed memory that the host releases itself without calling back into
// the library: LocalAlloc on Win32 (the host calls LocalFree, or
// Marshal.FreeHGlobal from .NET), calloc elsewhere (the host calls free).
// Null when none is left.
void* host_alloc(std::size_t size);
void host_free(void* block);

// ---- low-level files ----------------------------------------------------

enum FileMode : unsigned {
    kFileRead = 1,
    kFileWrite = 2,
    kFileCreate = 4,
    kFileTruncate = 8,
    kFileExclusive = 16, // with kFileCreate: fail when the file exists
};

// Where image files live: the working directory, as the system writes it.
#ifdef _WIN32
inline constexpr const char* kWorkingDirPrefix = ".\\";
#else
inline constexpr const char* kWorkingDirPrefix = "./";
#endif

bool file_exists(const char* path);

enum SeekOrigin : int { kSeekSet = 0, kSeekCurrent = 1, kSeekEnd = 2 };

// Binary files, as the runtime's _open/_lseek/_read/_write/_close see them.
int file_open(const char* path, unsigned mode);
long file_seek(int file, long offset, SeekOrigin origin);
long file_read(int file, void* buffer, std::size_t count);
long file_write(int file, const void* bytes, std::size_t count);
int file_close(int file);

// ---- whole-file locks ---------------------------------------------------

// An exclusive lock on a file between programs (and between two holders in
// one program), held through a handle of its own: reading and writing the
// file through other handles is not hindered, so it protects only against
// others who ask for the lock too. Asking never waits.
struct FileLock {
    std::intptr_t handle = -1; // -1 while not held
};

enum class FileLockResult { kHeld, kInUse, kFailed };

// kInUse when someone else holds the file's lock; kFailed when the file
// cannot be opened or locked.
FileLockResult file_lock_exclusive(const char* path, FileLock& lock);
void file_unlock(FileLock& lock);
// How many names (hard links) the locked file has; 1 when the system does
// not tell.
std::uint32_t file_lock_names(const FileLock& lock);
// Removes one name of a file (its bytes stay while another name or an open
// handle holds them); false when it cannot.
bool file_remove(const char* path);

// Holds a file's lock for its own lifetime.
class FileLockHolder {
public:
    explicit FileLockHolder(const char* path) : result_(file_lock_exclusive(path, lock_)) {}
    ~FileLockHolder() { file_unlock(lock_); }
    FileLockHolder(const FileLockHolder&) = delete;
    FileLockHolder& operator=(const FileLockHolder&) = delete;
    FileLockResult result() const { return result_; }

private:
    FileLock lock_;
    FileLockResult result_;
};

} // namespace vukra::platform
