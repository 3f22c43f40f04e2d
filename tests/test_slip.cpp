// SLIP framing on a pseudo-terminal: byte vectors both ways.
#include "link/serial_port.h"
#include "link/slip.h"
#include "support/pty_pair.h"

#include <gtest/gtest.h>

#include <termios.h>

#include <vector>

using namespace vukra;
using Bytes = std::vector<std::uint8_t>;

namespace {

constexpr link::SerialSettings kQuick{400000, 'N', 8, 1, 300};

struct SlipTest : ::testing::Test {
    test::PtyPair pty;
    link::Port* port = link::serial_open(0, pty.slave_path.c_str(), 0, &kQuick);
    ~SlipTest() override { link::serial_close(port); }

    // One packet into a buffer of capacity; {-1} when none came.
    Bytes receive(std::size_t capacity) {
        Bytes out(capacity + 8, 0xEE);
        long n = link::slip_receive(port, out.data(), capacity);
        if (n < 0) return {0xFF, 0xFF};
        EXPECT_EQ(out[static_cast<std::size_t>(n)], 0xEE) << "wrote past the packet";
        out.resize(static_cast<std::size_t>(n));
        return out;
    }
};

TEST_F(SlipTest, SendEscapesEndAndEscAndFramesWithEnd) {
    Bytes payload{0x01, 0xC0, 0x02, 0xDB, 0x03};
    EXPECT_EQ(link::slip_send(port, payload.data(), payload.size()), 5);
    EXPECT_EQ(pty.receive(9), (Bytes{0xC0, 0x01, 0xDB, 0xDC, 0x02, 0xDB, 0xDD, 0x03, 0xC0}));
    EXPECT_EQ(link::slip_send(port, nullptr, 0), 0);
    EXPECT_EQ(pty.receive(2), (Bytes{0xC0, 0xC0}));

    Bytes longer(5000, 0xC0); // escapes to 10000 bytes, past any one buffer
    longer[4999] = 0x42;
    link::slip_send(port, longer.data(), longer.size());
    Bytes expected{0xC0};
    for (int i = 0; i < 4999; ++i) expected.insert(expected.end(), {0xDB, 0xDC});
    expected.insert(expected.end(), {0x42, 0xC0});
    EXPECT_EQ(pty.receive(expected.size()), expected);
}

TEST_F(SlipTest, ReceiveUndoesEscapesJoinsPiecesAndCutsAtTheCapacity) {
    pty.send({0xC0, 0xC0, 0xC0, 0x10, 0xDB, 0xDC, 0xDB, 0xDD, 0xDB, 0x41, 0x20, 0xC0});
    EXPECT_EQ(receive(64), (Bytes{0x10, 0xC0, 0xDB, 0x41, 0x20}));
    pty.send({0xC0, 'a', 'b', 0xC0, 0xC0, 'c', 0xC0, 'd'});
    EXPECT_EQ(receive(64), test::bytes_of("ab"));
    EXPECT_EQ(receive(64), test::bytes_of("c"));
    pty.send({'e', 0xC0});
    EXPECT_EQ(receive(64), test::bytes_of("de"));
    pty.send({0xC0, '1', '2', '3', '4', '5', '6', 0xC0});
    EXPECT_EQ(receive(4), test::bytes_of("1234")); // '5' is dropped
    EXPECT_EQ(receive(4), test::bytes_of("6"));
    // Silence, a packet without its END, an escape cut off by silence.
    const Bytes none{0xFF, 0xFF};
    EXPECT_EQ(receive(16), none);
    pty.send({0xC0, 'x', 'y', 'z'});
    EXPECT_EQ(receive(16), none);
    pty.send({0xC0, 'q', 0xDB});
    EXPECT_EQ(receive(16), none);
}

TEST(SlipPort, AMissingPortFailsItsTransfersAndEveryByteValueCrossesARealOne) {
    link::Port* missing = link::serial_open(0, "/dev/no-such-port", 0, &kQuick);
    ASSERT_NE(missing, nullptr);
    std::uint8_t buffer[8];
    EXPECT_EQ(link::slip_receive(missing, buffer, sizeof buffer), -1);
    EXPECT_EQ(link::serial_read(missing, buffer, sizeof buffer), -1);
    EXPECT_EQ(link::slip_send(missing, "x", 1), 1); // the write's failure is not reported
    link::serial_close(missing);

    // Whatever the settings ask, the line itself carries 8-bit bytes.
    test::PtyPair pty;
    termios line{}; // as a line may come: CR turned into LF, XON/XOFF honoured
    ::tcgetattr(pty.slave, &line);
    line.c_iflag |= ICRNL | IXON;
    ::tcsetattr(pty.slave, TCSANOW, &line);
    const link::SerialSettings odd{400000, 'E', 7, 2, 250};
    link::Port* port = link::serial_open(0, pty.slave_path.c_str(), 0, &odd);
    Bytes all(256), got(256);
    for (int i = 0; i < 256; ++i) all[static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(i);
    pty.send(all);
    for (std::size_t n = 0; n < got.size();) {
        long r = link::serial_read(port, got.data() + n, got.size() - n);
        ASSERT_GT(r, 0);
        n += static_cast<std::size_t>(r);
    }
    EXPECT_EQ(got, all);
    link::serial_close(port);
}

} // namespace
