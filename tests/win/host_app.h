// A Windows host application of modbus_vukra.dll, as a host writes one: the
// DLL loaded with LoadLibrary and its 30 exports taken by GetProcAddress.
// Every check prints one line, "ok - ..." or "FAIL - ..."; main's exit
// status says whether all held.
#pragma once

#include "modbus_vukra.h"

#include <windows.h>

#include <atomic>
#include <cstdint>
#include <string>

namespace host {

// The library's exports, by the name after "modbus_vukra_op_".
#define HOST_EXPORTS(X)                                                                                           \
    X(session_open) X(session_open2) X(session_close) X(session_info) X(session_error) X(session_hwnd)            \
    X(session_callback) X(cancelfs) X(protected_readreg) X(protected_writereg) X(register_btoa) X(register_atob) \
    X(protected_null) X(protected_mount) X(protected_lookup) X(protected_read) X(protected_write)                 \
    X(protected_create) X(protected_remove) X(protected_rename) X(protected_mkdir) X(protected_rmdir)             \
    X(protected_readdir) X(protected_fsstat) X(protected_mkfs) X(protected_seek) X(protected_seekdir)            \
    X(protected_telldir) X(protected_getfs) X(protected_putfs)

enum Export {
#define HOST_ENUM(name) k_##name,
    HOST_EXPORTS(HOST_ENUM)
#undef HOST_ENUM
    kExportCount
};

// The resolved addresses, typed as the header declares the functions.
struct Api {
#define HOST_FIELD(name) decltype(&::modbus_vukra_op_##name) name = nullptr;
    HOST_EXPORTS(HOST_FIELD)
#undef HOST_FIELD
};

extern Api api;
// Which exports the program has called, so that main can tell that it
// used every one.
extern std::atomic<bool> called[kExportCount];

// The export as a typed pointer, marked as called: VK(session_open)("COM5").
#define VK(name) (::host::called[::host::k_##name] = true, ::host::api.name)

bool check(bool ok, const std::string& what);

// The session's transfer words.
struct Info {
    std::int32_t words[MODBUS_VUKRA_INFO_WORDS] = {};
    std::int32_t direction() const { return words[MODBUS_VUKRA_INFO_DIRECTION]; }
    std::int32_t phase() const { return words[MODBUS_VUKRA_INFO_PHASE]; }
    std::int32_t progress() const { return words[MODBUS_VUKRA_INFO_PROGRESS]; }
};
Info info_of(modbus_vukra_session* s);

// The current file from the current position to its end, or "<read failed>".
std::string read_rest(modbus_vukra_session* s);
// Creates path and writes text into it: whether all of it went.
bool create_with(modbus_vukra_session* s, const char* path, const std::string& text);
// What path holds, read through lookup and read.
std::string file_text(modbus_vukra_session* s, const char* path);

// What files_on_device writes on the device: "/mem/work/data.txt" and
// "/mem/big.bin" (five groups of blocks for the transfers to move).
extern const std::string kDeviceText;
extern const std::string kDeviceBig;

// The areas of the program, in the order main runs them.
void registers(modbus_vukra_session* s);
void files_on_device(modbus_vukra_session* s);
void mirror(modbus_vukra_session* s);
// Notifications before and after the mount; mounts the session.
void window_and_callback(modbus_vukra_session* s);
// Closes s and opens the port again, by name and by handle.
void close_and_reopen(modbus_vukra_session* s, const char* port_name);

} // namespace host
