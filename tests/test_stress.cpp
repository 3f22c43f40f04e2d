// Four host threads and the timer share one mounted Session on vukra-sim
// for a few seconds: registers, files, listings, fsstat, and session_info
// from the timer's notification.
// A host-side mutex holds each sequence on the Session's current handle
// (copies and their cancel beside a watching thread: test_image_transfer).
// Run under the sanitizers too.
#include "support/session_fixture.h"
#include "support/sim_process.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

using namespace vukra;
using Clock = std::chrono::steady_clock;

namespace {

constexpr auto kRunFor = std::chrono::seconds(4);
// Past this, a thread that has not come back is taken for a deadlock (a
// single call waits 4 s at most for the device).
constexpr auto kJoinWithin = std::chrono::seconds(60);

struct Owned {
    const char* reg;
    std::int32_t bytes;
};
// Read-write registers of the example table, one per thread.
constexpr Owned kOwned[4] = {{"setpoint", 4}, {"offset_trim", 2}, {"energy", 4}, {"gain", 4}};

std::atomic<int> notifications{0};
std::atomic<int> bad_notifications{0};

void on_status(modbus_vukra_session* s) {
    std::int32_t info[MODBUS_VUKRA_INFO_WORDS];
    if (modbus_vukra_op_session_info(s, info) != 0) ++bad_notifications;
    ++notifications;
}

struct Shared {
    modbus_vukra_session* s;
    Clock::time_point until;
    std::mutex handle;            // the host's: one sequence on the current handle at a time
    std::atomic<int> calls{0};
    std::atomic<int> finished{0};
    std::mutex report_lock;
    std::condition_variable all_finished;
    std::vector<std::string> faults;

    void fault(const std::string& what) {
        std::lock_guard<std::mutex> lock(report_lock);
        if (faults.size() < 20)
            faults.push_back(what + " (error word " + std::to_string(modbus_vukra_op_session_error(s)) + ")");
    }
    bool check(bool ok, const std::string& what) {
        ++calls;
        if (!ok) fault(what);
        return ok;
    }
};

std::string content_of(int thread, int round) {
    std::string text(static_cast<std::size_t>(1 + (round * 397 + thread * 131) % 2500), '\0');
    for (std::size_t i = 0; i < text.size(); ++i) text[i] = static_cast<char>('a' + (i * 7 + round + thread) % 26);
    return text;
}

void registers(Shared& x, int thread, int round) {
    const Owned& own = kOwned[thread];
    const std::uint32_t value = static_cast<std::uint32_t>(thread) << 28 | static_cast<std::uint32_t>(round);
    std::uint8_t written[4], read[4] = {};
    std::memcpy(written, &value, sizeof written);
    x.check(modbus_vukra_op_protected_writereg(x.s, own.reg, written, own.bytes) == own.bytes,
            std::string("writereg ") + own.reg);
    if (x.check(modbus_vukra_op_protected_readreg(x.s, own.reg, read, own.bytes) == own.bytes,
                std::string("readreg ") + own.reg))
        x.check(std::memcmp(read, written, static_cast<std::size_t>(own.bytes)) == 0,
                std::string(own.reg) + " reads back another value than its thread wrote");
    // A neighbour's register: only its size is known here.
    const Owned& other = kOwned[(thread + 1) % 4];
    x.check(modbus_vukra_op_protected_readreg(x.s, other.reg, read, other.bytes) == other.bytes,
            std::string("readreg ") + other.reg);
}

// The thread's file made, read back, listed and removed, as one sequence.
void files(Shared& x, int thread, int round) {
    const std::string name = "stress" + std::to_string(thread);
    const std::string path = "/mem/" + name;
    const std::string text = content_of(thread, round);
    {
        std::lock_guard<std::mutex> sequence(x.handle);
        if (!x.check(modbus_vukra_op_protected_create(x.s, path.c_str()) == 0, "create " + path)) return;
        for (std::size_t done = 0; done < text.size();) {
            const auto n = static_cast<std::int32_t>(std::min<std::size_t>(text.size() - done, 1024));
            if (!x.check(modbus_vukra_op_protected_write(x.s, text.data() + done, n) == n, "write " + path)) return;
            done += static_cast<std::size_t>(n);
        }
        if (!x.check(modbus_vukra_op_protected_lookup(x.s, path.c_str(), nullptr) == 0, "lookup " + path)) return;
        x.check(test::read_all(x.s) == text, path + " reads back other bytes than were written");

        if (x.check(modbus_vukra_op_protected_lookup(x.s, "/mem", nullptr) == 0, "lookup /mem")) {
            std::set<std::string> listed;
            std::int32_t eof = 0;
            for (int page = 0; eof == 0 && page < 50; ++page) {
                modbus_vukra_dir_entry* first = nullptr;
                eof = modbus_vukra_op_protected_readdir(x.s, &first);
                for (const std::string& entry : test::take_names(first)) listed.insert(entry);
                if (!x.check(eof >= 0, "readdir /mem")) break;
            }
            x.check(listed.count(name) == 1, "readdir /mem does not list " + name);
        }
        x.check(modbus_vukra_op_protected_remove(x.s, path.c_str()) == 0, "remove " + path);
    }
    modbus_vukra_usage usage{};
    x.check(modbus_vukra_op_protected_fsstat(x.s, "/mem", &usage) == 0 && usage.words[0] == 512, "fsstat /mem");
}

void host_thread(Shared& x, int thread) {
    for (int round = 0; Clock::now() < x.until; ++round) {
        registers(x, thread, round);
        if (round % 3 == thread % 3) files(x, thread, round);
    }
    std::lock_guard<std::mutex> lock(x.report_lock);
    ++x.finished;
    x.all_finished.notify_all();
}

struct Stress : test::SessionFixture {
    // A small card of 256 KiB with one file on it.
    void make_card() {
        test::write_file(card, std::string(256 * 1024, '\0'));
        const std::string ufs = std::string(VUKRA_UFS_PATH) + " " + card;
        test::write_file("hello.txt", "hello\n");
        ASSERT_EQ(std::system((ufs + " mkfs >/dev/null && " + ufs + " put hello.txt /hello >/dev/null").c_str()), 0);
    }
};

TEST_F(Stress, FourHostThreadsAndTheTimerShareOneSession) {
    make_card();
    if (HasFatalFailure()) return;
    std::optional<test::SimProcess> sim{std::in_place, std::vector<std::string>{"--table", "table.xml", "--image", card},
                                        true};
    Shared x;
    x.s = open_mounted(sim->port());
    ASSERT_NE(x.s, nullptr);
    ASSERT_EQ(modbus_vukra_op_session_callback(x.s, on_status), 0);

    testing::internal::CaptureStdout(); // each register transfer prints its frames
    x.until = Clock::now() + kRunFor;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) threads.emplace_back(host_thread, std::ref(x), i);
    {
        std::unique_lock<std::mutex> lock(x.report_lock);
        if (!x.all_finished.wait_until(lock, x.until + kJoinWithin, [&] { return x.finished == 4; })) {
            std::fprintf(stderr, "host threads still running %d s after the end: a deadlock\n",
                         static_cast<int>(kJoinWithin.count()));
            std::abort(); // they cannot be joined, and the session cannot be closed under them
        }
    }
    for (std::thread& t : threads) t.join();
    // The timer notifies once a second once mounted, but only between the
    // host's calls: wait for one if the host kept it away so far.
    for (int i = 0; i < 200 && notifications.load() == 0; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(50));
    testing::internal::GetCapturedStdout();

    for (const std::string& f : x.faults) ADD_FAILURE() << f;
    EXPECT_GT(x.calls.load(), 200);
    EXPECT_GT(notifications.load(), 0) << "the timer's status request and the host callback";
    EXPECT_EQ(bad_notifications.load(), 0);
    std::printf("%d calls, %d notifications\n", x.calls.load(), notifications.load());

    close(x.s);
    sim.reset();
    // The device's card is a sound volume after all the files made and removed.
    EXPECT_EQ(std::system((std::string(VUKRA_UFS_PATH) + " " + card + " check >/dev/null 2>&1").c_str()), 0);
}

} // namespace
