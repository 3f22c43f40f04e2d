// Writes then reads a 4 MiB file through the filesystem switch on a ufs
// volume on "/dev/sdcard0", next to the same bytes written and read with
// plain host file I/O in the same run.
#include "ufs_bench_volume.h"

#include <algorithm>
#include <cstdio>
#include <vector>

using namespace vukra::kernel;
using vukra::bench::Clock;
using vukra::bench::seconds_since;

namespace {

constexpr std::size_t kFileSize = 4 << 20;
constexpr std::size_t kChunk = 64 * 1024;

double through_the_switch(const std::vector<char>& data, std::vector<char>& back) {
    auto start = Clock::now();
    Descriptor fd = open("/mem/big", kOpenWrite | kOpenCreate | kOpenTruncate);
    for (std::size_t at = 0; at < data.size(); at += kChunk) write(fd, data.data() + at, kChunk);
    close(fd);
    fd = open("/mem/big", kOpenRead);
    for (std::size_t at = 0; at < back.size(); at += kChunk) read(fd, back.data() + at, kChunk);
    close(fd);
    return seconds_since(start);
}

double host_files(const std::vector<char>& data, std::vector<char>& back) {
    auto start = Clock::now();
    std::FILE* f = std::fopen("host.bin", "wb");
    for (std::size_t at = 0; at < data.size(); at += kChunk) std::fwrite(data.data() + at, 1, kChunk, f);
    std::fclose(f);
    f = std::fopen("host.bin", "rb");
    for (std::size_t at = 0; at < back.size(); at += kChunk)
        if (std::fread(back.data() + at, 1, kChunk, f) != kChunk) break;
    std::fclose(f);
    return seconds_since(start);
}

} // namespace

int main() {
    const vukra::bench::UfsBenchVolume volume("vukra-ufs-bench", 64);
    if (!volume.ok) return 1;

    std::vector<char> data(kFileSize), back(kFileSize);
    for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 2654435761u >> 24);
    double ours = 1e9, host = 1e9;
    for (int round = 0; round < 5; ++round) {
        ours = std::min(ours, through_the_switch(data, back));
        if (back != data) {
            std::printf("the file came back different\n");
            return 1;
        }
        host = std::min(host, host_files(data, back));
    }
    const double mib = kFileSize / double(1 << 20);
    std::printf("4 MiB written then read, best of 5 (ufs, 512-byte blocks):\n");
    std::printf("  through the switch on /dev/sdcard0: %7.1f MiB/s\n", 2 * mib / ours);
    std::printf("  plain host file I/O:                %7.1f MiB/s\n", 2 * mib / host);
    std::printf("  ratio %.2f (target >= 0.50)\n", host / ours);
    return 0;
}
