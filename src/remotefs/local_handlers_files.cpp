// The handlers that designate an object (lookup, create, mkdir) and those
// that move its bytes (read, write).
//
// The server holds at most one current directory and one open file. Each
// lookup, create or mkdir closes both and opens what it names: a directory
// becomes the current directory (handle: its reference, no descriptor),
// anything else the open file (handle: no reference, its descriptor).
#include "kernel/kernel_errors.h"
#include "remotefs/local_server_internal.h"

#include <algorithm>

namespace vukra::remotefs::server {

namespace {

enum class Designation { kLookup, kCreate, kMkdir };

bool is_device(std::uint8_t kind) { return kind == kernel::kNodeBlockDevice || kind == kernel::kNodeCharDevice; }

// Opens path as the current directory or the open file; the status.
std::int32_t open_designated(const std::string& path) {
    State& s = state();
    kernel::NodeStatus status{};
    if (kernel::stat(path.c_str(), status) != 0) return kernel_status();
    if (status.kind == kernel::kNodeDirectory) {
        const kernel::Descriptor fd = kernel::open(path.c_str(), kernel::kOpenRead);
        if (fd < 0) return kernel_status();
        s.directory = fd;
        s.directory_path = path;
        s.directory_node = status.node;
        return 0;
    }
    const kernel::Descriptor fd = kernel::open(path.c_str(), kernel::kOpenRead | kernel::kOpenWrite);
    if (fd < 0) return kernel_status();
    s.file = fd;
    s.file_path = path;
    s.file_node = status.node;
    s.file_is_device = is_device(status.kind);
    return 0;
}

// create: a new empty regular file; an existing one is emptied, anything
// else of that name is refused (-20).
std::int32_t make_file(const std::string& path) {
    kernel::NodeStatus status{};
    if (kernel::stat(path.c_str(), status) == 0) {
        if (status.kind != kernel::kNodeFile) return kernel::kErrExists;
        close_node(status.node);
    }
    kernel::clear_kernel_error();
    const kernel::Descriptor fd = kernel::open(
        path.c_str(), kernel::kOpenCreate | kernel::kOpenRead | kernel::kOpenWrite | kernel::kOpenTruncate);
    if (fd < 0) return kernel_status();
    kernel::close(fd);
    return 0;
}

std::int32_t designate(Designation what, std::uint8_t code, std::uint8_t* out, const std::uint8_t* payload,
                       std::uint32_t length) {
    LookupRequest request;
    LookupReply reply{kNoHandle, {}, admit(code, payload, length, request)};
    const State& s = state();
    std::string path;
    if (reply.status == 0 && request.path != nullptr && request.path[0] != '/' && request.directory.node != 0 &&
        !is_current_directory(request.directory))
        reply.status = kServerNotOpen;
    if (reply.status == 0 &&
        !served_path(request.path, is_current_directory(request.directory) ? s.directory_path : "", path))
        reply.status = kServerOutside;
    // Whatever the outcome, what was open is closed: the host takes the
    // reply's handle as its own.
    if (reply.status == 0) notify(ServerEvent::kPathRequest);
    close_all();
    if (reply.status == 0 && what == Designation::kCreate) reply.status = make_file(path);
    if (reply.status == 0 && what == Designation::kMkdir && kernel::mkdir(path.c_str()) != 0)
        reply.status = kernel_status();
    if (what != Designation::kLookup && reply.status == 0) notify(ServerEvent::kFilesChanged);
    if (reply.status == 0) reply.status = open_designated(path);
    if (reply.status == 0) {
        const bool directory = s.directory >= 0;
        reply.handle = directory ? directory_handle() : file_handle();
        if (!attributes_of_open(directory, reply.attributes)) {
            reply.status = kernel_status();
            close_all();
            reply.handle = kNoHandle;
        }
    }
    return give(code, out, reply);
}

alignas(8) std::uint8_t read_area[kMaxTransfer];

} // namespace

// The lookup status of a failed kernel call is its error, or 17 when it
// recorded none.
std::int32_t lookup_handler(std::uint8_t* out, const std::uint8_t* payload, std::uint32_t length) {
    return designate(Designation::kLookup, kOpLookup, out, payload, length);
}

std::int32_t create_handler(std::uint8_t* out, const std::uint8_t* payload, std::uint32_t length) {
    return designate(Designation::kCreate, kOpCreate, out, payload, length);
}

std::int32_t mkdir_handler(std::uint8_t* out, const std::uint8_t* payload, std::uint32_t length) {
    return designate(Designation::kMkdir, kOpMkdir, out, payload, length);
}

// At most 1024 bytes from the position; end-of-file when fewer came than
// were asked for. The status is written naturally aligned behind the flag.
std::int32_t read_handler(std::uint8_t* out, const std::uint8_t* payload, std::uint32_t length) {
    ReadRequest request;
    ReadReply reply{};
    reply.data = WireBuffer{0, read_area};
    reply.status = admit(kOpRead, payload, length, request);
    const State& s = state();
    if (reply.status == 0 && !is_open_file(request.handle)) reply.status = kServerNotOpen;
    if (reply.status == 0) {
        const std::uint32_t asked = std::min(request.count, kMaxTransfer);
        if (s.file_is_device) notify(ServerEvent::kDeviceRead);
        long got = -1;
        if (kernel::lseek(s.file, request.position, 0) >= 0) got = kernel::read(s.file, read_area, asked);
        if (got < 0) {
            reply.status = kernel_status();
        } else {
            reply.count = static_cast<std::uint32_t>(got);
            reply.data.length = static_cast<std::int32_t>(got);
            reply.eof = reply.count < asked ? 1 : 0;
        }
    }
    return give(kOpRead, out, reply);
}

// The request's count (at most 1024, and no more than its data item
// holds) at the position.
std::int32_t write_handler(std::uint8_t* out, const std::uint8_t* payload, std::uint32_t length) {
    WriteRequest request;
    WriteReply reply{0, admit(kOpWrite, payload, length, request)};
    const State& s = state();
    if (reply.status == 0 && !is_open_file(request.handle)) reply.status = kServerNotOpen;
    if (reply.status == 0) {
        if (s.file_is_device) notify(ServerEvent::kDeviceWrite);
        long put = -1;
        if (kernel::lseek(s.file, request.position, 0) >= 0) put = kernel::write(s.file, request.data.data, request.count);
        if (put < 0)
            reply.status = kernel_status();
        else
            reply.count = static_cast<std::uint32_t>(put);
        if (!s.file_is_device) notify(ServerEvent::kFilesChanged);
    }
    return give(kOpWrite, out, reply);
}

} // namespace vukra::remotefs::server
