// The host application's start: loads modbus_vukra.dll, resolves all 30
// exports (and checks them against the library's own export list), opens
// a session on the port and runs the areas one after the other.
//
//   wine_host_app COM7
//
// COM7 leads to vukra-sim with a card image, replies paced by --baud so
// that a transfer lasts long enough to be followed and cancelled; the
// example register table is in the working directory as table.xml.
#include "host_app.h"

#include <cstdio>
#include <cstring>
#include <set>

namespace host {

Api api;
std::atomic<bool> called[kExportCount];

namespace {

int passed = 0;
int failed = 0;

// The library's export list, as the build names it.
const char* const kLibraryExports[] = {
#include "export_names.inc"
};

// Every export by GetProcAddress; false when any is missing.
bool resolve(HMODULE dll) {
    bool all = true;
    std::set<std::string> mine;
#define HOST_RESOLVE(name)                                                                                    \
    api.name = reinterpret_cast<decltype(api.name)>(                                                          \
        reinterpret_cast<void*>(GetProcAddress(dll, "modbus_vukra_op_" #name)));                             \
    all = check(api.name != nullptr, "GetProcAddress modbus_vukra_op_" #name) && all;                         \
    mine.insert("modbus_vukra_op_" #name);
    HOST_EXPORTS(HOST_RESOLVE)
#undef HOST_RESOLVE
    std::set<std::string> library; // the op family; the exports beyond it are not the host's
    for (const char* name : kLibraryExports)
        if (std::string(name).rfind("modbus_vukra_op_", 0) == 0) library.insert(name);
    check(mine.size() == 30 && mine == library, "the program's 30 names are the library's op family");
    return all;
}

} // namespace

bool check(bool ok, const std::string& what) {
    ok ? ++passed : ++failed;
    std::printf("%s - %s\n", ok ? "ok" : "FAIL", what.c_str());
    std::fflush(stdout);
    return ok;
}

Info info_of(modbus_vukra_session* s) {
    Info i;
    VK(session_info)(s, i.words);
    return i;
}

std::string read_rest(modbus_vukra_session* s) {
    std::string out;
    char buffer[1024];
    std::int32_t n;
    while ((n = VK(protected_read)(s, buffer, sizeof buffer)) > 0) out.append(buffer, static_cast<std::size_t>(n));
    return n == 0 ? out : "<read failed>";
}

bool create_with(modbus_vukra_session* s, const char* path, const std::string& text) {
    if (VK(protected_create)(s, path) != 0) return false;
    for (std::size_t done = 0; done < text.size();) {
        const std::int32_t n = VK(protected_write)(s, text.data() + done, static_cast<std::int32_t>(text.size() - done));
        if (n <= 0) return false;
        done += static_cast<std::size_t>(n);
    }
    return true;
}

std::string file_text(modbus_vukra_session* s, const char* path) {
    if (VK(protected_lookup)(s, path, nullptr) != 0) return "<no such file>";
    return read_rest(s);
}

} // namespace host

int main(int argc, char** argv) {
    using namespace host;
    const char* port = argc > 1 ? argv[1] : "COM7";
    HMODULE dll = LoadLibraryA("modbus_vukra.dll");
    if (check(dll != nullptr, "LoadLibrary modbus_vukra.dll") && resolve(dll)) {
        check(VK(session_error)(nullptr) == 4095 && VK(session_hwnd)(nullptr, nullptr, 0) == 4095 &&
                  VK(session_callback)(nullptr, nullptr) == 4095,
              "a null session: session_error, session_hwnd and session_callback answer 4095");
        modbus_vukra_session* s = VK(session_open)(port);
        if (check(s != nullptr, std::string("session_open ") + port)) {
            check(VK(session_open)(port) == nullptr, "a second session_open is refused");
            registers(s);
            window_and_callback(s);
            files_on_device(s);
            mirror(s);
            close_and_reopen(s, port);
        }
        bool all_called = true;
        for (int i = 0; i < kExportCount; ++i) all_called = all_called && called[i];
        check(all_called, "every one of the 30 exports was called");
        FreeLibrary(dll);
    }
    std::printf("%d passed, %d failed\n", passed, failed);
    return failed == 0 ? 0 : 1;
}
