// A device that never stops talking, on a pseudo-terminal and on a TCP
// connection: every register and file exchange still ends, and fails, once
// the port's time-out has run out since its request. Without that bound the
// calls below never return (the test's TIMEOUT catches it).
#include "modbus_vukra.h"
#include "platform/platform.h"
#include "session/session.h"
#include "support/session_fixture.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <fcntl.h>
#include <string>
#include <thread>
#include <unistd.h>

namespace {

namespace platform = vukra::platform;

constexpr std::uint32_t kTimeoutMs = 300;

struct Talk {
    const char* what;
    std::string bytes; // sent again and again
    int pause_ms;      // between two sends: always below the time-out
    bool whole_packets;
};
const Talk kTalks[] = {
    {"END bytes without end", std::string(512, '\xC0'), 1, false},
    {"frames without CR LF", "\xC0:0103\xC0", 1, true},
    {"a byte now and then", "A", kTimeoutMs / 3, false},
};

// Sends its talk on fd until the end of its scope, never blocking on a
// line that nobody reads.
struct Talker {
    std::atomic<bool> stop{false};
    std::thread thread;
    Talker(int fd, const Talk& talk) {
        (void)::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
        thread = std::thread([this, fd, &talk] {
            while (!stop) {
                (void)!::write(fd, talk.bytes.data(), talk.bytes.size());
                std::this_thread::sleep_for(std::chrono::milliseconds(talk.pause_ms));
            }
        });
    }
    ~Talker() {
        stop = true;
        thread.join();
    }
};

struct EndlessLine : vukra::test::SessionFixture {
    // A register read, and a file request where the talk holds no whole
    // packet (a whole one is a reply, if a wrong one), both fail.
    void expect_calls_end(modbus_vukra_session* s, const Talk& talk) {
        ASSERT_NE(s, nullptr);
        s->port->timeout_ms = kTimeoutMs;
        testing::internal::CaptureStdout();
        std::int32_t energy = 0;
        EXPECT_EQ(modbus_vukra_op_protected_readreg(s, "energy", &energy, 4), -1);
        if (!talk.whole_packets) {
            EXPECT_EQ(modbus_vukra_op_protected_mount(s), -1);
            EXPECT_EQ(modbus_vukra_op_session_error(s), 513);
        }
        testing::internal::GetCapturedStdout();
        close(s);
    }
};

TEST_F(EndlessLine, EveryExchangeEndsOnASerialLineAndOnTcp) {
    for (const Talk& talk : kTalks) {
        SCOPED_TRACE(talk.what);
        platform::PseudoTerminal pty;
        ASSERT_TRUE(platform::pty_open(pty));
        {
            Talker talker(static_cast<int>(pty.master), talk);
            expect_calls_end(open(pty.path), talk);
        }
        platform::serial_close(pty.master);
        platform::serial_close(pty.slave);

        char why[200] = "";
        const platform::NativePort listener = platform::tcp_listen("127.0.0.1", "0", why, sizeof why);
        ASSERT_NE(listener, platform::kInvalidPort) << why;
        modbus_vukra_session* s = open("tcp://127.0.0.1:" + std::to_string(platform::tcp_local_port(listener)));
        const platform::NativePort device = platform::tcp_accept(listener);
        {
            Talker talker(static_cast<int>(device), talk);
            expect_calls_end(s, talk);
        }
        platform::tcp_close(device);
        platform::tcp_close(listener);
    }
}

} // namespace
