// vukra serve, each figure against its yardstick in one run:
//   1. Modbus TCP reads per second through serve (libmodbus client) against
//      the library's own reads on the same pty (target: at least 0.9);
//   2. 8 clients polling without pause: the time from a write request to
//      its answer, against one exchange alone (target: median within one
//      exchange plus 50 ms);
//   3. a round of vukra poll over 100 registers on a paced 400000-baud line,
//      grouped against one by one (the library's named reads): transactions
//      and time (targets: 10 times fewer, 5 times less).
#include "modbus_vukra.h"
#include "paced_line.h"
#include "support/child_process.h"
#include "sim_child.h"
#include "stopwatch.h"

#include <modbus.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <vector>

namespace {

constexpr double kSeconds = 2.0;

using vukra::test::Child;

int serve_port(Child& serve) {
    for (std::string l = serve.line(); !l.empty(); l = serve.line())
        if (l.starts_with("vukra: Modbus TCP on 127.0.0.1:")) return std::stoi(l.substr(l.rfind(':') + 1));
    return 0;
}

double library_reads_per_second(const std::string& port) {
    bench::MutedStdout muted;
    modbus_vukra_session* s = modbus_vukra_op_session_open(port.c_str());
    long reads = 0;
    const auto start = Clock::now();
    while (s != nullptr && seconds_since(start) < kSeconds) {
        std::int32_t value;
        if (modbus_vukra_op_protected_readreg(s, "energy", &value, 4) == 4) ++reads;
    }
    modbus_vukra_op_session_close(s);
    return reads / kSeconds;
}

modbus_t* client(int port) {
    modbus_t* mb = modbus_new_tcp("127.0.0.1", port);
    if (modbus_connect(mb) != 0) {
        modbus_free(mb);
        return nullptr;
    }
    modbus_set_response_timeout(mb, 6, 0);
    return mb;
}

// Reads per second of clients reading without pause, each on its own connection.
double modbus_reads_per_second(int port, int clients) {
    std::atomic<long> reads{0};
    std::vector<std::thread> threads;
    for (int c = 0; c < clients; ++c)
        threads.emplace_back([&] {
            modbus_t* mb = client(port);
            const auto start = Clock::now();
            std::uint16_t words[2];
            while (mb != nullptr && seconds_since(start) < kSeconds)
                if (modbus_read_registers(mb, 0x105, 2, words) == 2) ++reads;
            if (mb) {
                modbus_close(mb);
                modbus_free(mb);
            }
        });
    for (std::thread& t : threads) t.join();
    return static_cast<double>(reads) / kSeconds;
}

// Milliseconds from each write request to its answer while 8 clients poll.
std::vector<double> write_latencies(int port) {
    std::atomic<bool> stop{false};
    std::vector<std::thread> pollers;
    for (int i = 0; i < 8; ++i)
        pollers.emplace_back([&] {
            modbus_t* mb = client(port);
            std::uint16_t words[10];
            while (mb != nullptr && !stop) modbus_read_registers(mb, 0x100, 10, words);
            if (mb) {
                modbus_close(mb);
                modbus_free(mb);
            }
        });
    std::vector<double> ms;
    modbus_t* writer = client(port);
    for (int i = 0; writer != nullptr && i < 200; ++i) {
        const auto t = Clock::now();
        if (modbus_write_register(writer, 0x102, static_cast<std::uint16_t>(i)) == 1) ms.push_back(seconds_since(t) * 1000);
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    stop = true;
    for (std::thread& p : pollers) p.join();
    if (writer) {
        modbus_close(writer);
        modbus_free(writer);
    }
    std::sort(ms.begin(), ms.end());
    return ms;
}

// A table of 100 one-word registers, r0 to r99, side by side.
std::vector<std::string> hundred_registers() {
    std::ifstream in(VUKRA_EXAMPLES_DIR "/table.xml");
    std::stringstream text;
    text << in.rdbuf();
    std::string table = text.str();
    std::string mine = "<table_list><table name=\"bench\" base=\"400\" auto_offset=\"yes\"><register_list>";
    std::vector<std::string> names;
    for (int i = 0; i < 100; ++i) {
        names.push_back("r" + std::to_string(i));
        mine += "<register name=\"" + names.back() + "\" access=\"R\" type=\"int16\" value=\"" + std::to_string(i) + "\"/>";
    }
    table.replace(table.find("<table_list>"), 12, mine + "</register_list></table>");
    std::ofstream("table.xml") << table;
    return names;
}

// Seconds between two of poll's round times (…T11:40:00.125Z).
double round_seconds(const std::string& line) {
    const auto t = line.find('T');
    return std::stod(line.substr(t + 1, 2)) * 3600 + std::stod(line.substr(t + 4, 2)) * 60 + std::stod(line.substr(t + 7, 6));
}

} // namespace

int main() {
    const std::filesystem::path dir = std::filesystem::temp_directory_path() / ("serve_bench." + std::to_string(getpid()));
    std::filesystem::create_directories(dir);
    std::filesystem::current_path(dir);
    std::filesystem::copy_file(VUKRA_EXAMPLES_DIR "/table.xml", "table.xml");
    {
        auto sim = bench::start_sim({"--table", "table.xml"});
        if (!sim) return 1;
        const double own = library_reads_per_second(sim->port());
        Child serve({VUKRA_PATH, "-p", sim->port(), "serve", "--modbus-tcp", "127.0.0.1:0"});
        const int port = serve_port(serve);
        // One client waits for each answer, so each read also pays the hops
        // client-serve-sim and back; four keep the line busy, as a gateway's
        // clients do.
        const double one = modbus_reads_per_second(port, 1), four = modbus_reads_per_second(port, 4);
        std::printf("Modbus TCP reads through serve: %.0f/s with 4 clients, %.0f/s with 1; the library's own on the "
                    "same pty: %.0f/s; ratio %.2f with 4 clients, %.2f with 1 (target >= 0.9)\n",
                    four, one, own, own > 0 ? four / own : 0, own > 0 ? one / own : 0);
        const std::vector<double> ms = write_latencies(port);
        const double exchange = own > 0 ? 1000 / own : 0;
        if (!ms.empty())
            std::printf("write to answer with 8 clients polling: median %.2f ms, worst %.2f ms over %zu writes; one "
                        "exchange %.2f ms (target: median <= %.2f ms)\n",
                        ms[ms.size() / 2], ms.back(), ms.size(), exchange, exchange + 50);
        serve.wait(true);
    }
    {
        const std::vector<std::string> names = hundred_registers();
        auto sim = bench::start_sim({"--table", "table.xml"});
        bench::PacedLine line(400000);
        if (!sim || !line.start(sim->port())) return 1;
        constexpr int kRounds = 5;
        double one_by_one = 0;
        {
            bench::MutedStdout muted;
            modbus_vukra_session* s = modbus_vukra_op_session_open(line.host_path.c_str());
            const auto start = Clock::now();
            for (int r = 0; s != nullptr && r < kRounds; ++r)
                for (const std::string& n : names) {
                    std::int16_t v;
                    modbus_vukra_op_protected_readreg(s, n.c_str(), &v, 2);
                }
            one_by_one = seconds_since(start) / kRounds;
            modbus_vukra_op_session_close(s);
        }
        std::vector<std::string> args{VUKRA_PATH, "-v", "-p", line.host_path, "poll"};
        args.insert(args.end(), names.begin(), names.end());
        for (const char* a : {"--count", "6", "--every", "0.001"}) args.push_back(a);
        Child poll(args, true);
        int frames = 0;
        for (std::string l = poll.line(); !l.empty() || frames == 0; l = poll.line()) {
            if (l.starts_with("Frame : ")) ++frames;
            if (l.empty()) break;
        }
        const std::string rounds = poll.output();
        poll.wait(false);
        std::vector<double> times;
        std::istringstream lines(rounds);
        for (std::string l; std::getline(lines, l);)
            if (l.find("r99 = 99") != std::string::npos) times.push_back(round_seconds(l));
        const double grouped = times.size() == 6 ? (times.back() - times.front()) / 5 : 0;
        std::printf("poll of 100 registers at 400000 baud: grouped %.1f ms and %.1f transactions a round, one by one "
                    "%.1f ms and 100; %.0fx fewer transactions (target >= 10), %.1fx less time (target >= 5)\n",
                    grouped * 1000, frames / 2.0 / 6, one_by_one * 1000, 100 / (frames / 2.0 / 6),
                    grouped > 0 ? one_by_one / grouped : 0);
    }
    std::filesystem::current_path(std::filesystem::temp_directory_path());
    std::filesystem::remove_all(dir);
}
