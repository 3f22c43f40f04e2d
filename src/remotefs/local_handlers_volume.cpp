// The handlers that concern the volume as a whole: null, mount, getattr,
// fsstat and mkfs.
#include "kernel/kernel_errors.h"
#include "remotefs/local_server_internal.h"

namespace vukra::remotefs::server {

std::int32_t null_handler(std::uint8_t* out, const std::uint8_t*, std::uint32_t) {
    return give_status(kOpNull, out, 0);
}

// The first mount makes the server's state; every mount closes what the
// previous one left open. Flags 0, 1, 1 (the first three bytes) mount
// volume 1; anything else, or a request that does not decode, is refused
// with volume 0 and status 23, and leaves nothing mounted.
std::int32_t mount_handler(std::uint8_t* out, const std::uint8_t* payload, std::uint32_t length) {
    State& s = state();
    if (!s.made) {
        s = State{};
        s.made = true;
    }
    close_all();
    MountRequest request;
    const bool accepted = take(kOpMount, payload, length, request) && request.flags.bytes[0] == 0 &&
                          request.flags.bytes[1] == 1 && request.flags.bytes[2] == 1;
    s.volume = accepted ? 1 : 0;
    const MountReply reply{s.volume, s.flags, accepted ? 0 : kServerMountRefused};
    return give(kOpMount, out, reply);
}

std::int32_t getattr_handler(std::uint8_t* out, const std::uint8_t* payload, std::uint32_t length) {
    GetattrRequest request;
    GetattrReply reply{};
    reply.status = admit(kOpGetattr, payload, length, request);
    const bool directory = is_current_directory(request.handle);
    if (reply.status == 0 && !directory && !is_open_file(request.handle)) reply.status = kServerNotOpen;
    if (reply.status == 0 && !attributes_of_open(directory, reply.attributes)) reply.status = kernel_status();
    return give(kOpGetattr, out, reply);
}

// Usage words: block size, blocks, free blocks, free nodes.
std::int32_t fsstat_handler(std::uint8_t* out, const std::uint8_t* payload, std::uint32_t length) {
    PathRequest request;
    FsstatReply reply{};
    reply.status = admit(kOpFsstat, payload, length, request);
    std::string path;
    if (reply.status == 0 && !served_path(request.path, "", path)) reply.status = kServerOutside;
    if (reply.status == 0) {
        notify(ServerEvent::kPathRequest);
        kernel::FsStatus usage{};
        if (kernel::fsstat(path.c_str(), usage) != 0)
            reply.status = kernel_status();
        else
            reply.usage = FsUsage{{usage.block_size, usage.blocks, usage.free_blocks, usage.free_nodes}};
    }
    return give(kOpFsstat, out, reply);
}

// A new ufsx volume on the device node the handle designates: word 0 the
// nodes (0: 256), word 1 the blocks (0: as many as fit), word 2 the block
// size (0: 512; ufs takes sizes other than 16 to 512 as 32).
std::int32_t mkfs_handler(std::uint8_t* out, const std::uint8_t* payload, std::uint32_t length) {
    MkfsRequest request;
    if (const std::int32_t refused = admit(kOpMkfs, payload, length, request))
        return give_status(kOpMkfs, out, refused);
    const State& s = state();
    if (!is_open_file(request.handle)) return give_status(kOpMkfs, out, kServerNotOpen);
    if (!s.file_is_device) return give_status(kOpMkfs, out, kServerNotDevice);
    const std::uint32_t* w = request.params.words;
    kernel::UfsMakeArgument make{w[0] != 0 ? w[0] : 256, w[1] != 0 ? w[1] : 0xFFFFFFFFu, w[2] != 0 ? w[2] : 512,
                                 device_size(s.file)};
    notify(ServerEvent::kDeviceWrite);
    const int made = kernel::mkfs(kernel::kUfsx, s.file_path.c_str(), &make);
    return give_status(kOpMkfs, out, made == 0 ? 0 : kernel_status());
}

} // namespace vukra::remotefs::server
