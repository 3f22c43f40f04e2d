// The card copied into the library's local card (getfs), followed from a
// second thread through session_info and once cancelled from it; files
// changed under "/mem" in the mirror and the card sent back (putfs), which
// a fresh getfs then shows on the device.
#include "host_app.h"

#include <cstdio>
#include <vector>

namespace host {

namespace {

// A second host thread beside a transfer: it records every change of
// direction, phase and progress, and with cancel set stops the transfer
// (cancelfs) once it is in its data phase.
struct Watch {
    modbus_vukra_session* s = nullptr;
    bool cancel = false;
    std::atomic<bool> stop{false};
    std::int32_t cancel_result = 1;
    std::vector<Info> seen;
};

DWORD WINAPI watch_transfer(void* argument) {
    Watch& w = *static_cast<Watch*>(argument);
    while (!w.stop) {
        const Info i = info_of(w.s);
        const bool changed = w.seen.empty() || w.seen.back().phase() != i.phase() ||
                             w.seen.back().progress() != i.progress() || w.seen.back().direction() != i.direction();
        if (changed) w.seen.push_back(i);
        if (w.cancel && i.direction() == 1 && i.phase() == 2) {
            w.cancel_result = VK(cancelfs)(w.s);
            break;
        }
        Sleep(1);
    }
    return 0;
}

// Runs getfs or putfs with the watcher beside it; the transfer's result.
std::int32_t watched_transfer(modbus_vukra_session* s, bool put, Watch& w) {
    w.s = s;
    HANDLE thread = CreateThread(nullptr, 0, watch_transfer, &w, 0, nullptr);
    if (thread == nullptr) return -2;
    const DWORD start = GetTickCount();
    const std::int32_t result = put ? VK(protected_putfs)(s) : VK(protected_getfs)(s);
    std::printf("# %s took %lu ms\n", put ? "putfs" : "getfs", GetTickCount() - start);
    w.stop = true;
    WaitForSingleObject(thread, INFINITE);
    CloseHandle(thread);
    w.seen.push_back(info_of(s)); // how it ended
    return result;
}

// Whether the watcher saw direction's transfer reach its data phase, the
// phases in order, progress never falling within a phase, and the end done
// at 100; a get, paced by the device, also in its header phase with its
// progress growing (a put may pass its header between two looks).
bool phases_in_order(const Watch& w, std::int32_t direction, bool paced, std::string& shown) {
    bool in_order = true, grew = false, header = false, data = false;
    const Info* previous = nullptr;
    for (const Info& i : w.seen) {
        char step[32];
        std::snprintf(step, sizeof step, " %d/%d", i.phase(), i.progress());
        shown += step;
        if (i.direction() != direction) continue;
        header = header || i.phase() == 1;
        data = data || i.phase() == 2;
        if (previous != nullptr && i.phase() == previous->phase()) {
            in_order = in_order && i.progress() >= previous->progress();
            grew = grew || i.progress() > previous->progress();
        }
        in_order = in_order && (previous == nullptr || i.phase() >= previous->phase()) &&
                   !(i.phase() < 4 && i.progress() == 100 && i.phase() != 1);
        previous = &i;
    }
    const bool done = previous != nullptr && previous->phase() == 4 && previous->progress() == 100;
    return in_order && data && done && (!paced || (header && grew));
}

bool file_exists(modbus_vukra_session* s, const char* path) { return VK(protected_lookup)(s, path, nullptr) == 0; }

// A whole getfs (paced by the device) or putfs with the watcher beside it:
// it succeeds and the watcher saw its phases in order.
void watched_and_checked(modbus_vukra_session* s, bool put, const char* seen_what) {
    Watch w;
    const std::int32_t result = watched_transfer(s, put, w);
    check(result == 0, std::string(put ? "putfs" : "getfs") + " (error word " + std::to_string(VK(session_error)(s)) + ")");
    std::string shown;
    const bool seen = phases_in_order(w, put ? 2 : 1, !put, shown);
    check(seen, seen_what + shown);
}

const std::string kMirrorText = "written in the mirror under /mem\r\n";

} // namespace

void mirror(modbus_vukra_session* s) {
    watched_and_checked(s, false, "a second thread saw getfs's phases and its progress grow:");
    const Info done = info_of(s);
    check(done.direction() == 1 && done.phase() == 4 && done.progress() == 100 &&
              GetFileAttributesA("sdcard0.o") != INVALID_FILE_ATTRIBUTES,
          "session_info: get, done, 100; the local card sdcard0.o is in the working folder");
    check(file_text(s, "/mem/work/data.txt") == kDeviceText && file_text(s, "/mem/big.bin") == kDeviceBig &&
              create_with(s, "/mem/mirror-only.txt", kMirrorText) && file_text(s, "/mem/mirror-only.txt") == kMirrorText,
          "the mirror holds what was written on the device; a file made in it");

    Watch w;
    w.cancel = true;
    const std::int32_t result = watched_transfer(s, false, w);
    const Info i = info_of(s);
    check(w.cancel_result == 0 && result == -1 && VK(session_error)(s) == -11 && i.phase() == 2 && i.progress() < 100,
          "cancelfs from a second thread: getfs -1, error -11, stopped in the data phase below 100");
    check(file_text(s, "/mem/work/data.txt") == kDeviceText && !file_exists(s, "/mem/mirror-only.txt"),
          "after the cancel, /mem is the device's again");

    check(VK(protected_getfs)(s) == 0 && create_with(s, "/mem/work/new.txt", kMirrorText) &&
              VK(protected_rename)(s, "/mem/work/data.txt", "/mem/renamed.txt") == 0 &&
              VK(protected_remove)(s, "/mem/work/a-long-name-that-fills-the-listing-pages-quickly-1") == 0 &&
              VK(protected_mkdir)(s, "/mem/made") == 0,
          "getfs after the cancel; create, rename, remove and mkdir in the mirror");
    watched_and_checked(s, true, "a second thread saw putfs's phases:");

    // A file only the old mirror has: the fresh copy from the device drops it.
    check(create_with(s, "/mem/local-only.txt", kMirrorText) && VK(protected_getfs)(s) == 0 &&
              !file_exists(s, "/mem/local-only.txt"),
          "a fresh getfs comes from the device");
    check(file_text(s, "/mem/work/new.txt") == kMirrorText && file_text(s, "/mem/renamed.txt") == kDeviceText &&
              !file_exists(s, "/mem/work/data.txt") &&
              !file_exists(s, "/mem/work/a-long-name-that-fills-the-listing-pages-quickly-1") && file_exists(s, "/mem/made"),
          "the device has the mirror's changes: new, renamed, removed and made");
}

} // namespace host
