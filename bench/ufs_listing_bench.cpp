// Lists a ufs directory of 10,000 entries through the filesystem switch:
// whole, and in pages of 8 from told positions, each page on a fresh open
// as a server without state does it; both set against the consistency walk
// of the same volume (ufs_check), which reads every entry once. Also times
// making the 10,000 entries.
#include "kernel/ufs_check.h"
#include "ufs_bench_volume.h"

#include <cstdio>
#include <string>

using namespace vukra::kernel;
using vukra::bench::Clock;
using vukra::bench::seconds_since;

namespace {

constexpr int kEntries = 10000;
constexpr int kPage = 8;

int list_whole() {
    Descriptor fd = open("/mem/d", kOpenRead);
    DirEntry entry{};
    int count = 0;
    while (readdir(fd, entry) == 1) ++count;
    close(fd);
    return count;
}

int list_in_pages() {
    long cookie = 0;
    int count = 0;
    for (;;) {
        Descriptor fd = open("/mem/d", kOpenRead);
        seekdir(fd, cookie);
        DirEntry entry{};
        int got = 0;
        while (got < kPage && readdir(fd, entry) == 1) ++got;
        cookie = telldir(fd);
        close(fd);
        count += got;
        if (got < kPage) return count;
    }
}

} // namespace

int main() {
    const vukra::bench::UfsBenchVolume volume("vukra-ufs-listing-bench", kEntries + 64);
    if (!volume.ok || mkdir("/mem/d") != 0) return 1;

    auto start = Clock::now();
    for (int i = 0; i < kEntries; ++i) {
        char name[32];
        std::snprintf(name, sizeof name, "/mem/d/entry-%05d", i);
        Descriptor fd = open(name, kOpenWrite | kOpenCreate | kOpenExclusive);
        if (fd < 0) return 1;
        close(fd);
    }
    const double making = seconds_since(start);

    start = Clock::now();
    CheckReport report;
    check_volume("/mem", report);
    const double walk = seconds_since(start);
    start = Clock::now();
    const int whole = list_whole();
    const double whole_time = seconds_since(start);
    start = Clock::now();
    const int paged = list_in_pages();
    const double paged_time = seconds_since(start);
    if (whole != kEntries || paged != kEntries || report.files != kEntries) return 1;

    std::printf("making %d entries in one directory: %.3f s (%.1f us each)\n", kEntries, making, making * 1e6 / kEntries);
    std::printf("consistency walk (ufs_check):        %8.2f ms\n", walk * 1e3);
    std::printf("listing whole:                       %8.2f ms  (%.2f x the walk)\n", whole_time * 1e3, whole_time / walk);
    std::printf("listing in pages of %d from cookies:  %8.2f ms  (%.2f x the walk)\n", kPage, paged_time * 1e3,
                paged_time / walk);
    return 0;
}
