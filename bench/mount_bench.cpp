// vukra mount against the line it crosses.
//
// cp of a 256 KiB file into a mount of vukra-sim's card and back out, with
// the session on the paced 400000-baud relay that is the line
// (paced_line.h), each set against the line's time of the bytes that
// crossed during that cp, measured in the same run (target >= 0.9, as vukra
// fs get and put reach). Then the same file read from a --mirror mount (the
// local card, at local speed) in MiB/s, next to vukra-ufs reading the same
// bytes from that card (a process each time, as a user runs it).
#include "paced_line.h"
#include "stopwatch.h"
#include "sim_child.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <signal.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <vector>

namespace {

constexpr unsigned kBaud = 400000;
constexpr std::size_t kFileSize = 256 * 1024;
constexpr int kMirrorReads = 20;

bool mounted(const char* dir) {
    struct stat here {}, up {};
    return stat(dir, &here) == 0 && stat((std::string(dir) + "/..").c_str(), &up) == 0 && here.st_dev != up.st_dev;
}

// vukra mount on "mnt" in a child process; its pid once the mount is there, or -1.
pid_t mount_on(const std::string& port, const std::vector<std::string>& options) {
    std::vector<std::string> words{VUKRA_PATH, "-q", "-p", port, "mount", "mnt"};
    words.insert(words.end(), options.begin(), options.end());
    const pid_t pid = fork();
    if (pid == 0) {
        std::vector<char*> argv;
        for (std::string& w : words) argv.push_back(w.data());
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        _exit(127);
    }
    for (int i = 0; pid > 0 && i < 1200; ++i) {
        if (mounted("mnt")) return pid;
        if (waitpid(pid, nullptr, WNOHANG) == pid) return -1;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return -1;
}

bool unmount(pid_t pid) {
    const bool ok = std::system("fusermount3 -u mnt") == 0;
    int status = 0;
    waitpid(pid, &status, 0);
    return ok && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

bool same_files(const char* a, const char* b) {
    std::ifstream x(a, std::ios::binary), y(b, std::ios::binary);
    return std::vector<char>(std::istreambuf_iterator<char>(x), {}) ==
           std::vector<char>(std::istreambuf_iterator<char>(y), {});
}

// One cp through the paced mount: its time, and the line's time of what crossed.
void timed_cp(const bench::PacedLine& line, const char* what, const std::string& from, const std::string& to) {
    const unsigned long before = line.carried();
    const auto start = Clock::now();
    const bool ok = std::system(("cp " + from + " " + to).c_str()) == 0;
    const double took = seconds_since(start);
    const unsigned long bytes = line.carried() - before;
    const double line_time = line.seconds(bytes);
    std::printf("  cp %s 256 KiB: %.3f s; the line carried %lu bytes, %.3f s at %u baud;\n", what, took, bytes,
                line_time, kBaud);
    std::printf("    ratio line/measured %.3f (target >= 0.9), file %.0f bytes/s%s\n", line_time / took,
                kFileSize / took, ok ? "" : " (FAILED)");
}

// The measures, in the scratch directory; 0 when every step worked.
int measure() {
    std::filesystem::copy_file(VUKRA_EXAMPLES_DIR "/table.xml", "table.xml");
    std::filesystem::create_directory("mnt");
    {
        std::vector<char> data(kFileSize);
        std::mt19937 random(7);
        for (char& b : data) b = static_cast<char>(random()); // SLIP escapes as they fall
        std::ofstream("in.bin", std::ios::binary).write(data.data(), static_cast<std::streamsize>(data.size()));
    }
    bool ok = true;
    {
        const auto sim = bench::start_sim({"--table", "table.xml"});
        bench::PacedLine line(kBaud);
        if (sim == nullptr || !line.start(sim->port())) return 1;
        std::printf("vukra mount of vukra-sim's card through a relay that is the %u-baud line:\n", kBaud);
        const pid_t pid = mount_on(line.host_path, {"--root", "/mem"});
        if (pid < 0) return std::printf("  no mount (is /dev/fuse there?)\n"), 1;
        timed_cp(line, "into the mount", "in.bin", "mnt/f.bin");
        timed_cp(line, "out of the mount", "mnt/f.bin", "out.bin");
        ok = unmount(pid) && same_files("in.bin", "out.bin");
        line.finish(); // the relay lets go of the sim's pty

        // The mirror: getfs straight from the sim (the line is not what is measured here).
        const pid_t mirror = mount_on(sim->port(), {"--mirror", "--no-put"});
        if (mirror < 0) return std::printf("  no mirror mount\n"), 1;
        auto start = Clock::now();
        for (int i = 0; i < kMirrorReads; ++i) ok = std::system("cat mnt/f.bin >/dev/null") == 0 && ok;
        const double mount_rate = kMirrorReads * kFileSize / seconds_since(start) / (1024.0 * 1024.0);
        ok = unmount(mirror) && ok;
        start = Clock::now();
        const std::string ufs = std::string(VUKRA_UFS_PATH) + " sdcard0.o cat /f.bin >/dev/null";
        for (int i = 0; i < kMirrorReads; ++i) ok = std::system(ufs.c_str()) == 0 && ok;
        const double ufs_rate = kMirrorReads * kFileSize / seconds_since(start) / (1024.0 * 1024.0);
        std::printf("the same file read %d times: from the --mirror mount %.1f MiB/s (cat, a process each);\n"
                    "  from the local card with vukra-ufs cat %.1f MiB/s (a process each)%s\n",
                    kMirrorReads, mount_rate, ufs_rate, ok ? "" : " (FAILED)");
    }
    return ok ? 0 : 1;
}

} // namespace

int main() {
    char dir[] = "/tmp/vukra-mount-bench-XXXXXX";
    if (mkdtemp(dir) == nullptr || chdir(dir) != 0) return 1;
    const int status = measure();
    std::filesystem::remove_all(dir); // the mounts are gone: each vukra has ended
    return status;
}
