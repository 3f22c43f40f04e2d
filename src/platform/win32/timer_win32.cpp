// The timer thread on Win32: a thread with its own message queue and a
// thread timer (SetTimer without a window), driven by thread messages.
#include "platform/platform.h"
#include "session/log.h"

#include <atomic>
#include <cstdio>
#include <new>
#include <windows.h>

namespace vukra::platform {

namespace {

constexpr UINT kArm = 0x8003;
constexpr UINT kDisarm = 0x8004;
constexpr UINT kRearm = 0x8005;
constexpr DWORD kStopWaitMs = 2000;

} // namespace

struct Timer {
    std::atomic<UINT_PTR> timer_id{0};
    std::atomic<std::uint32_t> period{0};
    std::atomic<std::uint32_t> start_tick{0};
    TimerRoutine routine = nullptr;
    HANDLE thread = nullptr;
    DWORD thread_id = 0;
    std::atomic<int> pending{0};
    std::atomic<int> armed{0};
    void* context = nullptr;
    std::atomic<bool> stopping{false};
    std::atomic<int> owners{2}; // the starter and the thread
};

namespace {

// One slot for the process, made on the first start and kept; in each
// timer thread it holds a cell (never freed) that points to its timer.
std::atomic<DWORD> tls_index{TLS_OUT_OF_INDEXES};

void release(Timer* timer) {
    if (timer->owners.fetch_sub(1) != 1) return;
    if (timer->thread != nullptr) CloseHandle(timer->thread);
    delete timer;
}

void kill(Timer* timer) {
    const UINT_PTR id = timer->timer_id.exchange(0);
    if (id != 0) KillTimer(nullptr, id);
}

void drop_pending_expiry() {
    MSG msg;
    PeekMessageA(&msg, nullptr, WM_TIMER, WM_TIMER, PM_REMOVE);
}

void set(Timer* timer) {
    kill(timer);
    timer->timer_id = SetTimer(nullptr, 0, timer->period.load(), nullptr);
    timer->start_tick = GetTickCount();
    timer->pending = 0;
    timer->armed = 1;
}

DWORD WINAPI run_timer(LPVOID raw) {
    auto* timer = static_cast<Timer*>(raw);
    auto* cell = static_cast<Timer**>(LocalAlloc(LPTR, sizeof(Timer*)));
    if (cell == nullptr || !TlsSetValue(tls_index.load(), cell)) {
        release(timer);
        return static_cast<DWORD>(-1);
    }
    *cell = timer;
    MSG msg;
    PeekMessageA(&msg, nullptr, WM_USER, WM_USER, PM_NOREMOVE); // makes the queue

    while (!timer->stopping.load() && GetMessageA(&msg, nullptr, 0, 0) > 0) {
        switch (msg.message) {
        case kArm: set(timer); break;
        case kDisarm:
            kill(timer);
            timer->pending = 0;
            timer->armed = 0;
            drop_pending_expiry();
            break;
        case kRearm:
            kill(timer);
            drop_pending_expiry();
            set(timer);
            break;
        case WM_TIMER:
            kill(timer); // one shot
            drop_pending_expiry();
            timer->armed = 0;
            if (timer->routine != nullptr) timer->routine();
            timer->pending = 0;
            break;
        default: break;
        }
        DispatchMessageA(&msg);
    }
    kill(timer);
    timer->armed = 0;
    log::print("timer thread exit\r\n");
    std::fflush(stdout);
    *cell = nullptr;
    release(timer);
    return 0;
}

void post_until_taken(Timer* timer, UINT message) {
    while (!PostThreadMessageA(timer->thread_id, message, 0, 0)) Sleep(100);
}

} // namespace

Timer* timer_start(TimerRoutine routine, void* context, std::uint32_t period_ms) {
    if (tls_index.load() == TLS_OUT_OF_INDEXES) {
        const DWORD index = TlsAlloc();
        if (index == TLS_OUT_OF_INDEXES) return nullptr;
        DWORD none = TLS_OUT_OF_INDEXES;
        if (!tls_index.compare_exchange_strong(none, index)) TlsFree(index);
    }
    auto* timer = new (std::nothrow) Timer;
    if (timer == nullptr) return nullptr;
    timer->routine = routine;
    timer->context = context;
    timer->period = period_ms;
    timer->thread = CreateThread(nullptr, 0, run_timer, timer, 0, &timer->thread_id);
    if (timer->thread == nullptr) {
        delete timer;
        return nullptr;
    }
    Sleep(100); // the new thread makes its queue before anything is posted
    return timer;
}

void timer_arm(Timer* timer) {
    if (timer == nullptr || timer->stopping.load()) return;
    post_until_taken(timer, kArm);
}

void timer_disarm(Timer* timer) {
    if (timer == nullptr || timer->stopping.load()) return;
    PostThreadMessageA(timer->thread_id, kDisarm, 0, 0);
}

void timer_rearm(Timer* timer) {
    if (timer == nullptr || timer->stopping.load()) return;
    PostThreadMessageA(timer->thread_id, kRearm, 0, 0);
}

void timer_set_period(Timer* timer, std::uint32_t period_ms) {
    if (timer != nullptr) timer->period = period_ms;
}

std::uint32_t timer_remaining(const Timer* timer) {
    if (timer == nullptr) return 0;
    const std::uint32_t period = timer->period.load();
    if (timer->armed.load() == 0) return period;
    const std::uint32_t elapsed = GetTickCount() - timer->start_tick.load();
    return elapsed >= period ? 0 : period - elapsed; // an expiry not yet handled is due now
}

bool timer_is_armed(const Timer* timer) { return timer != nullptr && timer->armed.load() != 0; }
bool timer_stopping(const Timer* timer) { return timer != nullptr && timer->stopping.load(); }

Timer* timer_current() {
    const DWORD index = tls_index.load();
    if (index == TLS_OUT_OF_INDEXES) return nullptr;
    auto* cell = static_cast<Timer**>(TlsGetValue(index));
    return cell == nullptr ? nullptr : *cell;
}

void* timer_context(const Timer* timer) { return timer == nullptr ? nullptr : timer->context; }

void timer_stop(Timer* timer) {
    if (timer == nullptr) return;
    if (GetCurrentThreadId() == timer->thread_id) {
        // The routine stops its own timer: disarm only; the thread ends
        // once the routine has returned.
        kill(timer);
        timer->pending = 0;
        timer->armed = 0;
        timer->stopping = true;
        release(timer);
        return;
    }
    timer->stopping = true;
    PostThreadMessageA(timer->thread_id, WM_QUIT, 0, 0);
    if (WaitForSingleObject(timer->thread, kStopWaitMs) != WAIT_OBJECT_0) {
        Sleep(10);
        if (WaitForSingleObject(timer->thread, 0) != WAIT_OBJECT_0) {
            // The thread never gives up its share now.
            TerminateThread(timer->thread, 0);
            timer->owners.fetch_sub(1);
        }
    }
    release(timer);
}

void notify_window(void* window, std::uint32_t message, void* lparam) {
    if (window == nullptr) return;
    SendNotifyMessageA(static_cast<HWND>(window), message, 0, reinterpret_cast<LPARAM>(lparam));
}

} // namespace vukra::platform
