// What the ufs benchmarks share: a scratch directory holding the SD card
// image, the kernel started there with a fresh volume of the given number
// of nodes on "/mem", and a stopwatch.
#pragma once

#include "kernel/kernel_diagnostics.h"
#include "kernel/kernel_start.h"
#include "kernel/vfs.h"

#include <chrono>
#include <filesystem>

namespace vukra::bench {

using Clock = std::chrono::steady_clock;

inline double seconds_since(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// Unmounts and removes the scratch directory at the end.
struct UfsBenchVolume {
    std::filesystem::path dir;
    bool ok = false;

    UfsBenchVolume(const char* name, std::uint32_t nodes) : dir(std::filesystem::temp_directory_path() / name) {
        std::filesystem::create_directories(dir);
        std::filesystem::current_path(dir);
        std::filesystem::remove("sdcard0.o");
        kernel::set_diagnostic_stream(nullptr);
        kernel::kernel_start();
        kernel::UfsMakeArgument make{nodes, 0xFFFFFFFF, 512, 0x800000};
        ok = kernel::mkfs(kernel::kUfsx, "/dev/sdcard0", &make) == 0 &&
             kernel::mount(kernel::kUfsx, "/dev/sdcard0", "/mem") == 0;
    }
    ~UfsBenchVolume() {
        if (ok) kernel::umount("/mem");
        std::filesystem::current_path(dir.parent_path());
        std::filesystem::remove_all(dir);
    }
    UfsBenchVolume(const UfsBenchVolume&) = delete;
    UfsBenchVolume& operator=(const UfsBenchVolume&) = delete;
};

} // namespace vukra::bench
