// A Windows host application of modbus_vukra.dll, as a host writes one: the
// DLL loaded with LoadLibrary and its functions taken by GetProcAddress, a
// session on a COM port, the once-a-second message in a message-only
// window's loop, a listing whose entries are freed with LocalFree, and a
// getfs cancelled from a second thread. Each check prints "ok - ..." or
// "FAIL - ..."; the exit status says whether all held.
//
//   wine_host_app COM7
//
// COM7 leads to vukra-sim with a card image, replies paced by --baud so that
// a transfer lasts long enough to be cancelled; the example register table
// is in the working directory as table.xml.
#include "modbus_vukra.h"

#include <windows.h>

#include <atomic>
#include <cstdio>
#include <set>
#include <string>

namespace {

#define HOST_USED(X)                                                                                          \
    X(session_open) X(session_close) X(session_info) X(session_error) X(session_hwnd) X(cancelfs)             \
    X(protected_readreg) X(protected_mount) X(protected_lookup) X(protected_mkfs) X(protected_mkdir)          \
    X(protected_create) X(protected_write) X(protected_readdir) X(protected_getfs)

struct Api {
#define HOST_FIELD(name) decltype(&::modbus_vukra_op_##name) name = nullptr;
    HOST_USED(HOST_FIELD)
#undef HOST_FIELD
} api;

int failed = 0;

bool check(bool ok, const std::string& what) {
    failed += ok ? 0 : 1;
    std::printf("%s - %s\n", ok ? "ok" : "FAIL", what.c_str());
    std::fflush(stdout);
    return ok;
}

bool resolve(HMODULE dll) {
    bool all = true;
#define HOST_RESOLVE(name)                                                                                    \
    api.name = reinterpret_cast<decltype(api.name)>(                                                          \
        reinterpret_cast<void*>(GetProcAddress(dll, "modbus_vukra_op_" #name)));                             \
    all = check(api.name != nullptr, "GetProcAddress modbus_vukra_op_" #name) && all;
    HOST_USED(HOST_RESOLVE)
#undef HOST_RESOLVE
    return all;
}

// The message-only window and what its procedure received.
constexpr UINT kNotifyMessage = WM_APP + 7;
modbus_vukra_session* watched = nullptr;
int notified = 0;       // the message with wParam 0 and the session as lParam
int notified_wrong = 0; // the message with other parameters

LRESULT CALLBACK window_procedure(HWND window, UINT message, WPARAM wparam, LPARAM lparam) {
    if (message != kNotifyMessage) return DefWindowProcA(window, message, wparam, lparam);
    (wparam == 0 && reinterpret_cast<modbus_vukra_session*>(lparam) == watched ? notified : notified_wrong)++;
    return 0;
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

// Runs the message loop until the first notification, for at most ms.
void pump_until_notified(DWORD ms) {
    const DWORD start = GetTickCount();
    for (DWORD elapsed = 0; elapsed < ms && notified == 0; elapsed = GetTickCount() - start) {
        MsgWaitForMultipleObjects(0, nullptr, FALSE, ms - elapsed, QS_ALLINPUT);
        MSG msg;
        while (PeekMessageA(&msg, nullptr, 0, 0, PM_REMOVE)) DispatchMessageA(&msg);
    }
}

bool create_with(modbus_vukra_session* s, const std::string& path, const std::string& text) {
    if (api.protected_create(s, path.c_str()) != 0) return false;
    for (std::size_t done = 0; done < text.size();) {
        const std::int32_t n = api.protected_write(s, text.data() + done, static_cast<std::int32_t>(text.size() - done));
        if (n <= 0) return false;
        done += static_cast<std::size_t>(n);
    }
    return true;
}

// Every entry of the current directory, each freed as the header says.
std::set<std::string> listing(modbus_vukra_session* s, bool& freed) {
    std::set<std::string> names;
    freed = true;
    for (std::int32_t end = 0; end == 0;) {
        modbus_vukra_dir_entry* entry = nullptr;
        end = api.protected_readdir(s, &entry);
        while (entry != nullptr) {
            names.insert(entry->name);
            modbus_vukra_dir_entry* next = entry->next;
            freed = LocalFree(entry) == nullptr && freed;
            entry = next;
        }
    }
    return names;
}

// A second thread that cancels the getfs once it is in its data phase.
struct Canceller {
    modbus_vukra_session* s;
    std::atomic<bool> stop{false};
    std::int32_t result = 1;
};

DWORD WINAPI cancel_in_data_phase(void* argument) {
    Canceller& c = *static_cast<Canceller*>(argument);
    while (!c.stop) {
        std::int32_t info[MODBUS_VUKRA_INFO_WORDS] = {};
        api.session_info(c.s, info);
        if (info[MODBUS_VUKRA_INFO_DIRECTION] == 1 && info[MODBUS_VUKRA_INFO_PHASE] == 2) {
            c.result = api.cancelfs(c.s);
            break;
        }
        Sleep(1);
    }
    return 0;
}

void run(modbus_vukra_session* s) {
    float setpoint = 0;
    check(api.protected_readreg(s, "setpoint", &setpoint, 4) == 4 && setpoint == 21.5f,
          "readreg setpoint over the COM port: the table's 21.5");

    watched = s;
    HWND window = make_window();
    check(window != nullptr && api.session_hwnd(s, window, kNotifyMessage) == 0 && api.protected_mount(s) == 0,
          "a message-only window given to session_hwnd; mount");
    pump_until_notified(10000);
    check(notified > 0 && notified_wrong == 0, "the window's message loop got the message, with the session");

    // 256 blocks of 512 bytes in 32 groups, and enough data that a paced
    // getfs is still in its data phase when the second thread looks.
    const modbus_vukra_mkfs_params params{{64, 256, 512}};
    check(api.protected_lookup(s, "/dev/sdcard0", nullptr) == 0 && api.protected_mkfs(s, &params) == 0 &&
              api.protected_mkdir(s, "/mem/work") == 0 && create_with(s, "/mem/work/a.txt", "a") &&
              create_with(s, "/mem/work/big.bin", std::string(20000, 'b')),
          "mkfs, mkdir /mem/work, two files in it");
    bool freed = false;
    check(api.protected_lookup(s, "/mem/work", nullptr) == 0 &&
              listing(s, freed) == std::set<std::string>{"a.txt", "big.bin"} && freed,
          "readdir lists both files, each entry freed with LocalFree");

    Canceller c{s};
    HANDLE thread = CreateThread(nullptr, 0, cancel_in_data_phase, &c, 0, nullptr);
    const std::int32_t result = api.protected_getfs(s);
    c.stop = true;
    if (thread != nullptr) {
        WaitForSingleObject(thread, INFINITE);
        CloseHandle(thread);
    }
    check(c.result == 0 && result == -1 && api.session_error(s) == -11,
          "cancelfs from a second thread in the data phase: getfs -1, error -11");
    check(api.protected_lookup(s, "/mem/work/a.txt", nullptr) == 0, "after the cancel, /mem is the device's again");
    check(api.session_close(s) == 0, "session_close");
    if (window != nullptr) DestroyWindow(window);
}

} // namespace

int main(int argc, char** argv) {
    const char* port = argc > 1 ? argv[1] : "COM7";
    HMODULE dll = LoadLibraryA("modbus_vukra.dll");
    if (check(dll != nullptr, "LoadLibrary modbus_vukra.dll") && resolve(dll)) {
        modbus_vukra_session* s = api.session_open(port);
        if (check(s != nullptr, std::string("session_open ") + port)) run(s);
        FreeLibrary(dll);
    }
    std::printf("%d failed\n", failed);
    return failed == 0 ? 0 : 1;
}
