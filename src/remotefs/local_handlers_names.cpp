// The handlers that remove and rename by path. What the server holds open
// and is about to disappear is closed first.
#include "kernel/kernel_errors.h"
#include "remotefs/local_server_internal.h"

namespace vukra::remotefs::server {

namespace {

enum class Removal { kFile, kDirectory };

std::int32_t remove_path(Removal what, std::uint8_t code, std::uint8_t* out, const std::uint8_t* payload,
                         std::uint32_t length) {
    PathRequest request;
    std::string path;
    if (const std::int32_t refused = admit(code, payload, length, request)) return give_status(code, out, refused);
    if (!served_path(request.path, "", path)) return give_status(code, out, kServerOutside);
    notify(ServerEvent::kPathRequest);
    kernel::NodeStatus status{};
    if (kernel::stat(path.c_str(), status) != 0) return give_status(code, out, kernel_status());
    const bool directory = status.kind == kernel::kNodeDirectory;
    if (what == Removal::kFile && directory) return give_status(code, out, kServerIsDirectory);
    if (what == Removal::kDirectory && !directory) return give_status(code, out, kernel::kErrNotDirectory);
    // A node is not freed under an open descriptor.
    close_node(status.node);
    if (kernel::remove(path.c_str()) != 0) return give_status(code, out, kernel_status());
    notify(ServerEvent::kFilesChanged);
    return give_status(code, out, 0);
}

} // namespace

// A file or a node; a directory is refused (24).
std::int32_t remove_handler(std::uint8_t* out, const std::uint8_t* payload, std::uint32_t length) {
    return remove_path(Removal::kFile, kOpRemove, out, payload, length);
}

// An empty directory; anything else is refused (-56 not a directory, -20 not empty).
std::int32_t rmdir_handler(std::uint8_t* out, const std::uint8_t* payload, std::uint32_t length) {
    return remove_path(Removal::kDirectory, kOpRmdir, out, payload, length);
}

// The old name's object gets the new name; an existing object of the new
// name is replaced as the kernel's rename does it.
std::int32_t rename_handler(std::uint8_t* out, const std::uint8_t* payload, std::uint32_t length) {
    RenameRequest request;
    std::string from, to;
    if (const std::int32_t refused = admit(kOpRename, payload, length, request))
        return give_status(kOpRename, out, refused);
    if (!served_path(request.old_path, "", from) || !served_path(request.new_path, "", to))
        return give_status(kOpRename, out, kServerOutside);
    notify(ServerEvent::kPathRequest);
    // A node that the new name replaces is not freed under an open descriptor.
    kernel::NodeStatus moving{}, replaced{};
    if (kernel::stat(to.c_str(), replaced) == 0 && (kernel::stat(from.c_str(), moving) != 0 || moving.node != replaced.node))
        close_node(replaced.node);
    kernel::clear_kernel_error();
    if (kernel::rename(from.c_str(), to.c_str()) != 0) return give_status(kOpRename, out, kernel_status());
    notify(ServerEvent::kFilesChanged);
    return give_status(kOpRename, out, 0);
}

} // namespace vukra::remotefs::server
