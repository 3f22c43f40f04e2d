// A program started as a child process for end-to-end tests and
// benchmarks, its standard error (and, when asked, its standard output) in
// pipes the caller reads.
#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

namespace vukra::test {

// Starts the program args[0] with its standard output on out and its
// standard error on err (-1: nowhere); its pid, or -1.
pid_t spawn(std::vector<std::string> args, int out, int err);
// The next line from fd; empty at its end, or after 30 s of silence.
std::string read_line(int fd);

struct Child {
    pid_t pid = -1;
    int err = -1; // its standard error
    int out = -1; // its standard output, with keep_output; else it goes nowhere

    explicit Child(std::vector<std::string> args, bool keep_output = false);
    ~Child() { wait(true); }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    // The next line on standard error; empty at its end, or after 30 s of silence.
    std::string line();
    // What standard output holds until it ends.
    std::string output();
    // Its status as waitpid gives it, after SIGTERM when terminate; -1 once
    // waited for.
    int wait(bool terminate);
};

} // namespace vukra::test
