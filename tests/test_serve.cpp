// vukra serve against vukra-sim, with real Modbus TCP clients (libmodbus,
// and raw MBAP where a client library would refuse to send), and the
// library itself through the shared line.
#include "modbus_vukra.h"
#include "support/child_process.h"
#include "support/sim_process.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>
#include <modbus.h>

#include <arpa/inet.h>
#include <atomic>
#include <csignal>
#include <filesystem>
#include <map>
#include <netinet/in.h>
#include <set>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using Bytes = std::vector<std::uint8_t>;

// The example table's first words (table "process" at 0x100) as the sim
// starts: setpoint 21.5, offset_trim -12, heater_on 1, cycle_count 4711,
// energy -100000, uptime 3000000000, gain 0.75.
const std::uint16_t kProcess[] = {0x41AC, 0, 0xFFF4, 1, 4711, 0xFFFE, 0x7960, 0xB2D0, 0x5E00, 0x3F40, 0};

// vukra -p PORT serve --modbus-tcp 127.0.0.1:0 --share 127.0.0.1:0 EXTRA...
// in the working directory, its ports read from its listening lines.
struct Serve : vukra::test::Child {
    int modbus = 0, share = 0;
    explicit Serve(const std::string& device, std::vector<std::string> extra = {})
        : Child(arguments(device, std::move(extra))) {
        while (modbus == 0 || share == 0) {
            const std::string line = this->line();
            if (line.empty()) break;
            const auto colon = line.rfind(':');
            if (line.starts_with("vukra: Modbus TCP on 127.0.0.1:")) modbus = std::stoi(line.substr(colon + 1));
            if (line.starts_with("vukra: the shared line on 127.0.0.1:")) share = std::stoi(line.substr(colon + 1));
        }
        EXPECT_GT(modbus, 0);
        EXPECT_GT(share, 0);
    }
    static std::vector<std::string> arguments(const std::string& device, std::vector<std::string> extra) {
        std::filesystem::copy_file(VUKRA_EXAMPLES_DIR "/table.xml", "table.xml",
                                   std::filesystem::copy_options::overwrite_existing);
        std::vector<std::string> args{VUKRA_PATH, "-p", device, "serve", "--modbus-tcp", "127.0.0.1:0", "--share",
                                      "127.0.0.1:0"};
        args.insert(args.end(), extra.begin(), extra.end());
        return args;
    }
    // SIGTERM ends serve with status 0.
    int stop() { return wait(true); }
};

int connect_to(int port, int patience_s = 5) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<std::uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    // An answer later than the time-out plus one second counts as none.
    const timeval t{patience_s, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &t, sizeof t);
    return fd;
}

Bytes mbap(std::uint16_t tid, std::uint8_t unit, const Bytes& pdu) {
    Bytes m(7 + pdu.size());
    m[0] = static_cast<std::uint8_t>(tid >> 8);
    m[1] = static_cast<std::uint8_t>(tid);
    m[5] = static_cast<std::uint8_t>(pdu.size() + 1);
    m[6] = unit;
    std::copy(pdu.begin(), pdu.end(), m.begin() + 7);
    return m;
}

// One whole answer: its PDU, with the transaction id in tid; empty when the
// connection closed or nothing came in time.
Bytes receive(int fd, std::uint16_t* tid = nullptr) {
    std::uint8_t head[7];
    if (recv(fd, head, 7, MSG_WAITALL) != 7) return {};
    if (tid) *tid = static_cast<std::uint16_t>(head[0] << 8 | head[1]);
    Bytes pdu(static_cast<std::size_t>(head[4] << 8 | head[5]) - 1);
    if (recv(fd, pdu.data(), pdu.size(), MSG_WAITALL) != static_cast<ssize_t>(pdu.size())) return {};
    return pdu;
}

Bytes ask(int fd, std::uint8_t unit, const Bytes& pdu) {
    const Bytes m = mbap(7, unit, pdu);
    send(fd, m.data(), m.size(), MSG_NOSIGNAL);
    return receive(fd);
}

struct ServeTest : ::testing::Test {
    vukra::test::TempWorkingDir dir;
    vukra::test::SimProcess sim{{"--table", VUKRA_EXAMPLES_DIR "/table.xml"}, true};
};

TEST_F(ServeTest, ModbusClientsGetTheDevicesValuesAndTheExceptions) {
    Serve serve(sim.port());
    modbus_t* mb = modbus_new_tcp("127.0.0.1", serve.modbus);
    ASSERT_EQ(modbus_connect(mb), 0);
    std::uint16_t words[11] = {};
    ASSERT_EQ(modbus_read_registers(mb, 0x100, 11, words), 11);
    for (int i = 0; i < 11; ++i) EXPECT_EQ(words[i], kProcess[i]) << "word " << i;
    ASSERT_EQ(modbus_write_register(mb, 0x102, 0xFEDC), 1); // 6, as a 16 of one word
    const std::uint16_t energy[2] = {0x1234, 0x5678};
    ASSERT_EQ(modbus_write_registers(mb, 0x105, 2, energy), 2);
    ASSERT_EQ(modbus_read_registers(mb, 0x102, 5, words), 5);
    EXPECT_EQ(words[0], 0xFEDC);
    EXPECT_EQ(words[3], 0x1234);
    EXPECT_EQ(words[4], 0x5678);
    modbus_set_slave(mb, 0); // what TCP clients send for a directly attached device
    EXPECT_EQ(modbus_read_registers(mb, 0x104, 1, words), 1);
    modbus_set_slave(mb, 7);
    EXPECT_EQ(modbus_read_registers(mb, 0x104, 1, words), -1);
    EXPECT_EQ(errno, EMBXGTAR);
    modbus_set_slave(mb, 255);
    EXPECT_EQ(modbus_read_registers(mb, 0x10B, 1, words), -1); // write-only: the device's own exception 2
    EXPECT_EQ(errno, EMBXILADD);
    modbus_close(mb);
    modbus_free(mb);

    // What libmodbus would refuse to send.
    const int fd = connect_to(serve.modbus);
    EXPECT_EQ(ask(fd, 1, {4, 1, 0, 0, 1}), (Bytes{0x84, 1}));
    EXPECT_EQ(ask(fd, 1, {3, 1, 0, 0, 126}), (Bytes{0x83, 3}));
    EXPECT_EQ(ask(fd, 1, {3, 1, 0, 0, 0}), (Bytes{0x83, 3}));
    EXPECT_EQ(ask(fd, 1, {16, 1, 0, 0, 124, 248, 0, 0}), (Bytes{0x90, 3}));
    // A malformed header closes that connection only.
    const int other = connect_to(serve.modbus);
    const Bytes bad{0, 1, 0, 9, 0, 6, 1, 3, 1, 0, 0, 1};
    send(other, bad.data(), bad.size(), MSG_NOSIGNAL);
    EXPECT_TRUE(receive(other).empty());
    EXPECT_EQ(ask(fd, 1, {3, 1, 4, 0, 1}), (Bytes{3, 2, 0x12, 0x67}));
    close(other);
    close(fd);
    EXPECT_EQ(serve.stop(), 0);

    Serve read_only(sim.port(), {"--read-only"});
    const int ro = connect_to(read_only.modbus);
    EXPECT_EQ(ask(ro, 1, {6, 1, 2, 0, 1}), (Bytes{0x86, 1}));
    EXPECT_EQ(ask(ro, 1, {3, 1, 2, 0, 1}), (Bytes{3, 2, 0xFE, 0xDC}));
    close(ro);
}

// 32 clients at once, each with four requests in flight: every answer is
// the right one, under its own transaction id, exactly once; a client
// stalled in the middle of a header holds nobody up.
TEST_F(ServeTest, ManyClientsAtOnceEachGetEveryAnswerOnce) {
    Serve serve(sim.port(), {"--max-clients", "40"});
    const int stalled = connect_to(serve.modbus);
    const std::uint8_t half[3] = {0, 1, 0};
    send(stalled, half, sizeof half, MSG_NOSIGNAL);

    constexpr int kClients = 32, kRequests = 300, kDepth = 4;
    std::atomic<int> wrong{0};
    std::vector<std::thread> clients;
    for (int c = 0; c < kClients; ++c) {
        clients.emplace_back([&, c] {
            const int fd = connect_to(serve.modbus);
            std::map<std::uint16_t, Bytes> expected; // by transaction id, until answered
            std::set<std::uint16_t> answered;
            int sent = 0;
            while (sent < kRequests || !expected.empty()) {
                while (sent < kRequests && expected.size() < kDepth) {
                    const auto tid = static_cast<std::uint16_t>(c * 1000 + sent);
                    Bytes pdu{3, 1, 3, 0, 8}, want{3, 16};
                    for (int i = 3; i < 11; ++i) {
                        want.push_back(static_cast<std::uint8_t>(kProcess[i] >> 8));
                        want.push_back(static_cast<std::uint8_t>(kProcess[i]));
                    }
                    if (sent % 10 == 0) pdu = want = {6, 1, 2, static_cast<std::uint8_t>(c), 1};
                    const Bytes m = mbap(tid, 1, pdu);
                    send(fd, m.data(), m.size(), MSG_NOSIGNAL);
                    expected[tid] = want;
                    ++sent;
                }
                std::uint16_t tid = 0;
                const Bytes got = receive(fd, &tid);
                const auto e = expected.find(tid);
                if (got.empty() || e == expected.end() || e->second != got || !answered.insert(tid).second) {
                    ++wrong;
                    break;
                }
                expected.erase(e);
            }
            close(fd);
        });
    }
    for (std::thread& t : clients) t.join();
    EXPECT_EQ(wrong, 0);
    close(stalled);
    EXPECT_EQ(serve.stop(), 0);
}

// The device stops answering: every client of either door hears within the
// time-out plus one second (0x0B on Modbus TCP, its own time-out through the
// shared line), and service comes back by itself with the device.
TEST_F(ServeTest, AStoppedDeviceIsToldInTimeAndServedAgainWhenBack) {
    Serve serve(sim.port());
    std::filesystem::copy_file(VUKRA_EXAMPLES_DIR "/table.xml", "table.xml",
                               std::filesystem::copy_options::overwrite_existing);
    const std::string shared = "tcp://127.0.0.1:" + std::to_string(serve.share);
    modbus_vukra_session* s = modbus_vukra_op_session_open(shared.c_str());
    ASSERT_NE(s, nullptr);
    std::int16_t trim = 0;
    ASSERT_EQ(modbus_vukra_op_protected_readreg(s, "offset_trim", &trim, 2), 2);
    EXPECT_EQ(trim, -12);

    kill(sim.pid(), SIGSTOP);
    // Two requests in one write: the second's deadline counts from its
    // arrival, though the first holds the connection's thread on the line.
    const int piped = connect_to(serve.modbus);
    Bytes two = mbap(1, 1, {3, 1, 0, 0, 2}), second = mbap(2, 1, {3, 1, 0, 0, 2});
    two.insert(two.end(), second.begin(), second.end());
    send(piped, two.data(), two.size(), MSG_NOSIGNAL);
    std::vector<std::thread> clients;
    std::atomic<int> told{0};
    for (int c = 0; c < 3; ++c)
        clients.emplace_back([&] {
            const int fd = connect_to(serve.modbus);
            if (ask(fd, 1, {3, 1, 0, 0, 2}) == Bytes{0x83, 0x0B}) ++told;
            close(fd);
        });
    EXPECT_EQ(modbus_vukra_op_protected_readreg(s, "offset_trim", &trim, 2), -1);
    for (std::thread& t : clients) t.join();
    EXPECT_EQ(told, 3);
    EXPECT_EQ(receive(piped), (Bytes{0x83, 0x0B}));
    // Counted from its pickup it would come a whole time-out (4 s) later;
    // 3 s leaves a loaded machine room.
    const timeval soon_after{3, 0};
    setsockopt(piped, SOL_SOCKET, SO_RCVTIMEO, &soon_after, sizeof soon_after);
    EXPECT_EQ(receive(piped), (Bytes{0x83, 0x0B}));
    close(piped);

    kill(sim.pid(), SIGCONT);
    const int fd = connect_to(serve.modbus);
    EXPECT_EQ(ask(fd, 1, {3, 1, 0, 0, 2}), (Bytes{3, 4, 0x41, 0xAC, 0, 0}));
    close(fd);
    EXPECT_EQ(modbus_vukra_op_protected_readreg(s, "offset_trim", &trim, 2), 2);
    EXPECT_EQ(trim, -12);
    modbus_vukra_op_session_close(s);
}

} // namespace
