// Requests to stop the program: the console's control events, which set an
// event that one thread waits for.
#include "platform/platform.h"

#include <windows.h>

namespace vukra::platform {

namespace {

HANDLE stop_event = nullptr;

BOOL WINAPI on_control(DWORD) {
    if (stop_event != nullptr) SetEvent(stop_event);
    // The program tidies up in its waiting thread; a closing console waits
    // for this handler, so it lets that thread finish first.
    Sleep(5000);
    return TRUE;
}

} // namespace

void stop_requests_hold() {
    if (stop_event == nullptr) stop_event = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    SetConsoleCtrlHandler(on_control, TRUE);
}

void stop_request_wait() {
    if (stop_event == nullptr) stop_requests_hold();
    WaitForSingleObject(stop_event, INFINITE);
}

} // namespace vukra::platform
