// The kernel's device drivers. A device node's number is its driver's
// index in DeviceTable; every call on an open device goes through the
// driver's descriptor. Entries can be replaced (a test puts a
// fault-injecting disk where a file-backed one stood).
#pragma once

#include <cstddef>
#include <cstdint>

namespace vukra::kernel {

using Descriptor = std::int16_t;

enum DeviceKind : std::int32_t { kBlockDevice = 2, kCharacterDevice = 4 };

// Every driver name is stored with five bytes behind its terminating zero:
// the system disk's hold "cpufs", the others zeros.
struct DriverDescriptor {
    const char* name;
    std::int32_t kind;
    int (*load)();
    int (*open)(Descriptor fd, std::uint32_t flags);
    int (*close)(Descriptor fd);
    int (*isset_read)(Descriptor fd);
    int (*isset_write)(Descriptor fd);
    long (*read)(Descriptor fd, void* buffer, std::size_t count);
    long (*write)(Descriptor fd, const void* buffer, std::size_t count);
    long (*seek)(Descriptor fd, long offset, int whence);
    int (*ioctl)(Descriptor fd, std::uint32_t request, void* argument);
    int (**extra)(Descriptor fd, void* buffer, std::size_t count); // null but for the clock
};

inline constexpr int kDeviceCount = 12;

// The entry at a device number, or null.
const DriverDescriptor* device_driver(int number);
// Puts driver in place of the entry at number; returns the one it replaced.
const DriverDescriptor* replace_device_driver(int number, const DriverDescriptor* driver);
// True when the driver's name carries the system disk's "cpufs" tag.
bool is_system_disk(const DriverDescriptor& driver);

// The drivers of this build, in table order.
extern const DriverDescriptor kFifoDriver, kNullDriver, kProcDriver, kHdaDriver, kMemDriver, kTty0Driver,
    kSlipDriver, kBoardDriver, kHdbDriver, kHdcDriver, kRtcDriver, kSdcardDriver;

// What the board device answers to its ioctl 0x4001.
inline constexpr std::uint32_t kBoardCode = 0x1A2B;
inline constexpr std::uint32_t kBoardCodeRequest = 0x4001;

} // namespace vukra::kernel
