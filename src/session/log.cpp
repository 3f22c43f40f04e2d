#include "session/log.h"

#include "platform/platform.h"

#include <atomic>
#include <cstdio>
#include <string>

namespace vukra::log {

namespace {

// The sink and its context change together; one line is delivered at a time.
struct SinkLock {
    platform::RecursiveLock lock;
    SinkLock() { platform::lock_init(lock); }
};

platform::RecursiveLock& sink_lock() {
    static SinkLock one;
    return one.lock;
}

modbus_vukra_log_callback sink = nullptr;
void* sink_context = nullptr;
std::atomic<bool> has_sink{false};

// Each thread's line so far: a sink gets whole lines, however the library
// printed them (a frame's text, then "Ok (3 ms)\n").
thread_local std::string pending;

void deliver(const char* text, std::size_t count) {
    pending.append(text, count);
    std::size_t start = 0;
    for (std::size_t end; (end = pending.find('\n', start)) != std::string::npos; start = end + 1) {
        std::size_t stop = end;
        while (stop > start && pending[stop - 1] == '\r') --stop;
        const std::string line = pending.substr(start, stop - start);
        platform::LockGuard hold(sink_lock());
        if (sink != nullptr) sink(sink_context, line.c_str());
        else std::printf("%s\n", line.c_str());
    }
    pending.erase(0, start);
}

} // namespace

void vprint(const char* format, va_list arguments) {
    if (!has_sink.load() && pending.empty()) {
        std::vprintf(format, arguments);
        return;
    }
    char small[512];
    va_list again;
    va_copy(again, arguments);
    int n = std::vsnprintf(small, sizeof small, format, arguments);
    if (n < 0) {
        va_end(again);
        return;
    }
    if (static_cast<std::size_t>(n) < sizeof small) {
        deliver(small, static_cast<std::size_t>(n));
    } else {
        std::string big(static_cast<std::size_t>(n) + 1, '\0');
        std::vsnprintf(big.data(), big.size(), format, again);
        deliver(big.data(), static_cast<std::size_t>(n));
    }
    va_end(again);
}

void print(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    vprint(format, arguments);
    va_end(arguments);
}

void write(const char* text, std::size_t count) {
    if (!has_sink.load() && pending.empty()) {
        std::fwrite(text, 1, count, stdout);
        return;
    }
    deliver(text, count);
}

void set_sink(modbus_vukra_log_callback chosen, void* context) {
    platform::LockGuard hold(sink_lock());
    sink = chosen;
    sink_context = context;
    has_sink.store(chosen != nullptr);
}

} // namespace vukra::log
