// The local server's table of handlers, indexed by operation code.
#include "remotefs/local_server.h"
#include "remotefs/local_server_internal.h"

namespace vukra::remotefs {

namespace {

// Codes 3 and 14 name no operation: refused at once, without a reply.
std::int32_t refuse(std::uint8_t*, const std::uint8_t*, std::uint32_t) { return -1; }

constexpr LocalHandler kHandlers[kOperationCodes] = {
    server::null_handler,    // 0
    server::mount_handler,   // 1
    server::getattr_handler, // 2
    refuse,                  // 3
    server::lookup_handler,  // 4
    server::read_handler,    // 5
    server::write_handler,   // 6
    server::create_handler,  // 7
    server::remove_handler,  // 8
    server::rename_handler,  // 9
    server::mkdir_handler,   // 10
    server::rmdir_handler,   // 11
    server::readdir_handler, // 12
    server::fsstat_handler,  // 13
    refuse,                  // 14
    server::mkfs_handler,    // 15
};

} // namespace

std::int32_t local_serve(std::uint8_t code, std::uint8_t* reply, const std::uint8_t* request, std::uint32_t length) {
    if (code >= kOperationCodes) return -1;
    return kHandlers[code](reply, request, length);
}

} // namespace vukra::remotefs
