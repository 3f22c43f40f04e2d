// The Modbus ASCII frame codec: building, checking, decoding, receiving.
#include "link/ascii_frame.h"
#include "link/slip.h"
#include "support/pty_pair.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace vukra;

namespace {

std::string text_of(const link::AsciiFrame& f) {
    return std::string(reinterpret_cast<const char*>(f.buffer), static_cast<std::size_t>(f.length));
}

struct Built {
    std::uint8_t storage[link::kFrameCapacity];
    link::AsciiFrame frame;
    Built() { link::frame_init(frame, storage, link::kFrameCapacity); }
};

int check(std::string text) {
    const auto n = static_cast<std::int32_t>(text.size());
    link::AsciiFrame f{reinterpret_cast<std::uint8_t*>(text.data()), 0, n, n, 0};
    return link::frame_check(f);
}

TEST(AsciiFrame, BuildsRequestsWithTheirLrcAndPrintsThem) {
    Built b;
    link::frame_put_byte(b.frame, 1);
    link::frame_put_byte(b.frame, 3);
    std::uint16_t address = 0x0100, count = 2;
    link::frame_put_field(b.frame, &address, 2);
    link::frame_put_field(b.frame, &count, 2);
    link::frame_put_lrc(b.frame);
    link::frame_end(b.frame);
    EXPECT_EQ(text_of(b.frame), ":010301000002F9\r\n");
    EXPECT_EQ(b.frame.position, b.frame.length);
    EXPECT_EQ(link::frame_check(b.frame), 1);
    testing::internal::CaptureStdout();
    link::frame_print(b.frame);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Frame : [:010301000002F9<CR><LF>]\n");

    Built w; // a write request: its sum 0x3E, its LRC 0xC2
    for (std::uint8_t byte : {0x01, 0x10, 0x00, 0x00, 0x00, 0x01, 0x02, 0x00, 0x2A}) link::frame_put_byte(w.frame, byte);
    EXPECT_EQ(w.frame.sum, 0x3E);
    link::frame_put_lrc(w.frame);
    EXPECT_EQ(text_of(w.frame).substr(19), "C2");

    std::uint8_t small[8] = {}; // building stops at the capacity
    link::AsciiFrame f;
    link::frame_init(f, small, 7);
    for (int i = 0; i < 10; ++i) link::frame_put_byte(f, 0xAB);
    link::frame_end(f);
    EXPECT_LE(f.length, 7);
    EXPECT_EQ(small[7], 0);
}

TEST(AsciiFrame, FieldsGoMostSignificantFirstAndDecodeToHostOrder) {
    Built b;
    std::uint16_t v16 = 0x1234;
    std::uint32_t v32 = 0x89ABCDEF;
    link::frame_put_field(b.frame, &v16, 2);
    link::frame_put_field(b.frame, &v32, 4);
    EXPECT_EQ(text_of(b.frame), ":123489ABCDEF");
    std::uint32_t d32 = 0;
    link::hex_decode(reinterpret_cast<const std::uint8_t*>("89ABCDEF"), 4, 0, &d32);
    EXPECT_EQ(d32, 0x89ABCDEFu);
    std::uint16_t lower = 0;
    link::hex_decode(reinterpret_cast<const std::uint8_t*>("fa0b"), 2, 0, &lower);
    EXPECT_EQ(lower, 0xFA0B);
}

TEST(AsciiFrame, CheckNeedsStartLengthAndCrLfAndReportsABadLrc) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(check(":0103FC\r\n"), 1); // 9 characters: address, function, LRC
    EXPECT_EQ(check(":01030AF2\r\n"), 1);
    for (const char* refused : {":0103F\r\n", "x0103FC\r\n", ":0103FC\n\n"}) // short, no start, no CR LF
        EXPECT_EQ(check(refused), 0) << refused;
    EXPECT_EQ(testing::internal::GetCapturedStdout(), ""); // silent failures
    testing::internal::CaptureStdout();
    EXPECT_EQ(check(":0103FD\r\n"), 0);
    EXPECT_EQ(check(":01030AF3\r\n"), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Erreur LRC\nErreur LRC\n");
}

struct FrameReceive : ::testing::Test {
    static constexpr link::SerialSettings kQuick{400000, 'N', 8, 1, 300};
    test::PtyPair pty;
    link::Port* port = link::serial_open(0, pty.slave_path.c_str(), 0, &kQuick);
    Built reply;
    ~FrameReceive() override { link::serial_close(port); }
    std::string received() { return link::frame_receive(port, reply.frame) == 1 ? text_of(reply.frame) : "<none>"; }
};

TEST_F(FrameReceive, JoinsPacketsDropsNoiseAndRestartsAtEachColon) {
    pty.send_packet("garbage:01");
    pty.send_packet("0300");
    pty.send_packet("FC\r\ntrailing");
    EXPECT_EQ(received(), ":010300FC\r\n");
    pty.send_packet(":01:0103FC\r\n");
    EXPECT_EQ(received(), ":0103FC\r\n");
}

TEST_F(FrameReceive, SendPutsTheFrameInOneSlipPacket) {
    link::frame_put_byte(reply.frame, 0xC0); // a data byte never needs escaping: it goes as "C0"
    link::frame_end(reply.frame);
    link::frame_send(port, reply.frame);
    EXPECT_EQ(pty.receive(7), (std::vector<std::uint8_t>{0xC0, ':', 'C', '0', '\r', '\n', 0xC0}));
}

} // namespace
