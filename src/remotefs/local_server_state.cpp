// The local server's state and what its handlers share.
#include "kernel/kernel_errors.h"
#include "remotefs/local_server_internal.h"

#include <atomic>

namespace vukra::remotefs {

namespace server {

namespace {

State the_state;
ServerObserver observer = nullptr;

void close_file() {
    State& s = the_state;
    if (s.file < 0) return;
    kernel::close(s.file);
    const bool device = s.file_is_device;
    s.file = -1;
    s.file_path.clear();
    s.file_node = 0;
    s.file_is_device = false;
    if (device) notify(ServerEvent::kDeviceClosed);
}

void close_directory() {
    State& s = the_state;
    if (s.directory < 0) return;
    kernel::close(s.directory);
    s.directory = -1;
    s.directory_path.clear();
    s.directory_node = 0;
}

} // namespace

State& state() { return the_state; }

void notify(ServerEvent event) {
    if (observer != nullptr) observer(event);
}

void close_all() {
    close_directory();
    close_file();
}

void close_node(std::uint32_t node) {
    if (the_state.directory >= 0 && the_state.directory_node == node) close_directory();
    if (the_state.file >= 0 && the_state.file_node == node) close_file();
}

std::int32_t kernel_status() {
    const std::int32_t error = kernel::kernel_error();
    return error != 0 ? error : kServerKernelSilent;
}

// The directory reference is the kernel's descriptor plus one, so that it
// is never 0 while a directory is open.
FileHandle directory_handle() {
    return the_state.directory >= 0 ? FileHandle{static_cast<std::uint32_t>(the_state.directory) + 1, -1} : kNoHandle;
}

FileHandle file_handle() { return the_state.file >= 0 ? FileHandle{0, the_state.file} : kNoHandle; }

bool is_current_directory(const FileHandle& h) {
    return the_state.directory >= 0 && h.node == static_cast<std::uint32_t>(the_state.directory) + 1;
}

bool is_open_file(const FileHandle& h) { return the_state.file >= 0 && h.tag == the_state.file; }

// word 0: the node number; word 1: its kind (bit 0 regular file, bit 1
// device node, bit 2 also set for a character device, bit 3 directory,
// bit 4 fifo, bit 5 descriptor link); word 2: its size in bytes; word 3:
// its modification time.
FileAttributes attributes_of(const kernel::NodeStatus& status) {
    std::uint32_t kind = 0;
    switch (status.kind) {
    case kernel::kNodeFile: kind = 1; break;
    case kernel::kNodeBlockDevice: kind = 2; break;
    case kernel::kNodeCharDevice: kind = 2 | 4; break;
    case kernel::kNodeDirectory: kind = 8; break;
    case kernel::kNodeFifo: kind = 16; break;
    case kernel::kNodeLink: kind = 32; break;
    default: break;
    }
    return FileAttributes{{status.node, kind, status.size, status.time}};
}

std::uint32_t device_size(kernel::Descriptor fd) {
    std::int32_t size = 0;
    std::int32_t* where = &size;
    if (kernel::ioctl(fd, 1, &where) != 0) {
        kernel::clear_kernel_error(); // a driver without a size is no failure here
        return 0;
    }
    return size > 0 ? static_cast<std::uint32_t>(size) : 0;
}

bool attributes_of_open(bool directory, FileAttributes& out) {
    const State& s = the_state;
    kernel::NodeStatus status{};
    if (kernel::node_status(directory ? s.directory_node : s.file_node, status) != 0) return false;
    out = attributes_of(status);
    if (!directory && s.file_is_device) out.words[2] = device_size(s.file);
    return true;
}

namespace {
std::atomic<StatusVocabulary> vocabulary{nullptr};
} // namespace

std::int32_t answered_status(std::int32_t status) {
    const StatusVocabulary translate = vocabulary.load();
    return translate == nullptr || status == 0 ? status : translate(status);
}

std::int32_t give_status(std::uint8_t code, std::uint8_t* out, std::int32_t status) {
    const StatusReply reply{status};
    return give(code, out, reply);
}

} // namespace server

void set_server_observer(ServerObserver observer) { server::observer = observer; }

void set_server_statuses(StatusVocabulary translate) { server::vocabulary = translate; }

void local_server_close() { server::close_all(); }

void local_server_reset() {
    server::close_all();
    server::the_state = server::State{};
}

} // namespace vukra::remotefs
