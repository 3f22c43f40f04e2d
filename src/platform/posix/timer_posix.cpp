// The timer thread on pthreads: a small message queue under a mutex and a
// condition variable, and a timed wait on the monotonic clock in place of
// a system timer.
#include "platform/platform.h"
#include "session/log.h"
#include "platform/posix/clock_after.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <new>
#include <pthread.h>
#include <time.h>

namespace vukra::platform {

namespace {

enum TimerMessage : int { kArm = 0x8003, kDisarm = 0x8004, kRearm = 0x8005, kQuit = 0x12 };

constexpr int kQueueSize = 16;
constexpr std::uint32_t kStopWaitMs = 2000;

} // namespace

struct Timer {
    TimerRoutine routine = nullptr;
    void* context = nullptr;
    std::atomic<std::uint32_t> period{0};
    std::atomic<std::uint32_t> start_tick{0};
    std::atomic<int> armed{0};
    std::atomic<bool> stopping{false};
    std::atomic<int> owners{2}; // the starter and the thread

    pthread_t thread{};
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t wake{};          // a message came (monotonic clock)
    bool ended = false;
    int queue[kQueueSize] = {};
    int head = 0, count = 0;
    timespec deadline{};
};

namespace {

thread_local Timer* current_timer = nullptr;

bool reached(const timespec& deadline) {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec > deadline.tv_sec || (now.tv_sec == deadline.tv_sec && now.tv_nsec >= deadline.tv_nsec);
}

void release(Timer* timer) {
    if (timer->owners.fetch_sub(1) != 1) return;
    pthread_cond_destroy(&timer->wake);
    pthread_mutex_destroy(&timer->mutex);
    delete timer;
}

// False when the queue has no room.
bool post(Timer* timer, int message) {
    pthread_mutex_lock(&timer->mutex);
    const bool room = timer->count < kQueueSize;
    if (room) {
        timer->queue[(timer->head + timer->count) % kQueueSize] = message;
        ++timer->count;
        pthread_cond_signal(&timer->wake);
    }
    pthread_mutex_unlock(&timer->mutex);
    return room;
}

// Under the mutex.
void set_armed(Timer* timer) {
    const std::uint32_t period = timer->period.load();
    timer->deadline = clock_after(CLOCK_MONOTONIC, period);
    timer->start_tick = clock_ms();
    timer->armed = 1;
}

void* run_timer(void* raw) {
    auto* timer = static_cast<Timer*>(raw);
    current_timer = timer;
    pthread_mutex_lock(&timer->mutex);
    bool quit = false;
    while (!quit && !timer->stopping.load()) {
        if (timer->count > 0) {
            const int message = timer->queue[timer->head];
            timer->head = (timer->head + 1) % kQueueSize;
            --timer->count;
            switch (message) {
            case kArm:
            case kRearm: set_armed(timer); break;
            case kDisarm: timer->armed = 0; break;
            case kQuit: quit = true; break;
            default: break;
            }
            continue;
        }
        if (timer->armed.load() == 0) {
            pthread_cond_wait(&timer->wake, &timer->mutex);
            continue;
        }
        if (!reached(timer->deadline)) {
            const int rc = pthread_cond_timedwait(&timer->wake, &timer->mutex, &timer->deadline);
            if (rc != ETIMEDOUT) continue; // a message, or woken early: look again
        }
        // Expired: one shot, then whatever the routine asks for.
        timer->armed = 0;
        pthread_mutex_unlock(&timer->mutex);
        if (timer->routine != nullptr) timer->routine();
        pthread_mutex_lock(&timer->mutex);
    }
    timer->armed = 0;
    pthread_mutex_unlock(&timer->mutex);
    log::print("timer thread exit\r\n");
    std::fflush(stdout);

    pthread_mutex_lock(&timer->mutex);
    timer->ended = true;
    pthread_mutex_unlock(&timer->mutex);
    current_timer = nullptr;
    release(timer);
    return nullptr;
}

} // namespace

Timer* timer_start(TimerRoutine routine, void* context, std::uint32_t period_ms) {
    auto* timer = new (std::nothrow) Timer;
    if (timer == nullptr) return nullptr;
    timer->routine = routine;
    timer->context = context;
    timer->period = period_ms;
    pthread_condattr_t attr;
    pthread_condattr_init(&attr);
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    pthread_cond_init(&timer->wake, &attr);
    pthread_condattr_destroy(&attr);
    if (pthread_create(&timer->thread, nullptr, run_timer, timer) != 0) {
        timer->owners = 1;
        release(timer);
        return nullptr;
    }
    return timer;
}

void timer_arm(Timer* timer) {
    if (timer == nullptr || timer->stopping.load()) return;
    while (!post(timer, kArm)) sleep_ms(100);
}

void timer_disarm(Timer* timer) {
    if (timer == nullptr || timer->stopping.load()) return;
    post(timer, kDisarm);
}

void timer_rearm(Timer* timer) {
    if (timer == nullptr || timer->stopping.load()) return;
    post(timer, kRearm);
}

void timer_set_period(Timer* timer, std::uint32_t period_ms) {
    if (timer != nullptr) timer->period = period_ms;
}

std::uint32_t timer_remaining(const Timer* timer) {
    if (timer == nullptr) return 0;
    const std::uint32_t period = timer->period.load();
    if (timer->armed.load() == 0) return period;
    const std::uint32_t elapsed = clock_ms() - timer->start_tick.load();
    return elapsed >= period ? 0 : period - elapsed;
}

bool timer_is_armed(const Timer* timer) { return timer != nullptr && timer->armed.load() != 0; }
bool timer_stopping(const Timer* timer) { return timer != nullptr && timer->stopping.load(); }
Timer* timer_current() { return current_timer; }
void* timer_context(const Timer* timer) { return timer == nullptr ? nullptr : timer->context; }

void timer_stop(Timer* timer) {
    if (timer == nullptr) return;
    if (current_timer == timer) {
        // The routine stops its own timer: disarm, and let the thread end
        // once the routine has returned.
        pthread_mutex_lock(&timer->mutex);
        timer->stopping = true;
        timer->armed = 0;
        pthread_mutex_unlock(&timer->mutex);
        pthread_detach(timer->thread);
        release(timer);
        return;
    }
    while (!post(timer, kQuit)) sleep_ms(10);
    timer->stopping = true;
    const timespec deadline = clock_after(CLOCK_MONOTONIC, kStopWaitMs);
    bool ended = false;
    {
        // Short steps on the monotonic clock, which a clock change does
        // not disturb.
        pthread_mutex_lock(&timer->mutex);
        while (!timer->ended && !reached(deadline)) {
            pthread_mutex_unlock(&timer->mutex);
            sleep_ms(5);
            pthread_mutex_lock(&timer->mutex);
        }
        ended = timer->ended;
        pthread_mutex_unlock(&timer->mutex);
    }
    if (ended)
        pthread_join(timer->thread, nullptr);
    else
        pthread_detach(timer->thread); // it ends on its own and frees its share
    release(timer);
}

void notify_window(void*, std::uint32_t, void*) {}

} // namespace vukra::platform
