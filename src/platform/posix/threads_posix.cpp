// Locks and threads on pthreads.
#include "platform/platform.h"
#include "platform/posix/clock_after.h"

#include <cerrno>
#include <ctime>
#include <new>
#include <pthread.h>
#include <time.h>

namespace vukra::platform {

#ifdef __linux__
// The clock past 2038 on every build (32-bit: _TIME_BITS=64).
static_assert(sizeof(std::time_t) == 8, "a 32-bit build needs a 64-bit time_t");
#endif

namespace {

pthread_mutex_t& mutex_of(RecursiveLock& lock) {
    static_assert(sizeof(pthread_mutex_t) <= sizeof(RecursiveLock::storage));
    return *std::launder(reinterpret_cast<pthread_mutex_t*>(lock.storage));
}

// What a thread needs to start and to be waited for with a time limit
// (pthread_join has none, so the thread signals its own end).
struct ThreadState {
    ThreadEntry entry;
    void* argument;
    pthread_t thread;
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t ended_cond = PTHREAD_COND_INITIALIZER;
    bool ended = false;
};

void* run_thread(void* raw) {
    auto* state = static_cast<ThreadState*>(raw);
    state->entry(state->argument);
    pthread_mutex_lock(&state->mutex);
    state->ended = true;
    pthread_cond_broadcast(&state->ended_cond);
    pthread_mutex_unlock(&state->mutex);
    return nullptr;
}

} // namespace

void lock_init(RecursiveLock& lock) {
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    new (lock.storage) pthread_mutex_t;
    pthread_mutex_init(&mutex_of(lock), &attr);
    pthread_mutexattr_destroy(&attr);
}

void lock_enter(RecursiveLock& lock) { pthread_mutex_lock(&mutex_of(lock)); }
void lock_leave(RecursiveLock& lock) { pthread_mutex_unlock(&mutex_of(lock)); }
bool lock_try_enter(RecursiveLock& lock) { return pthread_mutex_trylock(&mutex_of(lock)) == 0; }
void lock_destroy(RecursiveLock& lock) { pthread_mutex_destroy(&mutex_of(lock)); }

bool thread_start(Thread& thread, ThreadEntry entry, void* argument) {
    auto* state = new (std::nothrow) ThreadState{entry, argument, {}};
    if (state == nullptr) return false;
    if (pthread_create(&state->thread, nullptr, run_thread, state) != 0) {
        delete state;
        return false;
    }
    thread.handle = reinterpret_cast<std::intptr_t>(state);
    thread.id = static_cast<std::uint64_t>(state->thread);
    return true;
}

bool thread_join(Thread& thread, std::uint32_t timeout_ms) {
    auto* state = reinterpret_cast<ThreadState*>(thread.handle);
    if (state == nullptr) return true;
    timespec deadline = clock_after(CLOCK_REALTIME, timeout_ms);
    pthread_mutex_lock(&state->mutex);
    int rc = 0;
    while (!state->ended && rc != ETIMEDOUT) rc = pthread_cond_timedwait(&state->ended_cond, &state->mutex, &deadline);
    bool ended = state->ended;
    pthread_mutex_unlock(&state->mutex);
    if (!ended) return false;
    pthread_join(state->thread, nullptr);
    delete state;
    thread.handle = 0;
    thread.id = 0;
    return true;
}

std::uint64_t current_thread_id() { return static_cast<std::uint64_t>(pthread_self()); }

void sleep_ms(std::uint32_t milliseconds) {
    timespec t{static_cast<time_t>(milliseconds / 1000), static_cast<long>(milliseconds % 1000) * 1000000L};
    while (nanosleep(&t, &t) != 0 && errno == EINTR) {
    }
}

LocalTime local_time() {
    std::time_t now = std::time(nullptr);
    std::tm t{};
    localtime_r(&now, &t);
    return LocalTime{t.tm_sec, t.tm_min, t.tm_hour, t.tm_mday, t.tm_mon + 1, t.tm_year + 1900};
}

std::uint32_t clock_ms() {
    timespec t{};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<std::uint32_t>(static_cast<std::uint64_t>(t.tv_sec) * 1000u +
                                      static_cast<std::uint64_t>(t.tv_nsec) / 1000000u);
}

} // namespace vukra::platform
