// The devices the start sequence makes nodes for besides the file-backed
// disks, each as small as the mirror needs:
//   fifo      pipes: what is written to a pipe end is read from the same pipe
//   null      reads end at once, writes are swallowed
//   proc      reads end at once
//   hda       the system disk: a zeroed in-memory disk of 64 KiB
//   mem       reads end at once
//   tty0      the console: writes go to standard output, reads end at once
//   net/slip  no network here: reads end at once, writes are swallowed
//   board     ioctl 0x4001 gives the board code; request 1 is accepted
//   rtc0      its second extra operation gives the host's local time
#include "kernel/device_table.h"
#include "session/log.h"
#include "kernel/vfs.h"
#include "platform/platform.h"

#include <cstdio>
#include <cstring>
#include <deque>
#include <vector>

namespace vukra::kernel {

namespace {

long read_nothing(Descriptor, void*, std::size_t) { return 0; }
long swallow(Descriptor, const void*, std::size_t count) { return static_cast<long>(count); }
int accept(Descriptor, std::uint32_t) { return 0; }
int done(Descriptor) { return 0; }

// ---- fifo: one byte queue per pipe, numbered by the descriptor that made
// it; a copy made through a descriptor link shares its origin's pipe.
std::deque<std::uint8_t> pipes[kOpenFileSlots];

int fifo_open(Descriptor fd, std::uint32_t) {
    if (fd >= 0 && fd < kOpenFileSlots) pipes[fd].clear();
    return 0;
}

long fifo_read(Descriptor fd, void* buffer, std::size_t count) {
    fd = descriptor_origin(fd);
    if (fd < 0 || fd >= kOpenFileSlots) return -1;
    auto& q = pipes[fd];
    std::size_t n = count < q.size() ? count : q.size();
    auto* out = static_cast<std::uint8_t*>(buffer);
    for (std::size_t i = 0; i < n; ++i) {
        out[i] = q.front();
        q.pop_front();
    }
    return static_cast<long>(n);
}

long fifo_write(Descriptor fd, const void* buffer, std::size_t count) {
    fd = descriptor_origin(fd);
    if (fd < 0 || fd >= kOpenFileSlots) return -1;
    const auto* in = static_cast<const std::uint8_t*>(buffer);
    pipes[fd].insert(pipes[fd].end(), in, in + count);
    return static_cast<long>(count);
}

int fifo_ready_read(Descriptor fd) {
    fd = descriptor_origin(fd);
    return fd >= 0 && fd < kOpenFileSlots && !pipes[fd].empty();
}
int always_ready(Descriptor) { return 1; }

// ---- hda: the system disk, in memory
std::vector<std::uint8_t> system_disk(64 * 1024, 0);

// Moves bytes between the disk at the descriptor's position and buffer.
long hda_transfer(Descriptor fd, std::uint8_t* buffer, std::size_t count, bool writing) {
    std::int32_t& position = descriptor_position(fd);
    if (position < 0 || static_cast<std::size_t>(position) >= system_disk.size()) return -1;
    std::size_t n = std::min(count, system_disk.size() - static_cast<std::size_t>(position));
    if (writing)
        std::memcpy(system_disk.data() + position, buffer, n);
    else
        std::memcpy(buffer, system_disk.data() + position, n);
    position += static_cast<std::int32_t>(n);
    return static_cast<long>(n);
}

long hda_read(Descriptor fd, void* buffer, std::size_t count) {
    return hda_transfer(fd, static_cast<std::uint8_t*>(buffer), count, false);
}

long hda_write(Descriptor fd, const void* buffer, std::size_t count) {
    // Only read from: the transfer writes into the disk.
    return hda_transfer(fd, const_cast<std::uint8_t*>(static_cast<const std::uint8_t*>(buffer)), count, true);
}

long hda_seek(Descriptor fd, long offset, int whence) {
    std::int32_t& position = descriptor_position(fd);
    long base = whence == 0 ? 0 : whence == 1 ? position : static_cast<long>(system_disk.size());
    position = static_cast<std::int32_t>(base + offset);
    return position;
}

int hda_ioctl(Descriptor, std::uint32_t request, void* argument) {
    if (request != 1) return -1;
    auto** target = static_cast<std::int32_t**>(argument);
    if (target != nullptr && *target != nullptr) **target = static_cast<std::int32_t>(system_disk.size());
    return 0;
}

// ---- tty0: the console
long tty_write(Descriptor, const void* buffer, std::size_t count) {
    log::write(static_cast<const char*>(buffer), count);
    return static_cast<long>(count);
}

// ---- board
int board_ioctl(Descriptor, std::uint32_t request, void* argument) {
    if (request == kBoardCodeRequest) {
        if (argument != nullptr) *static_cast<std::uint32_t*>(argument) = kBoardCode;
        return 0;
    }
    return request == 1 ? 0 : -1;
}

// ---- rtc0: six bytes of local time: seconds, minutes, hours, day of the
// month, month (0 to 11) and years since 1900, each a signed byte.
int rtc_read_time(Descriptor, void* buffer, std::size_t count) {
    if (buffer == nullptr || count < 6) return -1;
    const platform::LocalTime t = platform::local_time();
    const int fields[6] = {t.second, t.minute, t.hour, t.day, t.month - 1, t.year - 1900};
    auto* out = static_cast<std::int8_t*>(buffer);
    for (int i = 0; i < 6; ++i) out[i] = static_cast<std::int8_t>(fields[i]);
    return 6;
}

int rtc_no_operation(Descriptor, void*, std::size_t) { return -1; }

int (*rtc_extra[])(Descriptor, void*, std::size_t) = {rtc_no_operation, rtc_read_time};

constexpr char kFifoName[] = "fifo\0\0\0\0\0";
constexpr char kNullName[] = "null\0\0\0\0\0";
constexpr char kProcName[] = "proc\0\0\0\0\0";
constexpr char kHdaName[] = "hda\0cpufs";
constexpr char kMemName[] = "mem\0\0\0\0\0";
constexpr char kTtyName[] = "tty0\0\0\0\0\0";
constexpr char kSlipName[] = "net/slip\0\0\0\0\0";
constexpr char kBoardName[] = "board\0\0\0\0\0";
constexpr char kRtcName[] = "rtc0\0\0\0\0\0";

} // namespace

const DriverDescriptor kFifoDriver{kFifoName, kCharacterDevice, nullptr,  fifo_open, done, fifo_ready_read,
                                   always_ready, fifo_read,     fifo_write, nullptr,  nullptr, nullptr};
const DriverDescriptor kNullDriver{kNullName, kCharacterDevice, nullptr, accept,  done,    always_ready,
                                   always_ready, read_nothing,  swallow, nullptr, nullptr, nullptr};
const DriverDescriptor kProcDriver{kProcName, kBlockDevice, nullptr, accept,  done,    nullptr,
                                   nullptr,   read_nothing, nullptr, nullptr, nullptr, nullptr};
const DriverDescriptor kHdaDriver{kHdaName, kBlockDevice, nullptr,  accept,   done,      nullptr,
                                  nullptr,  hda_read,     hda_write, hda_seek, hda_ioctl, nullptr};
const DriverDescriptor kMemDriver{kMemName, kBlockDevice, nullptr, accept,  done,    nullptr,
                                  nullptr,  read_nothing, nullptr, nullptr, nullptr, nullptr};
const DriverDescriptor kTty0Driver{kTtyName, kBlockDevice, nullptr,   accept,  done,    nullptr,
                                   nullptr,  read_nothing, tty_write, nullptr, nullptr, nullptr};
const DriverDescriptor kSlipDriver{kSlipName, kCharacterDevice, nullptr, accept,  done,    always_ready,
                                   always_ready, read_nothing,  swallow, nullptr, nullptr, nullptr};
const DriverDescriptor kBoardDriver{kBoardName, kCharacterDevice, nullptr, accept,  done,        nullptr,
                                    nullptr,    nullptr,          nullptr, nullptr, board_ioctl, nullptr};
const DriverDescriptor kRtcDriver{kRtcName, kBlockDevice, nullptr, accept,  done,    nullptr,
                                  nullptr,  nullptr,      nullptr, nullptr, nullptr, rtc_extra};

} // namespace vukra::kernel
