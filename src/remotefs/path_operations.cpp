// The operations that name their object by path, and null, mount and mkfs.
#include "remotefs/file_operations.h"
#include "remotefs/transport.h"

#include <cstring>

namespace vukra::remotefs {

namespace {

// Stores status in the error word: 0 on success, else -1.
std::int32_t settle(session::Session& s, std::int32_t status) {
    s.error = status;
    return status == 0 ? 0 : -1;
}

// lookup, create and mkdir: the object found becomes the current handle of
// the session used, at position 0, whatever the status.
std::int32_t resolve(session::Session& s, std::uint8_t code, const char* path, LookupReply& reply) {
    session::Session& t = route(s, path);
    const LookupRequest request{t.volume, current_handle(t), path};
    if (exchange(t, code, request, reply) < 0) return -1;
    t.directory_ref = reply.handle.node;
    t.file_descriptor = reply.handle.tag;
    t.position = 0;
    return settle(s, reply.status);
}

std::int32_t by_path(session::Session& s, std::uint8_t code, const char* path) {
    session::Session& t = route(s, path);
    const PathRequest request{t.volume, path};
    StatusReply reply;
    if (exchange(t, code, request, reply) < 0) return -1;
    return settle(s, reply.status);
}

} // namespace

std::int32_t null_request(session::Session& s) {
    const NullRequest request{s.volume};
    StatusReply reply;
    if (exchange(s, kOpNull, request, reply) < 0) return -1;
    return settle(s, reply.status);
}

std::int32_t mount(session::Session& s) {
    const MountRequest request{s.mount_path, s.request_flags};
    MountReply reply;
    if (exchange(s, kOpMount, request, reply) < 0) return -1;
    s.reply_flags = reply.flags;
    if (settle(s, reply.status) != 0) return -1;
    s.volume = reply.volume;
    // From now on the status request goes out once a second (a mirror
    // record has no timer).
    platform::timer_arm(s.timer);
    return 0;
}

std::int32_t lookup(session::Session& s, const char* path, modbus_vukra_attributes* attributes) {
    LookupReply reply;
    if (resolve(s, kOpLookup, path, reply) != 0) return -1;
    if (attributes != nullptr) std::memcpy(attributes->words, reply.attributes.words, sizeof attributes->words);
    return 0;
}

std::int32_t create(session::Session& s, const char* path) {
    LookupReply reply;
    return resolve(s, kOpCreate, path, reply);
}

std::int32_t mkdir(session::Session& s, const char* path) {
    LookupReply reply;
    return resolve(s, kOpMkdir, path, reply);
}

std::int32_t remove(session::Session& s, const char* path) { return by_path(s, kOpRemove, path); }
std::int32_t rmdir(session::Session& s, const char* path) { return by_path(s, kOpRmdir, path); }

std::int32_t rename(session::Session& s, const char* old_path, const char* new_path) {
    session::Session& t = route(s, old_path);
    const RenameRequest request{t.volume, old_path, new_path};
    StatusReply reply;
    if (exchange(t, kOpRename, request, reply) < 0) return -1;
    return settle(s, reply.status);
}

std::int32_t fsstat(session::Session& s, const char* path, modbus_vukra_usage* usage) {
    session::Session& t = route(s, usage != nullptr ? path : nullptr);
    const PathRequest request{t.volume, path};
    FsstatReply reply;
    if (exchange(t, kOpFsstat, request, reply) < 0) return -1;
    // Unlike the others, fsstat's status stays with the session that
    // carried it (the mirror's when routed).
    if (settle(t, reply.status) != 0) return -1;
    if (usage != nullptr) std::memcpy(usage->words, reply.usage.words, sizeof usage->words);
    return 0;
}

std::int32_t mkfs(session::Session& s, const modbus_vukra_mkfs_params* params) {
    if (params == nullptr) return -1;
    MkfsRequest request{s.volume, current_handle(s), {}};
    std::memcpy(request.params.words, params->words, sizeof request.params.words);
    StatusReply reply;
    if (exchange(s, kOpMkfs, request, reply) < 0) return -1;
    return settle(s, reply.status);
}

} // namespace vukra::remotefs
