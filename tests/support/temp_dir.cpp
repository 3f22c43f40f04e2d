#include "support/temp_dir.h"

#include <cstdlib>
#include <stdexcept>
#include <string>

namespace vukra::test {

TempWorkingDir::TempWorkingDir() : previous_(std::filesystem::current_path()) {
    std::string pattern = (std::filesystem::temp_directory_path() / "vukra-test-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    dir_ = pattern;
    std::filesystem::current_path(dir_);
}

TempWorkingDir::~TempWorkingDir() {
    std::error_code ignored;
    std::filesystem::current_path(previous_, ignored);
    std::filesystem::remove_all(dir_, ignored);
}

} // namespace vukra::test
