// The device's filesystem through the line, on a mounted session: a new
// volume made with mkfs, then files and directories made, written, read,
// listed, moved and removed under "/mem" (the device serves them: no
// mirror exists yet).
#include "host_app.h"

#include <set>
#include <vector>

namespace host {

namespace {

// A text of n bytes that shows where a piece of it came from.
std::string pattern(std::size_t n) {
    std::string s;
    for (std::size_t i = 0; i < n; ++i) s.push_back(static_cast<char>('a' + (i * 7 + i / 26) % 26));
    return s;
}

// The names of the current directory's next page, each entry freed as the
// header says: LocalFree on Windows. -1 as end when readdir failed.
std::vector<std::string> page(modbus_vukra_session* s, std::int32_t& end) {
    std::vector<std::string> names;
    modbus_vukra_dir_entry* entry = nullptr;
    end = VK(protected_readdir)(s, &entry);
    while (entry != nullptr) {
        names.emplace_back(entry->name);
        modbus_vukra_dir_entry* next = entry->next;
        if (LocalFree(entry) != nullptr) end = -1;
        entry = next;
    }
    return names;
}

} // namespace

// What the mirror's checks expect to find: written here on the device.
extern const std::string kDeviceText = pattern(3000);
extern const std::string kDeviceBig = pattern(20000);

void files_on_device(modbus_vukra_session* s) {
    // A new volume on the card: 64 nodes, 256 blocks of 512 bytes (32
    // groups, so that a transfer's progress moves in visible steps).
    modbus_vukra_attributes card{};
    const modbus_vukra_mkfs_params params{{64, 256, 512}};
    check(VK(protected_lookup)(s, "/dev/sdcard0", &card) == 0 && (card.words[1] & 2u) == 2u &&
              VK(protected_mkfs)(s, &params) == 0,
          "lookup /dev/sdcard0 (a device node), mkfs on it");
    modbus_vukra_usage usage{};
    check(VK(protected_fsstat)(s, "/mem", &usage) == 0 && usage.words[0] == 512 && usage.words[1] == 256 &&
              usage.words[3] == 63,
          "fsstat /mem: the new volume's 256 blocks of 512 bytes, 63 free nodes");
    const std::uint32_t free_blocks = usage.words[2];

    check(VK(protected_mkdir)(s, "/mem/work") == 0 && create_with(s, "/mem/work/data.txt", kDeviceText) &&
              VK(protected_seek)(s, 0, 0) == 0 && read_rest(s) == kDeviceText,
          "mkdir /mem/work, create and write data.txt (3000 bytes), seek to 0, read it back");
    check(VK(protected_seek)(s, 2000, 0) == 2000 && VK(protected_seek)(s, 500, 1) == 2500 &&
              VK(protected_seek)(s, 100, 2) == 2400 && read_rest(s) == kDeviceText.substr(2400),
          "seek from the start, forward and back; the read follows");
    modbus_vukra_attributes attributes{};
    check(VK(protected_lookup)(s, "/mem/work/data.txt", &attributes) == 0 && attributes.words[1] == 1u &&
              attributes.words[2] == 3000u && VK(protected_seekdir)(s, 0) == -1 && VK(session_error)(s) == -56,
          "lookup gives a regular file of 3000 bytes; seekdir on it: -1, error -56");
    check(create_with(s, "/mem/big.bin", kDeviceBig), "create and write /mem/big.bin (20000 bytes)");

    // Enough long names for a listing of several pages.
    std::set<std::string> made;
    bool all_made = true;
    for (int i = 0; i < 50; ++i) {
        const std::string name = "a-long-name-that-fills-the-listing-pages-quickly-" + std::to_string(i);
        all_made = VK(protected_create)(s, ("/mem/work/" + name).c_str()) == 0 && all_made;
        made.insert(name);
    }
    made.insert("data.txt");
    std::int32_t end = 0;
    check(all_made && VK(protected_lookup)(s, "/mem/work", nullptr) == 0 && VK(protected_telldir)(s) == 0,
          "create 50 files; telldir of a directory just looked up is 0");
    const std::vector<std::string> first = page(s, end);
    const std::int32_t cookie = VK(protected_telldir)(s);
    const std::vector<std::string> second = page(s, end);
    std::set<std::string> listed(first.begin(), first.end());
    listed.insert(second.begin(), second.end());
    check(end == 1 && cookie != 0 && listed == made && first.size() + second.size() == 51,
          "readdir lists the 51 files in two pages, its entries freed with LocalFree; the cookie moved after the first");
    check(VK(protected_seekdir)(s, cookie) == cookie && page(s, end) == second && VK(protected_seekdir)(s, 0) == 0 &&
              page(s, end) == first,
          "seekdir to the cookie gives that page again, seekdir 0 starts over");
    check(VK(protected_seek)(s, 0, 0) == -1 && VK(session_error)(s) == -31, "seek in a directory: -1, error -31");

    check(VK(protected_rename)(s, "/mem/work/a-long-name-that-fills-the-listing-pages-quickly-0", "/mem/moved.txt") == 0 &&
              VK(protected_lookup)(s, "/mem/moved.txt", nullptr) == 0 && VK(protected_remove)(s, "/mem/moved.txt") == 0 &&
              VK(protected_lookup)(s, "/mem/moved.txt", nullptr) == -1 && VK(session_error)(s) == -44,
          "rename into another directory, remove; a lookup then fails with -44");
    check(VK(protected_rmdir)(s, "/mem/work") == -1 && VK(session_error)(s) == -20, "rmdir of a full directory: -20");
    check(VK(protected_mkdir)(s, "/mem/empty") == 0 && VK(protected_rmdir)(s, "/mem/empty") == 0 &&
              VK(protected_lookup)(s, "/mem/empty", nullptr) == -1,
          "mkdir and rmdir of an empty directory");
    check(VK(protected_fsstat)(s, "/mem", &usage) == 0 && usage.words[2] < free_blocks &&
              usage.words[3] == 63u - 2 - 50,
          "fsstat: fewer free blocks, a node for each file and the directory");
}

} // namespace host
