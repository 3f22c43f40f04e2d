#include "kernel/device_table.h"

#include <cstring>

namespace vukra::kernel {

namespace {

const DriverDescriptor* table[kDeviceCount] = {
    &kFifoDriver, &kNullDriver, &kProcDriver, &kHdaDriver, &kMemDriver, &kTty0Driver,
    &kSlipDriver, &kBoardDriver, &kHdbDriver, &kHdcDriver, &kRtcDriver, &kSdcardDriver,
};

} // namespace

const DriverDescriptor* device_driver(int number) {
    return number >= 0 && number < kDeviceCount ? table[number] : nullptr;
}

const DriverDescriptor* replace_device_driver(int number, const DriverDescriptor* driver) {
    if (number < 0 || number >= kDeviceCount) return nullptr;
    const DriverDescriptor* old = table[number];
    table[number] = driver;
    return old;
}

bool is_system_disk(const DriverDescriptor& driver) {
    const char* tag = driver.name + std::strlen(driver.name) + 1;
    return std::memcmp(tag, "cpufs", 5) == 0;
}

} // namespace vukra::kernel
