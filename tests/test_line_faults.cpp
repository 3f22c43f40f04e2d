// The library against a device that misbehaves on the line: vukra-sim
// staging silence, damage, cut, doubled, late and wrong replies
// (docs/reliability.md gives what each case shows; an endless listing:
// vukra_fs_tool).
#include "modbus_vukra.h"
#include "platform/platform.h"
#include "session/session.h"
#include "support/session_fixture.h"
#include "support/sim_process.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace {

using vukra::test::read_all;
using vukra::test::SimProcess;

// A short time-out keeps the silent cases quick; the bound on a failing
// call is a bound on a hang (a loaded machine is slow), not a speed test.
constexpr std::uint32_t kTimeoutMs = 300;
constexpr std::uint32_t kHangBoundMs = kTimeoutMs + 1000;

const std::string kContent = "line faults: the file's bytes, one line\n";

struct LineFaults : vukra::test::SessionFixture {
    std::unique_ptr<SimProcess> sim;
    modbus_vukra_session* s = nullptr;

    // A sim on the card with these faults and a session on it, its port's
    // time-out short, mounted when asked.
    void start(std::vector<std::string> faults, bool mount = true) {
        std::vector<std::string> args{"--table", "table.xml", "--image", card};
        args.insert(args.end(), faults.begin(), faults.end());
        sim = std::make_unique<SimProcess>(args, true);
        s = open(sim->port());
        ASSERT_NE(s, nullptr);
        s->port->timeout_ms = kTimeoutMs;
        if (mount) {
            ASSERT_EQ(modbus_vukra_op_protected_mount(s), 0);
        }
    }
    void stop() {
        if (s != nullptr) close(s);
        s = nullptr;
        sim.reset();
    }
    ~LineFaults() override { stop(); }

    // Puts /mem/f with kContent on the card through a sound line.
    void make_file() {
        start({});
        ASSERT_EQ(modbus_vukra_op_protected_create(s, "/mem/f"), 0);
        ASSERT_EQ(modbus_vukra_op_protected_write(s, kContent.data(), static_cast<std::int32_t>(kContent.size())),
                  static_cast<std::int32_t>(kContent.size()));
        stop();
    }
};

// Milliseconds an operation took, with its stdout (the link's frames) kept away.
std::uint32_t timed(const std::function<void()>& operation) {
    testing::internal::CaptureStdout();
    const std::uint32_t start = vukra::platform::clock_ms();
    operation();
    const std::uint32_t took = vukra::platform::clock_ms() - start;
    testing::internal::GetCapturedStdout();
    return took;
}

// The register's value read through the export, or a failure text.
template <typename T>
std::string read_as_text(modbus_vukra_session* s, const char* name) {
    T value{};
    testing::internal::CaptureStdout();
    const std::int32_t n = modbus_vukra_op_protected_readreg(s, name, &value, sizeof value);
    testing::internal::GetCapturedStdout();
    if (n != static_cast<std::int32_t>(sizeof value)) return "<failed>";
    char text[MODBUS_VUKRA_TEXT_SIZE];
    return modbus_vukra_op_register_btoa(text, name, &value) ? text : "<no text>";
}

// Registers of four sizes with their values in the example table: a reply
// taken for the wrong one of them never has the right size.
struct Known {
    const char* name;
    std::string (*read)(modbus_vukra_session*, const char*);
    const char* value;
};
const Known kKnown[] = {{"offset_trim", read_as_text<std::int16_t>, "-12"},
                        {"energy", read_as_text<std::int32_t>, "-100000"},
                        {"probe_raw", read_as_text<std::int16_t[3]>, "100\n-200\n300\n"},
                        {"history", read_as_text<std::int32_t[2]>, "70000\n-5\n"}};

// Reads the known registers round after round: each read gives the true
// value or fails. Returns the reads that failed.
int read_rounds(modbus_vukra_session* s, int rounds) {
    int failed = 0;
    for (int i = 0; i < rounds; ++i)
        for (const Known& k : kKnown) {
            const std::string got = k.read(s, k.name);
            if (got == "<failed>")
                ++failed;
            else
                EXPECT_EQ(got, k.value) << k.name << " in round " << i;
        }
    return failed;
}

TEST_F(LineFaults, SilenceFailsWithinTheTimeOutAndTheNextOperationWorks) {
    struct Case {
        const char* what;
        std::vector<std::string> faults;
        std::function<void(modbus_vukra_session*)> before;
        std::function<std::int32_t(modbus_vukra_session*)> operation;
        std::int32_t once_back; // the operation's result when the device is back
        std::int32_t error;     // the error word after the failure
    };
    const auto read_file = [](modbus_vukra_session* t) {
        char buffer[8];
        EXPECT_EQ(modbus_vukra_op_protected_lookup(t, "/mem/f", nullptr), 0);
        EXPECT_EQ(modbus_vukra_op_protected_read(t, buffer, sizeof buffer), 8);
        return modbus_vukra_op_protected_read(t, buffer, sizeof buffer); // the second read
    };
    const std::vector<Case> cases = {
        {"register read", {"--drop-after", "1", "--drop-for", "1"}, nullptr,
         [](modbus_vukra_session* t) {
             std::int32_t energy = 0;
             return modbus_vukra_op_protected_readreg(t, "energy", &energy, 4);
         },
         4, 0}, // a register call leaves the error word as the mount left it
        // The first read request (1) is answered, the second is not.
        {"file read", {"--count-only", "5", "--drop-after", "1", "--drop-for", "1"}, nullptr, read_file, 8, 513},
        // putfs --changed's fourth write (past the data) goes unanswered; the
        // put again takes the device's card that holds part of what it writes.
        {"putfs --changed", {"--count-only", "6", "--drop-after", "3", "--drop-for", "1"},
         [](modbus_vukra_session* t) {
             ASSERT_EQ(modbus_vukra_op_protected_getfs(t), 0);
             ASSERT_EQ(modbus_vukra_op_protected_create(t, "/mem/g"), 0);
             ASSERT_EQ(modbus_vukra_op_protected_write(t, "changed", 7), 7);
         },
         [](modbus_vukra_session* t) { return modbus_vukra_protected_putfs_changed(t) < 0 ? -1 : 0; }, 0, 513},
    };
    make_file();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        start(c.faults);
        if (c.before) timed([&] { c.before(s); });
        std::int32_t result = 0;
        const std::uint32_t took = timed([&] { result = c.operation(s); });
        EXPECT_EQ(result, -1);
        EXPECT_EQ(modbus_vukra_op_session_error(s), c.error);
        EXPECT_LT(took, kHangBoundMs);
        // The device is back: the same operation goes through.
        timed([&] { result = c.operation(s); });
        EXPECT_EQ(result, c.once_back);
        stop();
    }
}

TEST_F(LineFaults, DamagedRegisterRepliesNeverGiveAWrongValue) {
    start({"--corrupt", "0.5", "--seed", "7"}, false);
    const int failed = read_rounds(s, 250); // 1,000 reads
    EXPECT_GT(failed, 400);
    EXPECT_LT(failed, 600);
}

TEST_F(LineFaults, RepliesCutAtEveryPointAreNeverTaken) {
    // A read reply of 2 words is 19 characters: cut after 0 to 18.
    start({"--cut", "each", "--fault-for", "19"}, false);
    timed([&] {
        for (int cut = 0; cut < 19; ++cut) {
            std::int32_t energy = 0;
            EXPECT_EQ(modbus_vukra_op_protected_readreg(s, "energy", &energy, 4), -1) << "cut after " << cut;
        }
    });
    EXPECT_EQ(read_as_text<std::int32_t>(s, "energy"), "-100000");
}

// A file transaction purges the line before its request: a doubled reply's
// copy never reaches the next request. A reply later than the time-out
// that comes while the next request waits is taken as its reply (the
// header is not checked); the purge of the request after clears what is left.
TEST_F(LineFaults, FileRequestsPurgeWhatEarlierRepliesLeft) {
    make_file();
    // The purge clears what has arrived: each copy (the mount's too) is
    // given time to come (a slow device may send it after the host's next
    // purge, and then it is taken as the next reply, as the late reply
    // below is).
    const auto settled = [](std::int32_t result) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        return result;
    };
    start({"--twice"});
    settled(0);
    modbus_vukra_usage sound{};
    ASSERT_EQ(settled(modbus_vukra_op_protected_fsstat(s, "/mem", &sound)), 0);
    for (int i = 0; i < 5; ++i) {
        modbus_vukra_usage usage{};
        ASSERT_EQ(settled(modbus_vukra_op_protected_lookup(s, "/mem/f", nullptr)), 0);
        char buffer[64] = {};
        ASSERT_EQ(settled(modbus_vukra_op_protected_read(s, buffer, sizeof buffer)),
                  static_cast<std::int32_t>(kContent.size()));
        EXPECT_EQ(std::string(buffer), kContent);
        ASSERT_EQ(settled(modbus_vukra_op_protected_fsstat(s, "/mem", &usage)), 0);
        EXPECT_EQ(std::memcmp(&usage, &sound, sizeof usage), 0);
    }
    stop();

    start({"--late", "500", "--fault-after", "1", "--fault-for", "1"});
    std::int32_t result = 0;
    EXPECT_LT(timed([&] { result = modbus_vukra_op_protected_lookup(s, "/mem/f", nullptr); }), kHangBoundMs);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(modbus_vukra_op_session_error(s), 513);
    // The lookup's reply comes while fsstat waits and is decoded as
    // fsstat's: whatever it gives, it stays in bounds and ends in time.
    modbus_vukra_usage usage{};
    EXPECT_LT(timed([&] { result = modbus_vukra_op_protected_fsstat(s, "/mem", &usage); }), kHangBoundMs);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    ASSERT_EQ(modbus_vukra_op_protected_lookup(s, "/mem/f", nullptr), 0);
    EXPECT_EQ(read_all(s), kContent);
}

} // namespace
