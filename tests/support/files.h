// Small file helpers for tests.
#pragma once

#include <string>

namespace vukra::test {

void write_file(const std::string& path, const std::string& text);
std::string read_file(const std::string& path);

} // namespace vukra::test
