// What the local server's handlers share: the server's state, the taking
// of a request and the giving of a reply, paths, handles and attributes.
#pragma once

#include "kernel/kernel_errors.h"
#include "kernel/vfs.h"
#include "remotefs/local_server.h"

#include <cstring>
#include <string>

namespace vukra::remotefs::server {

// The server's state, one for the process (created by the first mount).
struct State {
    bool made = false;
    std::uint32_t volume = 0; // 0: nothing mounted
    MountFlags flags{{0, 1, 1, 1}};
    // The current directory: its descriptor, its path, its node number.
    kernel::Descriptor directory = -1;
    std::string directory_path;
    std::uint32_t directory_node = 0;
    // The open file (a regular file or a device node).
    kernel::Descriptor file = -1;
    std::string file_path;
    std::uint32_t file_node = 0;
    bool file_is_device = false;
};
State& state();

// Tells the program that runs the server (when it asked to be told).
void notify(ServerEvent event);

// Closes the current directory and the open file.
void close_all();
// Closes whichever of them is the node (before it is removed or replaced).
void close_node(std::uint32_t node);

// A volume the server has mounted.
inline bool volume_ok(std::uint32_t volume) { return state().volume != 0 && volume == state().volume; }

// The status of a failed kernel call: its error, or kServerKernelSilent.
std::int32_t kernel_status();

// The reply handle of the current directory, of the open file, of nothing.
FileHandle directory_handle();
FileHandle file_handle();
inline constexpr FileHandle kNoHandle{0, -1};
// Whether a request's handle designates what the server holds open.
bool is_current_directory(const FileHandle& h);
bool is_open_file(const FileHandle& h);

// The four attribute words of a node (docs/remote-fs.md).
FileAttributes attributes_of(const kernel::NodeStatus& status);
// The attributes of the current directory (directory) or of the open
// file; a device node's size is the device's. False when the kernel fails.
bool attributes_of_open(bool directory, FileAttributes& out);
// The size a device driver tells for an open device node, or 0.
std::uint32_t device_size(kernel::Descriptor fd);

// A request's path made into a kernel path within the served root: "." and
// ".." taken by name, ".." never leaving the served root once the path has
// entered it; a relative path starts at base (the directory the request's
// handle designates, or the served root when base is empty). False when the
// result lies outside the served root.
bool served_path(const char* path, const std::string& base, std::string& out);

// Whether a decoded request holds together: a write's count stays within
// 1024 and within what its data item holds; other requests always do.
template <typename Request>
bool well_formed(const Request&) {
    return true;
}
inline bool well_formed(const WriteRequest& r) {
    return r.data.data != nullptr && r.count <= kMaxTransfer && r.data.length >= 0 &&
           r.count <= static_cast<std::uint32_t>(r.data.length);
}

// Decodes a request of code's table into a zeroed record; false when it
// does not decode or does not hold together.
template <typename Request>
bool take(std::uint8_t code, const std::uint8_t* payload, std::uint32_t length, Request& request) {
    std::memset(&request, 0, sizeof request);
    if (payload == nullptr) return false;
    std::uint32_t capacity = wire_size(kOperations[code].request);
    return decode(&request, payload, length, capacity, kOperations[code].request) >= 0 && well_formed(request);
}

// What every handler but null and mount does first: clears the kernel's
// error, takes the request and checks its volume. 0 when the request may
// go on, else its status (bad request, wrong volume).
template <typename Request>
std::int32_t admit(std::uint8_t code, const std::uint8_t* payload, std::uint32_t length, Request& request) {
    kernel::clear_kernel_error();
    if (!take(code, payload, length, request)) return kServerBadRequest;
    return volume_ok(request.volume) ? 0 : kServerWrongVolume;
}

// A status as the server answers it.
std::int32_t answered_status(std::int32_t status);

// Encodes reply with code's reply table into the reply buffer: the payload
// length, or -1 when it does not fit (the handlers keep their replies small
// enough that it always does).
// The status goes out in the server's vocabulary (set_server_statuses).
template <typename Reply>
std::int32_t give(std::uint8_t code, std::uint8_t* out, Reply reply) {
    reply.status = answered_status(reply.status);
    std::uint32_t size = 0xFFFFFFFFu; // the whole record, lists included
    return encode(out, kPayloadCapacity, &reply, size, kOperations[code].reply);
}

// A reply of the status table (null, remove, rename, rmdir, mkfs).
std::int32_t give_status(std::uint8_t code, std::uint8_t* out, std::int32_t status);

// The handlers, by operation code.
std::int32_t null_handler(std::uint8_t*, const std::uint8_t*, std::uint32_t);
std::int32_t mount_handler(std::uint8_t*, const std::uint8_t*, std::uint32_t);
std::int32_t getattr_handler(std::uint8_t*, const std::uint8_t*, std::uint32_t);
std::int32_t lookup_handler(std::uint8_t*, const std::uint8_t*, std::uint32_t);
std::int32_t read_handler(std::uint8_t*, const std::uint8_t*, std::uint32_t);
std::int32_t write_handler(std::uint8_t*, const std::uint8_t*, std::uint32_t);
std::int32_t create_handler(std::uint8_t*, const std::uint8_t*, std::uint32_t);
std::int32_t remove_handler(std::uint8_t*, const std::uint8_t*, std::uint32_t);
std::int32_t rename_handler(std::uint8_t*, const std::uint8_t*, std::uint32_t);
std::int32_t mkdir_handler(std::uint8_t*, const std::uint8_t*, std::uint32_t);
std::int32_t rmdir_handler(std::uint8_t*, const std::uint8_t*, std::uint32_t);
std::int32_t readdir_handler(std::uint8_t*, const std::uint8_t*, std::uint32_t);
std::int32_t fsstat_handler(std::uint8_t*, const std::uint8_t*, std::uint32_t);
std::int32_t mkfs_handler(std::uint8_t*, const std::uint8_t*, std::uint32_t);

} // namespace vukra::remotefs::server
