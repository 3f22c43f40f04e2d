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

} // namespace vukra::test
