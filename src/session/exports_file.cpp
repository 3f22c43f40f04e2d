// The file family of exports: each runs its operation in the protected
// frame.
#include "remotefs/file_operations.h"
#include "remotefs/image_transfer.h"
#include "session/protected_frame.h"

namespace session = vukra::session;
namespace fs = vukra::remotefs;

extern "C" {

MODBUS_VUKRA_API std::int32_t modbus_vukra_op_protected_null(modbus_vukra_session* s) {
    return session::protected_call(s, [&] { return fs::null_request(*s); });
}

MODBUS_VUKRA_API std::int32_t modbus_vukra_op_protected_mount(modbus_vukra_session* s) {
    return session::protected_call(s, [&] { return fs::mount(*s); });
}

MODBUS_VUKRA_API std::int32_t modbus_vukra_op_protected_lookup(modbus_vukra_session* s, const char* path,
                                                               modbus_vukra_attributes* attributes) {
    return session::protected_call(s, [&] { return fs::lookup(*s, path, attributes); });
}

MODBUS_VUKRA_API std::int32_t modbus_vukra_op_protected_read(modbus_vukra_session* s, void* buffer,
                                                             std::int32_t count) {
    return session::protected_call(s, [&] { return fs::read(*s, buffer, count); });
}

MODBUS_VUKRA_API std::int32_t modbus_vukra_op_protected_write(modbus_vukra_session* s, const void* buffer,
                                                              std::int32_t count) {
    return session::protected_call(s, [&] { return fs::write(*s, buffer, count); });
}

MODBUS_VUKRA_API std::int32_t modbus_vukra_op_protected_create(modbus_vukra_session* s, const char* path) {
    return session::protected_call(s, [&] { return fs::create(*s, path); });
}

MODBUS_VUKRA_API std::int32_t modbus_vukra_op_protected_remove(modbus_vukra_session* s, const char* path) {
    return session::protected_call(s, [&] { return fs::remove(*s, path); });
}

MODBUS_VUKRA_API std::int32_t modbus_vukra_op_protected_rename(modbus_vukra_session* s, const char* old_path,
                                                               const char* new_path) {
    return session::protected_call(s, [&] { return fs::rename(*s, old_path, new_path); });
}

MODBUS_VUKRA_API std::int32_t modbus_vukra_op_protected_mkdir(modbus_vukra_session* s, const char* path) {
    return session::protected_call(s, [&] { return fs::mkdir(*s, path); });
}

MODBUS_VUKRA_API std::int32_t modbus_vukra_op_protected_rmdir(modbus_vukra_session* s, const char* path) {
    return session::protected_call(s, [&] { return fs::rmdir(*s, path); });
}

MODBUS_VUKRA_API std::int32_t modbus_vukra_op_protected_readdir(modbus_vukra_session* s,
                                                                modbus_vukra_dir_entry** first) {
    return session::protected_call(s, [&] { return fs::readdir(*s, first); });
}

MODBUS_VUKRA_API std::int32_t modbus_vukra_op_protected_fsstat(modbus_vukra_session* s, const char* path,
                                                               modbus_vukra_usage* usage) {
    return session::protected_call(s, [&] { return fs::fsstat(*s, path, usage); });
}

MODBUS_VUKRA_API std::int32_t modbus_vukra_op_protected_mkfs(modbus_vukra_session* s,
                                                             const modbus_vukra_mkfs_params* params) {
    return session::protected_call(s, [&] { return fs::mkfs(*s, params); });
}

MODBUS_VUKRA_API std::int32_t modbus_vukra_op_protected_seek(modbus_vukra_session* s, std::uint32_t offset,
                                                             std::int32_t whence) {
    return session::protected_call(s, [&] { return fs::seek(*s, offset, whence); });
}

MODBUS_VUKRA_API std::int32_t modbus_vukra_op_protected_seekdir(modbus_vukra_session* s, std::int32_t cookie) {
    return session::protected_call(s, [&] { return fs::seekdir(*s, cookie); });
}

MODBUS_VUKRA_API std::int32_t modbus_vukra_op_protected_telldir(modbus_vukra_session* s) {
    return session::protected_call(s, [&] { return fs::telldir(*s); });
}

MODBUS_VUKRA_API std::int32_t modbus_vukra_op_protected_getfs(modbus_vukra_session* s) {
    return session::protected_call(s, [&] { return fs::getfs(*s); });
}

MODBUS_VUKRA_API std::int32_t modbus_vukra_op_protected_putfs(modbus_vukra_session* s) {
    return session::protected_call(s, [&] { return fs::putfs(*s); });
}

// Outside the op family: the put of what changed since the last get or put.
MODBUS_VUKRA_API std::int32_t modbus_vukra_protected_putfs_changed(modbus_vukra_session* s) {
    return session::protected_call(s, [&] { return fs::putfs_changed(*s); });
}

} // extern "C"
