// The once-a-second notification: a message-only window whose message loop
// receives the session's message, and the host callback beside it; then
// the session closed (the notifications stop) and opened again, by name
// and on a handle the host opened itself.
#include "host_app.h"


namespace host {

namespace {

constexpr UINT kNotifyMessage = WM_APP + 7;

modbus_vukra_session* watched = nullptr;
int notified = 0;       // the message, with wParam 0 and the session as lParam
int notified_wrong = 0; // the message with other parameters
std::atomic<int> callbacks{0};
std::atomic<int> callbacks_wrong{0};
std::atomic<DWORD> callback_thread{0};

LRESULT CALLBACK window_procedure(HWND window, UINT message, WPARAM wparam, LPARAM lparam) {
    if (message == kNotifyMessage) {
        if (wparam == 0 && reinterpret_cast<modbus_vukra_session*>(lparam) == watched)
            ++notified;
        else
            ++notified_wrong;
        return 0;
    }
    return DefWindowProcA(window, message, wparam, lparam);
}

void callback(modbus_vukra_session* s) {
    (s == watched ? callbacks : callbacks_wrong)++;
    callback_thread = GetCurrentThreadId();
}

// Runs the message loop for ms milliseconds.
void pump(DWORD ms) {
    const DWORD start = GetTickCount();
    for (DWORD elapsed = 0; elapsed < ms; elapsed = GetTickCount() - start) {
        MsgWaitForMultipleObjects(0, nullptr, FALSE, ms - elapsed, QS_ALLINPUT);
        MSG msg;
        while (PeekMessageA(&msg, nullptr, 0, 0, PM_REMOVE)) {
            TranslateMessage(&msg);
            DispatchMessageA(&msg);
        }
    }
}

HWND make_window() {
    WNDCLASSA window_class{};
    window_class.lpfnWndProc = window_procedure;
    window_class.hInstance = GetModuleHandleA(nullptr);
    window_class.lpszClassName = "vukra_host_notifications";
    if (RegisterClassA(&window_class) == 0) return nullptr;
    return CreateWindowExA(0, window_class.lpszClassName, "", 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr,
                           window_class.hInstance, nullptr);
}

HWND window = nullptr;

} // namespace

void window_and_callback(modbus_vukra_session* s) {
    watched = s;
    window = make_window();
    if (!check(window != nullptr, "a message-only window (HWND_MESSAGE)")) return;
    check(VK(session_hwnd)(s, window, kNotifyMessage) == 0 && VK(session_callback)(s, callback) == 0,
          "session_hwnd, session_callback");
    pump(1500);
    check(notified == 0 && callbacks == 0, "no notification before the mount");

    check(VK(protected_null)(s) == 0 && VK(session_error)(s) == 0, "the status request (null) before the mount");
    check(VK(protected_mount)(s) == 0, "mount");
    // About one a second: over 3.5 s, between 2 and 6 of each.
    pump(3500);
    check(notified >= 2 && notified <= 6 && callbacks >= 2 && callbacks <= 6 && notified_wrong == 0 && callbacks_wrong == 0,
          "about once a second, the window's message loop got the message and the callback was called, with the session (" +
              std::to_string(notified) + ", " + std::to_string(callbacks.load()) + ")");
    check(callback_thread != 0 && callback_thread != GetCurrentThreadId(), "the callback runs on the timer thread");
}

void close_and_reopen(modbus_vukra_session* s, const char* port_name) {
    pump(200);
    check(VK(session_close)(s) == 0, "session_close");
    const int before = notified;
    const int callbacks_before = callbacks;
    pump(2500);
    check(notified == before && callbacks == callbacks_before, "no notification after the close");

    // The same port by name again: the device kept what was written.
    modbus_vukra_session* again = VK(session_open)(port_name);
    std::int32_t energy = 0;
    check(again != nullptr && VK(protected_readreg)(again, "energy", &energy, 4) == 4 && energy == -123456 &&
              VK(session_close)(again) == 0,
          "open again by name: the device kept energy; close again");

    // A handle the host opened; closing the session closes it.
    const std::string device = std::string("\\\\.\\") + port_name;
    HANDLE port = CreateFileA(device.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    if (!check(port != INVALID_HANDLE_VALUE, "CreateFileA on the port")) return;
    modbus_vukra_session* adopted = VK(session_open2)(port);
    float setpoint = 0;
    check(adopted != nullptr && VK(protected_readreg)(adopted, "setpoint", &setpoint, 4) == 4 && setpoint == -7.25f &&
              VK(session_close)(adopted) == 0,
          "session_open2 on the host's handle reads registers; close it");
    modbus_vukra_session* last = VK(session_open)(port_name);
    check(last != nullptr, "the port is free again after that close");
    if (last != nullptr) VK(session_close)(last);
    DestroyWindow(window);
}

} // namespace host
