// What the benchmarks against vukra-sim share: the sim as a child process,
// and the library's lines kept off the benchmark's standard output.
#pragma once

#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace bench {

// Starts vukra-sim with these arguments, its standard error discarded; its
// pty path comes on its first line. -1 when it could not start.
inline pid_t start_sim(const std::vector<std::string>& arguments, std::string& port) {
    std::vector<std::string> args{VUKRA_SIM_PATH};
    args.insert(args.end(), arguments.begin(), arguments.end());
    int out[2];
    if (pipe(out) != 0) return -1;
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(out[1], 1);
        dup2(open("/dev/null", O_WRONLY), 2);
        std::vector<char*> argv;
        for (std::string& a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        _exit(127);
    }
    close(out[1]);
    char c;
    while (read(out[0], &c, 1) == 1 && c != '\n') port += c;
    close(out[0]);
    return pid;
}

inline void stop_sim(pid_t pid) {
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
}

// Standard output goes nowhere while it lives: the library prints each
// frame there, and what a benchmark reports are its own figures.
struct MutedStdout {
    int saved, null;
    MutedStdout() : saved(dup(1)), null(open("/dev/null", O_WRONLY)) {
        std::fflush(stdout);
        dup2(null, 1);
    }
    ~MutedStdout() {
        std::fflush(stdout);
        dup2(saved, 1);
        close(null);
        close(saved);
    }
    MutedStdout(const MutedStdout&) = delete;
    MutedStdout& operator=(const MutedStdout&) = delete;
};

} // namespace bench
