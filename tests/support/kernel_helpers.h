// Small helpers for kernel tests.
#pragma once

#include "kernel/vfs.h"

#include <set>
#include <string>
#include <vector>

namespace vukra::test {

// The names in a directory, in the order readdir gives them.
std::vector<std::string> list_dir(const char* path);
std::set<std::string> names_in(const char* path);

// Writes bytes to a new file at path; reads a whole file back.
bool put_file(const char* path, const std::string& bytes);
std::string get_file(const char* path);

// Gives the card device size bytes, makes a ufsx volume on it and mounts
// it at "/mem"; false when the volume is not made or not mounted. Inline:
// the fuzzers, which have no test support library, use it too.
inline bool mount_card(std::int32_t size, kernel::UfsMakeArgument make) {
    const kernel::Descriptor card = kernel::open("/dev/sdcard0", kernel::kOpenRead | kernel::kOpenWrite);
    kernel::ioctl(card, 2, &size);
    kernel::close(card);
    return kernel::mkfs(kernel::kUfsx, "/dev/sdcard0", &make) == 0 &&
           kernel::mount(kernel::kUfsx, "/dev/sdcard0", "/mem") == 0;
}

} // namespace vukra::test
