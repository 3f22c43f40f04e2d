// What the programs that run the device's kernel on the host (vukra-sim,
// vukra-ufs) share about the SD card image: its sizes, a new image, and the
// scratch directory the kernel runs in, where "sdcard0.o" is the image.
#pragma once

#include "kernel/vfs.h"

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <stdlib.h> // mkdtemp
#include <string>
#include <system_error>

namespace vukra::tools {

inline constexpr std::uintmax_t kNewImageSize = 0x800004; // the card's 8 MiB and its end marker
inline constexpr std::int32_t kDefaultCardSize = 0x800000;

// The card's size in the image's bytes (less a trailing end marker).
inline std::int32_t card_size(std::uintmax_t bytes) {
    return static_cast<std::int32_t>(bytes % 512 == 4 ? bytes - 4 : bytes);
}

// A new image file of the new card's size where there was none; false
// (and no file left) when it cannot be made.
inline bool make_image(const std::filesystem::path& image) {
    std::FILE* fresh = std::fopen(image.c_str(), "wbx");
    if (fresh == nullptr) return false;
    std::fclose(fresh);
    std::error_code e;
    std::filesystem::resize_file(image, kNewImageSize, e);
    if (e) std::filesystem::remove(image, e);
    return std::filesystem::exists(image, e);
}

// Tells the started kernel's card its size, when not the default one.
inline void size_card(std::int32_t size) {
    if (size == kDefaultCardSize) return;
    kernel::Descriptor card = kernel::open("/dev/sdcard0", kernel::kOpenRead | kernel::kOpenWrite);
    if (card < 0) return;
    kernel::ioctl(card, 2, &size);
    kernel::close(card);
}

// A fresh scratch directory, made the working directory, where the kernel
// finds the card image as "sdcard0.o" (a link to it; none for a new card
// of the kernel's own). Leaving goes back and removes the directory.
struct Workspace {
    std::filesystem::path dir;
    std::filesystem::path previous;

    // "" when entered, else what went wrong.
    std::string enter(const char* prefix, const std::filesystem::path& image) {
        std::string pattern = (std::filesystem::temp_directory_path() / (std::string(prefix) + "-XXXXXX")).string();
        if (mkdtemp(pattern.data()) == nullptr) return "cannot make a working directory";
        dir = pattern;
        previous = std::filesystem::current_path();
        std::error_code e;
        if (!image.empty()) std::filesystem::create_symlink(image, dir / "sdcard0.o", e);
        if (e) return "cannot link " + image.string();
        std::filesystem::current_path(dir, e);
        return e ? "cannot enter the working directory" : "";
    }
    void leave() {
        std::error_code e;
        if (!previous.empty()) std::filesystem::current_path(previous, e);
        if (!dir.empty()) std::filesystem::remove_all(dir, e);
        dir.clear();
        previous.clear();
    }
    ~Workspace() { leave(); }
};

} // namespace vukra::tools
