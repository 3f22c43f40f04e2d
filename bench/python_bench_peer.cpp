// The C side of bench/python_bench.py, in a process of its own (a process
// holds one session):
//   python_bench_peer reads PORT NAME SECONDS   reads the register NAME
//       (table.xml in the working directory) as often as it can for
//       SECONDS through the library and prints the reads per second on
//       standard error;
//   python_bench_peer line SIM_PTY              the paced line of
//       paced_line.h at 400000 baud to the sim: prints the path the
//       session opens, then, for every line read on standard input, the
//       bytes carried so far (to the device, to the host); ends at EOF.
#include "modbus_vukra.h"
#include "paced_line.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>

namespace {

int reads(const char* port, const char* name, double seconds) {
    modbus_vukra_session* s = modbus_vukra_op_session_open(port);
    if (s == nullptr) return std::fprintf(stderr, "cannot open %s\n", port), 1;
    using Clock = std::chrono::steady_clock;
    const auto start = Clock::now();
    long count = 0;
    double elapsed = 0;
    unsigned char value[4];
    while (elapsed < seconds) {
        if (modbus_vukra_op_protected_readreg(s, name, value, sizeof value) != sizeof value)
            return std::fprintf(stderr, "a read failed\n"), modbus_vukra_op_session_close(s), 1;
        ++count;
        elapsed = std::chrono::duration<double>(Clock::now() - start).count();
    }
    modbus_vukra_op_session_close(s);
    std::fprintf(stderr, "%.1f\n", count / elapsed); // standard output carries the library's lines
    return 0;
}

int line(const char* sim_pty) {
    bench::PacedLine relay(400000);
    if (!relay.start(sim_pty)) return std::fprintf(stderr, "cannot reach %s\n", sim_pty), 1;
    std::printf("%s\n", relay.host_path.c_str());
    std::fflush(stdout);
    std::string ask;
    while (std::getline(std::cin, ask)) {
        std::printf("%lu %lu\n", relay.to_device.load(), relay.to_host.load());
        std::fflush(stdout);
    }
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    if (argc == 5 && std::strcmp(argv[1], "reads") == 0) return reads(argv[2], argv[3], std::atof(argv[4]));
    if (argc == 3 && std::strcmp(argv[1], "line") == 0) return line(argv[2]);
    std::fprintf(stderr, "usage: python_bench_peer reads PORT NAME SECONDS | line SIM_PTY\n");
    return 2;
}
