// Critical sections and threads on Win32.
#include "platform/platform.h"

#include <new>
#include <windows.h>

namespace vukra::platform {

namespace {

CRITICAL_SECTION& section_of(RecursiveLock& lock) {
    static_assert(sizeof(CRITICAL_SECTION) <= sizeof(RecursiveLock::storage));
    return *std::launder(reinterpret_cast<CRITICAL_SECTION*>(lock.storage));
}

struct StartBlock {
    ThreadEntry entry;
    void* argument;
};

DWORD WINAPI run_thread(LPVOID raw) {
    StartBlock block = *static_cast<StartBlock*>(raw);
    delete static_cast<StartBlock*>(raw);
    block.entry(block.argument);
    return 0;
}

} // namespace

void lock_init(RecursiveLock& lock) {
    new (lock.storage) CRITICAL_SECTION;
    InitializeCriticalSection(&section_of(lock));
}
void lock_enter(RecursiveLock& lock) { EnterCriticalSection(&section_of(lock)); }
void lock_leave(RecursiveLock& lock) { LeaveCriticalSection(&section_of(lock)); }
bool lock_try_enter(RecursiveLock& lock) { return TryEnterCriticalSection(&section_of(lock)) != 0; }
void lock_destroy(RecursiveLock& lock) { DeleteCriticalSection(&section_of(lock)); }

bool thread_start(Thread& thread, ThreadEntry entry, void* argument) {
    auto* block = new (std::nothrow) StartBlock{entry, argument};
    if (block == nullptr) return false;
    DWORD id = 0;
    HANDLE h = CreateThread(nullptr, 0, run_thread, block, 0, &id);
    if (h == nullptr) {
        delete block;
        return false;
    }
    thread.handle = reinterpret_cast<std::intptr_t>(h);
    thread.id = id;
    return true;
}

bool thread_join(Thread& thread, std::uint32_t timeout_ms) {
    HANDLE h = reinterpret_cast<HANDLE>(thread.handle);
    if (h == nullptr) return true;
    if (WaitForSingleObject(h, timeout_ms) != WAIT_OBJECT_0) return false;
    CloseHandle(h);
    thread.handle = 0;
    thread.id = 0;
    return true;
}

std::uint64_t current_thread_id() { return GetCurrentThreadId(); }

void sleep_ms(std::uint32_t milliseconds) { Sleep(milliseconds); }

std::uint32_t clock_ms() { return GetTickCount(); }

LocalTime local_time() {
    SYSTEMTIME t{};
    GetLocalTime(&t);
    return LocalTime{t.wSecond, t.wMinute, t.wHour, t.wDay, t.wMonth, t.wYear};
}

} // namespace vukra::platform
