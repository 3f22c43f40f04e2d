// kernel_start: the tables, the tree under the root filesystem, the device
// nodes and the clock, once per process.
#include "kernel/kernel_start.h"

#include "kernel/device_table.h"
#include "kernel/kernel_errors.h"
#include "kernel/start_steps.h"
#include "kernel/vfs.h"
#include "platform/platform.h"

#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>

namespace vukra::kernel {

namespace {

bool started = false;
std::uint32_t clock_seconds = 0;
std::uint32_t clock_fraction = 0;
std::uint32_t clock_read_ms = 0; // the monotonic clock when the real-time clock was read

struct HandleSlot {
    std::int32_t key = -1;
};
HandleSlot handles[20];

// Globals of drivers this build's table does not carry (i2c0, spi0, cpu0).
Descriptor i2c_descriptor = -1, spi_descriptor = -1, cpu_descriptor = -1;

struct BuiltinProgram {
    const char* name;
    std::uint8_t priority;
    std::uint16_t stack_size;
    std::uint16_t flags;
};
constexpr BuiltinProgram kBuiltinPrograms[] = {{"init", 100, 1024, 1}};

// Writes a program's 8-byte header into path, then reads it back.
void install_program(const char* path, const char* name) {
    for (std::size_t i = 0; i < std::size(kBuiltinPrograms); ++i) {
        const BuiltinProgram& p = kBuiltinPrograms[i];
        if (std::strcmp(p.name, name) != 0) continue;
        const std::uint8_t header[8] = {0x1B,
                                        p.priority,
                                        static_cast<std::uint8_t>(p.stack_size),
                                        static_cast<std::uint8_t>(p.stack_size >> 8),
                                        static_cast<std::uint8_t>(p.flags),
                                        static_cast<std::uint8_t>(p.flags >> 8),
                                        static_cast<std::uint8_t>(i),
                                        static_cast<std::uint8_t>(i >> 8)};
        Descriptor fd = open(path, kOpenWrite | kOpenCreate);
        if (fd >= 0) {
            write(fd, header, sizeof header);
            close(fd);
        }
        std::uint8_t back[8];
        fd = open(path, kOpenRead);
        if (fd >= 0) {
            read(fd, back, sizeof back);
            close(fd);
        }
        return;
    }
}

bool loads(const DriverDescriptor& d) { return d.load == nullptr || d.load() >= 0; }

void create_device_node(const std::string& path, const DriverDescriptor& d, int number) {
    mknod(path.c_str(), d.kind, static_cast<std::int16_t>(number));
}

// "/dev/" and the name, with the directories on the way ("net/slip" makes /dev/net).
void create_named_node(const DriverDescriptor& d, int number) {
    const std::string path = std::string("/dev/") + d.name;
    for (std::size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1))
        mkdir(path.substr(0, slash).c_str());
    create_device_node(path, d, number);
}

void start_prefixed(const char* prefix, const char* device_path, Descriptor& descriptor) {
    for (int n = 0; n < kDeviceCount; ++n) {
        const DriverDescriptor* d = device_driver(n);
        if (d == nullptr || std::strncmp(d->name, prefix, 4) != 0 || !loads(*d)) continue;
        create_device_node(std::string("/dev/") + d->name, *d, n);
    }
    Descriptor fd = open(device_path, kOpenRead | kOpenWrite);
    if (fd >= 0) descriptor = fd;
}

void read_clock() {
    Descriptor fd = open("/dev/rtc0", kOpenRead);
    if (fd < 0) fd = open("/dev/rtc1", kOpenRead);
    if (fd < 0) return;
    std::int8_t bytes[6] = {};
    const DriverDescriptor* d = device_driver(descriptor_device(fd));
    if (d != nullptr && d->extra != nullptr) d->extra[1](fd, bytes, sizeof bytes);
    std::tm t{};
    t.tm_sec = bytes[0];
    t.tm_min = bytes[1];
    t.tm_hour = bytes[2];
    t.tm_mday = bytes[3];
    t.tm_mon = bytes[4];
    t.tm_year = bytes[5];
    t.tm_isdst = -1;
    std::time_t seconds = std::mktime(&t);
    clock_seconds = seconds < 0 ? 0 : static_cast<std::uint32_t>(seconds);
    clock_fraction = 0;
    clock_read_ms = platform::clock_ms();
    close(fd);
}

} // namespace

// Steps 2 to 4: the process table, the switch, the handle table.
void reset_tables() {
    vfs_reset();
    for (HandleSlot& h : handles) h.key = -1;
}

// Steps 5 to 12: the tree, the devices and the clock.
void build_system() {
    mount(kRootFs, nullptr, "/");
    for (const char* dir : {"/dev", "/dev/hd", "/bin", "/usr", "/etc", "/var", "/mnt", "/mem"}) mkdir(dir);
    const char* programs[][2] = {{"/bin/init", "init"},
                                 {"/bin/mkfs", "mkfs"},
                                 {"/bin/mount", "mount"},
                                 {"/bin/umount", "umount"},
                                 {"/bin/lsh", "lsh"}};
    for (auto& p : programs) install_program(p[0], p[1]);

    // The system disk, then "/usr" on it.
    for (int n = 0; n < kDeviceCount; ++n) {
        const DriverDescriptor* d = device_driver(n);
        if (d != nullptr && is_system_disk(*d) && loads(*d)) create_device_node("/dev/hd/hda", *d, n);
    }
    mount(kUfs, "/dev/hd/hda", "/usr");

    start_prefixed("i2c0", "/dev/i2c0", i2c_descriptor);
    start_prefixed("spi0", "/dev/spi0", spi_descriptor);

    char letter = 'b';
    for (int n = 0; n < kDeviceCount; ++n) {
        const DriverDescriptor* d = device_driver(n);
        if (d == nullptr) continue;
        const std::string name = d->name;
        if (name.rfind("hd", 0) == 0) {
            if (is_system_disk(*d) || !loads(*d)) continue;
            create_device_node(std::string("/dev/hd/hd") + letter++, *d, n);
        } else if (name.rfind("i2c0", 0) == 0 || name.rfind("spi0", 0) == 0) {
            continue;
        } else if (name.rfind("cpu0", 0) == 0) {
            if (loads(*d)) create_device_node("/dev/" + name, *d, n);
        } else if (loads(*d)) {
            create_named_node(*d, n);
        }
    }
    Descriptor cpu = open("/dev/cpu0", kOpenRead | kOpenWrite);
    if (cpu >= 0) cpu_descriptor = cpu;
    read_clock();
}

int kernel_start() {
    if (started) return -1;
    started = true;
    set_boot_context(true);
    reset_tables();
    build_system();
    return 0;
}

bool kernel_started() { return started; }

// The clock runs on from its reading, as the device's does with its tick,
// so that what is written later shows a later time.
std::uint32_t kernel_seconds() {
    if (clock_seconds == 0) return 0;
    return clock_seconds + (platform::clock_ms() - clock_read_ms) / 1000;
}

void set_kernel_seconds(std::uint32_t seconds) {
    clock_seconds = seconds;
    clock_fraction = 0;
}

int uname(const int* names, int length, void* buffer, std::size_t* buffer_length) {
    if (names == nullptr || length < 0 || names[0] != 0 || buffer_length == nullptr) return -1;
    if (buffer == nullptr) {
        *buffer_length = kUnameSize;
        return 0;
    }
    if (*buffer_length < kUnameSize) return -1;
    auto* out = static_cast<char*>(buffer);
    std::memset(out, 0, kUnameSize);
    std::snprintf(out, 64, "quibex-%s-%d", "win32", 32);
    std::snprintf(out + 64, 32, "%s", "2.5.0.6");
    std::snprintf(out + 96, 64, "%s-%s", "Nov 13 2009", "17:26:48");
    return 0;
}

} // namespace vukra::kernel
