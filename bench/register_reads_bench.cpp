// Register reads per second: the library against vukra-sim on a pty and
// through tcp:// to vukra-sim --listen, next to a libmodbus RTU client
// against a libmodbus server on a pty, in the same run. Each side reads a
// two-word register over and over for a while. Port names given as
// arguments (a ser2net bridge to a sim, from bench/tcp_mqtt_bench.sh) are
// measured too.
//   register_reads_bench [PORT...]
#include "modbus_vukra.h"
#include "platform/platform.h"
#include "sim_child.h"

#include <modbus.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <poll.h>
#include <string>
#include <thread>
#include <vector>
#include <unistd.h>

using Clock = std::chrono::steady_clock;

namespace {

constexpr double kSeconds = 2.0;

double vukra_reads_per_second(const std::string& port) {
    long reads = 0, failures = 0;
    double elapsed = 0;
    {
        bench::MutedStdout muted;
        std::filesystem::copy_file(VUKRA_EXAMPLES_DIR "/table.xml", "table.xml",
                                   std::filesystem::copy_options::overwrite_existing);
        modbus_vukra_session* s = modbus_vukra_op_session_open(port.c_str());
        const auto start = Clock::now();
        while (s != nullptr && elapsed < kSeconds) {
            std::int32_t value;
            if (modbus_vukra_op_protected_readreg(s, "energy", &value, 4) == 4)
                ++reads;
            else
                ++failures;
            elapsed = std::chrono::duration<double>(Clock::now() - start).count();
        }
        modbus_vukra_op_session_close(s);
    }
    std::remove("table.xml");
    if (failures) std::printf("vukra on %s: %ld failed reads\n", port.c_str(), failures);
    return elapsed > 0 ? reads / elapsed : 0;
}

double libmodbus_reads_per_second() {
    vukra::platform::PseudoTerminal pty;
    if (!vukra::platform::pty_open(pty)) return 0;
    const int master = static_cast<int>(pty.master);
    const char* name = pty.path;

    modbus_mapping_t* mapping = modbus_mapping_new(0, 0, 0x300, 0);
    modbus_t* server = modbus_new_rtu("/dev/null", 115200, 'N', 8, 1);
    modbus_set_slave(server, 1);
    modbus_set_socket(server, master);
    bool stop = false;
    std::thread serve([&] {
        uint8_t query[MODBUS_RTU_MAX_ADU_LENGTH];
        while (!stop) {
            pollfd p{master, POLLIN, 0};
            if (poll(&p, 1, 50) <= 0) continue;
            int rc = modbus_receive(server, query);
            if (rc > 0) modbus_reply(server, query, rc, mapping);
        }
    });

    modbus_t* client = modbus_new_rtu(name, 115200, 'N', 8, 1);
    modbus_set_slave(client, 1);
    long reads = 0, failures = 0;
    double elapsed = 0;
    if (modbus_connect(client) == 0) {
        auto start = Clock::now();
        while (elapsed < kSeconds) {
            uint16_t words[2];
            if (modbus_read_registers(client, 0x105, 2, words) == 2)
                ++reads;
            else
                ++failures;
            elapsed = std::chrono::duration<double>(Clock::now() - start).count();
        }
        modbus_close(client);
    }
    modbus_free(client);
    stop = true;
    serve.join();
    modbus_free(server);
    modbus_mapping_free(mapping);
    close(static_cast<int>(pty.slave));
    close(master);
    if (failures) std::printf("libmodbus: %ld failed reads\n", failures);
    return elapsed > 0 ? reads / elapsed : 0;
}

} // namespace

// Reads per second against a sim started with these arguments.
double against_sim(const std::vector<std::string>& arguments) {
    const auto sim = bench::start_sim(arguments);
    return sim == nullptr ? 0 : vukra_reads_per_second(sim->port());
}

int main(int argc, char** argv) {
    char dir[] = "/tmp/vukra-reads-XXXXXX";
    if (mkdtemp(dir) == nullptr || chdir(dir) != 0) return 1;
    double ours = against_sim({"--table", VUKRA_EXAMPLES_DIR "/table.xml"});
    double tcp = against_sim({"--table", VUKRA_EXAMPLES_DIR "/table.xml", "--listen", "127.0.0.1:0"});
    std::vector<double> given;
    for (int i = 1; i < argc; ++i) given.push_back(vukra_reads_per_second(argv[i]));
    double theirs = libmodbus_reads_per_second();
    std::printf("two-word register reads, %.0f s each:\n", kSeconds);
    std::printf("  modbus_vukra (ASCII in SLIP) against vukra-sim: %8.0f reads/s\n", ours);
    std::printf("  the same through tcp:// to vukra-sim --listen:  %8.0f reads/s\n", tcp);
    for (int i = 1; i < argc; ++i) std::printf("  the same through %s: %8.0f reads/s\n", argv[i], given[i - 1]);
    std::printf("  libmodbus RTU client against libmodbus server:  %8.0f reads/s\n", theirs);
    std::printf("  ratio %.2f (target >= 1)\n", theirs > 0 ? ours / theirs : 0.0);
    rmdir(dir);
    return 0;
}
