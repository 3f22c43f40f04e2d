// The one file of vukra that differs by system: how Ctrl-C is caught.
#include "interrupt.h"

#include <atomic>
#include <csignal>

#if defined(_WIN32)
#include <windows.h>
#else
#include <unistd.h>
#endif

namespace vukra::cli {

namespace {

std::atomic<int> presses{0};
static_assert(std::atomic<int>::is_always_lock_free, "the handler may only touch a lock-free flag");

bool caught = false; // between interrupt_catch and interrupt_release
constexpr int kInterruptedStatus = 130; // what a shell reports for a program ended by SIGINT

#if defined(_WIN32)
BOOL WINAPI on_console_event(DWORD event) {
    if (event != CTRL_C_EVENT && event != CTRL_BREAK_EVENT) return FALSE;
    if (presses.fetch_add(1) > 0) ExitProcess(kInterruptedStatus);
    return TRUE;
}
#else
struct sigaction before {}; // restored by interrupt_release: SIGINT may have been ignored

extern "C" void on_sigint(int) {
    if (presses.fetch_add(1) > 0) _exit(kInterruptedStatus);
}
#endif

} // namespace

void interrupt_catch() {
    if (caught) return;
    caught = true;
#if defined(_WIN32)
    SetConsoleCtrlHandler(on_console_event, TRUE);
#else
    struct sigaction action {};
    action.sa_handler = on_sigint;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    sigaction(SIGINT, &action, &before);
#endif
}

void interrupt_release() {
    if (!caught) return;
    caught = false;
#if defined(_WIN32)
    SetConsoleCtrlHandler(on_console_event, FALSE);
#else
    sigaction(SIGINT, &before, nullptr);
#endif
}

bool interrupted() { return presses.load() > 0; }

} // namespace vukra::cli
