// The file operations of the remote filesystem, behind the protected_*
// exports (which hold the Session's operations lock around each). Each one
// fills its request from its arguments and the Session's current file
// state, runs one exchange, stores the reply's status in an error word and
// updates the current file state. seek, seekdir and telldir are answered
// from the Session alone.
//
// Routing: lookup, create, remove, rename, mkdir, rmdir and fsstat set
// mirror-selected from their path ("/mem" anywhere, while the mirror is
// enabled); read, write, readdir, seek, seekdir and telldir follow it; null,
// mount and mkfs always use the Session given. A routed operation reads and
// writes the mirror session's volume, handle and position, while its status
// goes to the Session given (fsstat's goes to the session that carried it).
#pragma once

#include "modbus_vukra.h"
#include "session/session.h"

#include <cstdint>

namespace vukra::remotefs {

// Local error words.
inline constexpr std::int32_t kNothingOpen = 21;
inline constexpr std::int32_t kNotAFile = -31;     // seek with a directory open
inline constexpr std::int32_t kNotADirectory = -56; // seekdir/telldir with a file open

// The session a routed operation uses: the mirror session while the
// mirror is enabled and selected, else s itself.
session::Session& routed(session::Session& s);
// Sets mirror-selected from path, then answers as routed().
session::Session& route(session::Session& s, const char* path);

std::int32_t null_request(session::Session& s);
std::int32_t mount(session::Session& s);
std::int32_t lookup(session::Session& s, const char* path, modbus_vukra_attributes* attributes);
std::int32_t create(session::Session& s, const char* path);
std::int32_t mkdir(session::Session& s, const char* path);
std::int32_t remove(session::Session& s, const char* path);
std::int32_t rmdir(session::Session& s, const char* path);
std::int32_t rename(session::Session& s, const char* old_path, const char* new_path);
std::int32_t read(session::Session& s, void* buffer, std::int32_t count);
std::int32_t write(session::Session& s, const void* buffer, std::int32_t count);
std::int32_t readdir(session::Session& s, modbus_vukra_dir_entry** first);
std::int32_t fsstat(session::Session& s, const char* path, modbus_vukra_usage* usage);
std::int32_t mkfs(session::Session& s, const modbus_vukra_mkfs_params* params);
std::int32_t seek(session::Session& s, std::uint32_t offset, std::int32_t whence);
std::int32_t seekdir(session::Session& s, std::int32_t cookie);
std::int32_t telldir(session::Session& s);

} // namespace vukra::remotefs
