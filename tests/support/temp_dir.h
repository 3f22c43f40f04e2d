// Runs a test in a fresh temporary working directory, removed afterwards.
#pragma once

#include <filesystem>

namespace vukra::test {

class TempWorkingDir {
public:
    TempWorkingDir();
    ~TempWorkingDir();
    TempWorkingDir(const TempWorkingDir&) = delete;
    TempWorkingDir& operator=(const TempWorkingDir&) = delete;
    const std::filesystem::path& path() const { return dir_; }

private:
    std::filesystem::path previous_;
    std::filesystem::path dir_;
};

} // namespace vukra::test
