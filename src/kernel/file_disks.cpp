// The disks backed by files in the working directory, so that what the
// kernel writes survives the process: the SD card ("sdcard0.o", 8 MiB, the
// home of the "/mem" copy), the flash disk ("fsflash.o", 128 KiB) and the
// ROM disk ("fsrom.o", 32 KiB).
//
// A disk's image file is opened on the first open of its node and stays
// open for the life of the process (close only counts down).
#include "kernel/card_changes.h"
#include "kernel/device_table.h"
#include "kernel/kernel_diagnostics.h"
#include "kernel/vfs.h"
#include "platform/platform.h"

#include <cstdio>
#include <string>
#include <vector>

namespace vukra::kernel {

namespace {

struct FileDisk {
    const char* file;         // in the working directory
    const char* label;        // of the creation messages
    std::int32_t default_size;
    std::int32_t size;
    int handle = -1;
    int open_count = 0;
};

FileDisk sdcard{"sdcard0.o", "sdcard0", 0x800000, 0x800000};
FileDisk flash{"fsflash.o", "fsflash", 0x20000, 0x20000};
FileDisk rom{"fsrom.o", "fsrom", 0x8000, 0x8000};

std::string path_of(const FileDisk& disk) { return std::string(platform::kWorkingDirPrefix) + disk.file; }

long host_seek(const FileDisk& d, long offset, int whence) {
    return platform::file_seek(d.handle, offset, static_cast<platform::SeekOrigin>(whence));
}

// The SD card image: its size in zeros is implied by 4 zero bytes written
// at the offset equal to the size.
long extend_with_end_marker(FileDisk& d) {
    const std::uint8_t zeros[4] = {};
    host_seek(d, 0, platform::kSeekSet);
    host_seek(d, d.size, platform::kSeekSet);
    return platform::file_write(d.handle, zeros, sizeof zeros);
}

// The flash and ROM images are written whole in zeros.
void write_zero_image(FileDisk& d, std::size_t bytes) {
    std::vector<std::uint8_t> zeros(bytes, 0);
    long written = platform::file_write(d.handle, zeros.data(), zeros.size());
    if (written == -1)
        diagnostic("%s creation failed", d.label);
    else
        diagnostic("%s creation size %u bytes ok.\n", d.label, static_cast<unsigned>(written));
}

template <FileDisk& d>
int disk_open(Descriptor, std::uint32_t) {
    if (d.handle == -1) {
        const std::string path = path_of(d);
        int h = platform::file_open(path.c_str(), platform::kFileRead | platform::kFileWrite | platform::kFileCreate |
                                                      platform::kFileExclusive);
        if (h < 0) {
            if (!platform::file_exists(path.c_str())) return -1;
            h = platform::file_open(path.c_str(), platform::kFileRead | platform::kFileWrite);
            if (h < 0) return -1;
            d.handle = h;
            host_seek(d, 0, platform::kSeekSet);
        } else {
            platform::file_close(h);
            h = platform::file_open(path.c_str(), platform::kFileRead | platform::kFileWrite | platform::kFileTruncate);
            if (h < 0) return -1;
            d.handle = h;
            if (&d == &sdcard) {
                extend_with_end_marker(d);
            } else {
                write_zero_image(d, static_cast<std::size_t>(d.default_size));
                host_seek(d, 0, platform::kSeekSet);
            }
        }
    }
    ++d.open_count;
    return 0;
}

template <FileDisk& d>
int disk_close(Descriptor) {
    if (d.handle != -1 && --d.open_count < 0) {
        d.open_count = 0;
        platform::file_close(d.handle);
        d.handle = -1;
    }
    return 0;
}

// A read or write at the descriptor's position: refused at or past the
// size, not cut there (a transfer that starts inside may run past it).
template <FileDisk& d, typename Transfer>
long disk_transfer(Descriptor fd, Transfer&& transfer) {
    std::int32_t& position = descriptor_position(fd);
    if (d.handle == -1 || position >= d.size) return -1;
    host_seek(d, position, platform::kSeekSet);
    long n = transfer(d.handle);
    position = static_cast<std::int32_t>(host_seek(d, 0, platform::kSeekCurrent));
    return n;
}

template <FileDisk& d>
long disk_read(Descriptor fd, void* buffer, std::size_t count) {
    return disk_transfer<d>(fd, [&](int h) { return platform::file_read(h, buffer, count); });
}

template <FileDisk& d>
long disk_write(Descriptor fd, const void* buffer, std::size_t count) {
    return disk_transfer<d>(fd, [&](int h) { return platform::file_write(h, buffer, count); });
}

// The SD card notes what it writes, for a put of the changed parts only.
long sdcard_write(Descriptor fd, const void* buffer, std::size_t count) {
    const std::int32_t at = descriptor_position(fd);
    const long n = disk_write<sdcard>(fd, buffer, count);
    if (n > 0 && at >= 0) note_card_write(static_cast<std::uint64_t>(at), static_cast<std::uint64_t>(n));
    return n;
}

// The SD card's end is fixed at 8 MiB whatever its size, as the device has it.
long sdcard_seek(Descriptor fd, long offset, int whence) {
    std::int32_t& position = descriptor_position(fd);
    if (whence == 0)
        position = static_cast<std::int32_t>(offset);
    else if (whence == 1)
        position = static_cast<std::int32_t>(position + offset);
    else if (whence == 2)
        position = 0x800000;
    return position;
}

template <FileDisk& d>
long disk_seek(Descriptor fd, long offset, int whence) {
    std::int32_t& position = descriptor_position(fd);
    if (d.handle != -1 && position < d.size) position = static_cast<std::int32_t>(host_seek(d, offset, whence));
    return position;
}

// Request 1: the size, stored through the pointer that argument points to.
template <FileDisk& d>
bool size_request(std::uint32_t request, void* argument) {
    if (request != 1) return false;
    auto** target = static_cast<std::int32_t**>(argument);
    if (target != nullptr && *target != nullptr) **target = d.size;
    return true;
}

int sdcard_ioctl(Descriptor, std::uint32_t request, void* argument) {
    if (size_request<sdcard>(request, argument)) return 0;
    if (request == 2) {
        std::int32_t size = argument ? *static_cast<std::int32_t*>(argument) : 0;
        if (size == 0 || sdcard.handle == -1) return 0;
        host_seek(sdcard, 0, platform::kSeekSet);
        sdcard.size = size;
        long end = host_seek(sdcard, size, platform::kSeekSet);
        if (end == -1)
            diagnostic("sdcard0 creation failed");
        else
            diagnostic("sdcard0 creation size %u bytes ok.\n", static_cast<unsigned>(end));
        return 0;
    }
    if (request == 6) { // erase: what the card held since a get is gone
        card_changes_stop();
        if (sdcard.handle != -1) platform::file_close(sdcard.handle);
        const std::string path = path_of(sdcard);
        sdcard.handle = platform::file_open(path.c_str(), platform::kFileRead | platform::kFileWrite |
                                                              platform::kFileCreate | platform::kFileTruncate);
        if (sdcard.handle >= 0) {
            extend_with_end_marker(sdcard);
            host_seek(sdcard, 0, platform::kSeekSet);
        }
        return 0;
    }
    return -1;
}

int flash_ioctl(Descriptor, std::uint32_t request, void* argument) {
    if (size_request<flash>(request, argument)) return 0;
    if (request == 2) {
        std::int32_t size = argument ? *static_cast<std::int32_t*>(argument) : 0;
        if (size <= 0 || flash.handle == -1) return 0;
        host_seek(flash, 0, platform::kSeekSet);
        flash.size = size;
        write_zero_image(flash, static_cast<std::size_t>(size));
        return 0;
    }
    return -1;
}

constexpr char kSdcardName[] = "sdcard0\0\0\0\0\0";
constexpr char kHdcName[] = "hdc\0\0\0\0\0";
constexpr char kHdbName[] = "hdb\0\0\0\0\0";

} // namespace

const DriverDescriptor kSdcardDriver{kSdcardName,       kBlockDevice,       nullptr, disk_open<sdcard>,
                                     disk_close<sdcard>, nullptr,           nullptr, disk_read<sdcard>,
                                     sdcard_write,       sdcard_seek,       sdcard_ioctl, nullptr};
const DriverDescriptor kHdcDriver{kHdcName,         kBlockDevice,     nullptr,         disk_open<flash>,
                                  disk_close<flash>, nullptr,         nullptr,         disk_read<flash>,
                                  disk_write<flash>, disk_seek<flash>, flash_ioctl,    nullptr};
const DriverDescriptor kHdbDriver{kHdbName,       kBlockDevice,   nullptr,        disk_open<rom>,
                                  disk_close<rom>, nullptr,       nullptr,        disk_read<rom>,
                                  disk_write<rom>, disk_seek<rom>, nullptr,       nullptr};

} // namespace vukra::kernel
