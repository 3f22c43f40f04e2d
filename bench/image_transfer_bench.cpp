// The image transfer against the line it crosses.
//
// A card holding 1 MiB of files (several sizes, a few directories, made
// with vukra-ufs) is served by vukra-sim; getfs copies it into the local
// card and putfs copies it back, through the relay that is the line at
// 400000 baud (paced_line.h). Each is set against the time the bytes that
// crossed the line take at that speed, counted in the same run; the timer's
// status requests, which the mounted session sends meanwhile, are counted
// too. The sim does not pace its replies itself here: the relay is the
// line, and a reply paced twice (the sim's 2 ms slices carried again by the
// relay, which must wait for each) loses both sleeps' lateness on every
// slice, time that neither the line nor the host spends.
//
// In the paced run, between the two, one file is changed under /mem (10 KiB
// of /f10 rewritten) and put back twice: with the put of what changed, whose
// check alone (reading the device's header, map and metadata back) is
// timed from the transfer's phases, then with the full putfs.
//
// Then the same transfers straight to the sim, without the relay, in MiB/s
// of card bytes (header, map, metadata and the used groups: what the
// transfer must move), the median of five runs.
#include "modbus_vukra.h"
#include "stopwatch.h"
#include "paced_line.h"
#include "sim_child.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr unsigned kBaud = 400000;
constexpr std::size_t kFilesTotal = 1024 * 1024;
const char* const kCard = "card.img";
constexpr int kUnpacedRuns = 5;

bool ufs(const std::string& arguments) {
    const std::string command = std::string(VUKRA_UFS_PATH) + " " + kCard + " " + arguments + " >/dev/null 2>&1";
    return std::system(command.c_str()) == 0;
}

// The card: directories, then files of falling sizes spread over them, the
// last one making the total 1 MiB; random bytes, so SLIP escapes fall as
// they would.
bool make_card() {
    if (!ufs("mkfs")) return false;
    const char* const dirs[] = {"/logs", "/logs/old", "/data", "/data/raw"};
    for (const char* d : dirs)
        if (!ufs(std::string("mkdir ") + d)) return false;
    const char* const homes[] = {"", "/logs", "/logs/old", "/data", "/data/raw"};
    std::vector<std::size_t> sizes = {300000, 180000, 120000, 90000, 70000, 50000, 40000, 30000,
                                      20000,  12000,  8000,   4000,  2000,  1000,  500,   100};
    std::size_t sum = 0;
    for (std::size_t s : sizes) sum += s;
    sizes.push_back(kFilesTotal - sum);
    std::mt19937 random(11);
    for (std::size_t i = 0; i < sizes.size(); ++i) {
        std::string bytes(sizes[i], '\0');
        for (char& c : bytes) c = static_cast<char>(random());
        std::ofstream("file.bin", std::ios::binary) << bytes;
        const std::string name = std::string(homes[i % 5]) + "/f" + std::to_string(i);
        if (!ufs("put file.bin " + name)) return false;
    }
    std::filesystem::remove("file.bin");
    return true;
}

std::uint32_t le(const std::string& b, std::size_t at, int bytes) {
    std::uint32_t v = 0;
    for (int i = bytes - 1; i >= 0; --i) v = v << 8 | static_cast<std::uint8_t>(b[at + static_cast<std::size_t>(i)]);
    return v;
}

// What a transfer of the image moves: header, map, metadata and the groups
// the map marks used; and how many of those groups there are.
struct CardBytes {
    std::uint64_t bytes = 0;
    std::uint32_t used_groups = 0, groups = 0;
};

CardBytes card_bytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    const std::string image((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    CardBytes c;
    if (image.size() < 29 || image.compare(0, 7, "ufs 1.5") != 0) return c;
    const std::uint32_t block = le(image, 7, 2), map_size = le(image, 9, 4), metadata = le(image, 21, 4);
    c.groups = le(image, 13, 4);
    const std::uint64_t data_start = 29ull + map_size + metadata;
    for (std::uint32_t i = 0; i < c.groups && 29 + i < image.size(); ++i)
        if (image[29 + i] != 0) ++c.used_groups;
    c.bytes = data_start + static_cast<std::uint64_t>(c.used_groups) * block * 8;
    return c;
}

struct Leg {
    double seconds = 0;
    unsigned long to_device = 0, to_host = 0;
    bool ok = false;
};

// One transfer through the line, timed and counted.
template <typename Transfer>
Leg leg_of(bench::PacedLine* line, Transfer&& transfer) {
    const unsigned long device0 = line ? line->to_device.load() : 0, host0 = line ? line->to_host.load() : 0;
    const auto start = Clock::now();
    const bool ok = transfer() == 0;
    Leg leg{seconds_since(start), 0, 0, ok};
    if (line != nullptr) {
        leg.to_device = line->to_device - device0;
        leg.to_host = line->to_host - host0;
    }
    return leg;
}

// 10 KiB of /f10 rewritten in the local copy.
bool change_one_file(modbus_vukra_session* s) {
    std::string bytes(10 * 1024, '\0');
    std::mt19937 random(12);
    for (char& c : bytes) c = static_cast<char>(random());
    if (modbus_vukra_op_protected_lookup(s, "/mem/f10", nullptr) != 0) return false;
    for (std::size_t done = 0; done < bytes.size(); done += 1024)
        if (modbus_vukra_op_protected_write(s, bytes.data() + done, 1024) != 1024) return false;
    return true;
}

struct Changed {
    Leg put;
    double check_seconds = 0; // phase 1: the local card compared, the device's read back
    std::int32_t written = 0;
};

// The put of what changed, with a follower that notes when its data phase begins.
Changed put_changed(bench::PacedLine* line, modbus_vukra_session* s) {
    Changed c;
    std::atomic<bool> done{false};
    const auto start = Clock::now();
    std::thread follower([&] {
        for (std::int32_t w[MODBUS_VUKRA_INFO_WORDS]; !done.load(); std::this_thread::sleep_for(std::chrono::microseconds(100)))
            if (c.check_seconds == 0 && modbus_vukra_op_session_info(s, w) == 0 && w[MODBUS_VUKRA_INFO_DIRECTION] == 2 &&
                w[MODBUS_VUKRA_INFO_PHASE] >= 2)
                c.check_seconds = seconds_since(start);
    });
    c.put = leg_of(line, [&] {
        c.written = modbus_vukra_protected_putfs_changed(s);
        return c.written > 0 ? 0 : -1;
    });
    done = true;
    follower.join();
    return c;
}

// getfs then putfs on one session, through the paced line or straight to
// the unpaced sim; through the paced line, the put of what changed between them.
bool run(bool paced, Leg& get, Leg& put, Changed* changed = nullptr) {
    const auto sim = bench::start_sim({"--table", "table.xml", "--image", kCard});
    if (sim == nullptr) return false;
    bench::PacedLine line(kBaud);
    if (paced && !line.start(sim->port())) return false;
    modbus_vukra_session* s = modbus_vukra_op_session_open(paced ? line.host_path.c_str() : sim->port().c_str());
    const bool mounted = s != nullptr && modbus_vukra_op_protected_mount(s) == 0;
    bench::PacedLine* counted = paced ? &line : nullptr;
    if (mounted) get = leg_of(counted, [&] { return modbus_vukra_op_protected_getfs(s); });
    if (get.ok && changed != nullptr) {
        if (!change_one_file(s)) return false;
        *changed = put_changed(counted, s);
    }
    if (get.ok) put = leg_of(counted, [&] { return modbus_vukra_op_protected_putfs(s); });
    modbus_vukra_op_session_close(s);
    line.finish();
    return get.ok && put.ok && (changed == nullptr || changed->put.ok);
}

Leg median(std::vector<Leg> legs) {
    std::sort(legs.begin(), legs.end(), [](const Leg& a, const Leg& b) { return a.seconds < b.seconds; });
    Leg m = legs[legs.size() / 2];
    for (const Leg& l : legs) m.ok = m.ok && l.ok;
    return m;
}

void print_paced(const char* what, const Leg& leg, const CardBytes& card) {
    const double line = (leg.to_device + leg.to_host) * 10.0 / kBaud;
    std::printf("  %s: %.3f s; the line carried %lu bytes to the device and %lu back (card bytes %llu),\n", what,
                leg.seconds, leg.to_device, leg.to_host, static_cast<unsigned long long>(card.bytes));
    std::printf("    %.3f s at %u baud; ratio line/measured %.3f (target >= 0.9)%s\n", line, kBaud,
                leg.seconds > 0 ? line / leg.seconds : 0.0, leg.ok ? "" : " (FAILED)");
}

void print_unpaced(const char* what, const Leg& leg, const CardBytes& card) {
    std::printf("  %s: %.3f s, %.2f MiB/s of card bytes%s\n", what, leg.seconds,
                leg.seconds > 0 ? card.bytes / leg.seconds / (1024.0 * 1024.0) : 0.0, leg.ok ? "" : " (FAILED)");
}

} // namespace

int main() {
    char dir[] = "/tmp/vukra-image-transfer-XXXXXX";
    if (mkdtemp(dir) == nullptr || chdir(dir) != 0) return 1;
    std::filesystem::copy_file(VUKRA_EXAMPLES_DIR "/table.xml", "table.xml");
    const bool made = make_card();
    const CardBytes card = card_bytes(kCard);
    Leg paced_get, paced_put, get, put;
    Changed changed;
    bool paced = false, unpaced = made;
    if (made) {
        bench::MutedStdout muted;
        paced = run(true, paced_get, paced_put, &changed);
        std::vector<Leg> gets(kUnpacedRuns), puts(kUnpacedRuns);
        for (int i = 0; i < kUnpacedRuns; ++i) unpaced = run(false, gets[i], puts[i]) && unpaced;
        get = median(gets);
        put = median(puts);
    }
    std::filesystem::current_path("/tmp");
    std::filesystem::remove_all(dir);
    if (!made) {
        std::printf("the card could not be made\n");
        return 1;
    }

    std::printf("an 8 MiB card holding 1 MiB of files (%u of %u groups used) through vukra-sim and a line\n"
                "at %u baud (a relay that paces both directions; counted: every byte on the line,\n"
                "SLIP framing and escapes and the timer's status requests included):\n",
                card.used_groups, card.groups, kBaud);
    print_paced("getfs", paced_get, card);
    print_paced("putfs", paced_put, card);
    std::printf("  one file changed (10 KiB of /f10 rewritten under /mem), then put back:\n"
                "  putfs --changed: %.3f s, %d card bytes written; the line carried %lu bytes to the device\n"
                "    and %lu back; %.1f times faster than the full putfs of the same card above (target >= 20)\n"
                "  of which the check (the device's header, map and metadata read back and compared): %.3f s\n",
                changed.put.seconds, changed.written, changed.put.to_device, changed.put.to_host,
                changed.put.seconds > 0 ? paced_put.seconds / changed.put.seconds : 0.0, changed.check_seconds);
    if (!paced) std::printf("  the paced run FAILED\n");
    std::printf("the same straight to the sim, median of %d runs:\n", kUnpacedRuns);
    print_unpaced("getfs", get, card);
    print_unpaced("putfs", put, card);
    if (!unpaced) std::printf("  the unpaced run FAILED\n");
    return paced && unpaced ? 0 : 1;
}
