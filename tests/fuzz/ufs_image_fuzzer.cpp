// Mounts and walks arbitrary ufs images: none may crash the kernel, make
// it loop, or lead it to write outside the image.
//
// The card is cut to 16 KiB. An input whose first byte is even is a patch
// of a valid volume (pairs of a 16-bit offset and a byte), which reaches
// deep into the format; an odd one is a raw image.
#include "kernel/kernel_start.h"
#include "kernel/ufs_check.h"
#include "kernel/vfs.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

using namespace vukra::kernel;

namespace {

constexpr std::int32_t kCardSize = 16 * 1024;
std::vector<std::uint8_t> valid_image(kCardSize);

void put(const char* path, std::size_t bytes) {
    Descriptor fd = open(path, kOpenWrite | kOpenCreate);
    std::string data(bytes, 'v');
    write(fd, data.data(), data.size());
    close(fd);
}

void load_card(const std::vector<std::uint8_t>& image) {
    Descriptor card = open("/dev/sdcard0", kOpenWrite);
    write(card, image.data(), image.size());
    close(card);
}

// Reads every file and lists every directory, as far as depth 8.
void walk(const std::string& path, int depth) {
    Descriptor fd = open(path.c_str(), kOpenRead);
    if (fd < 0) return;
    DirEntry entry{};
    std::vector<std::string> names;
    for (int i = 0; i < 64 && readdir(fd, entry) == 1; ++i) names.emplace_back(entry.name);
    char buffer[512];
    while (read(fd, buffer, sizeof buffer) > 0) {
    }
    close(fd);
    if (depth >= 8) return;
    for (const std::string& name : names) walk(path + "/" + name, depth + 1);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    char dir[] = "/tmp/vukra-fuzz-XXXXXX";
    if (mkdtemp(dir) == nullptr || chdir(dir) != 0) std::abort();
    std::FILE* quiet = std::freopen("/dev/null", "w", stdout);
    (void)quiet;
    kernel_start();
    Descriptor card = open("/dev/sdcard0", kOpenRead | kOpenWrite);
    std::int32_t size = kCardSize;
    ioctl(card, 2, &size);
    close(card);
    UfsMakeArgument make{24, 0xFFFF, 32, kCardSize};
    if (mkfs(kUfsx, "/dev/sdcard0", &make) != 0 || mount(kUfsx, "/dev/sdcard0", "/mem") != 0) std::abort();
    mkdir("/mem/d");
    mkdir("/mem/d/e");
    put("/mem/small", 20);
    put("/mem/d/indirect", 700);
    put("/mem/d/e/double", 3000);
    umount("/mem");
    card = open("/dev/sdcard0", kOpenRead);
    read(card, valid_image.data(), valid_image.size());
    close(card);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    std::vector<std::uint8_t> image;
    if (data[0] % 2 == 0) {
        image = valid_image;
        for (std::size_t i = 1; i + 3 <= size; i += 3) {
            std::size_t at = static_cast<std::size_t>(data[i] | data[i + 1] << 8) % image.size();
            image[at] = data[i + 2];
        }
    } else {
        image.assign(data + 1, data + std::min<std::size_t>(size, kCardSize));
        image.resize(kCardSize, 0);
    }
    load_card(image);
    if (mount(kUfsx, "/dev/sdcard0", "/mem") != 0) return 0;
    CheckReport report;
    check_volume("/mem", report);
    walk("/mem", 0);
    put("/mem/added", 100);
    vukra::kernel::rename("/mem/added", "/mem/d/moved");
    vukra::kernel::remove("/mem/d/moved");
    vukra::kernel::remove("/mem/small");
    umount("/mem");
    return 0;
}
