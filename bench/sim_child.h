// What the benchmarks against vukra-sim share: the sim as a child process,
// and the library's lines kept off the benchmark's standard output.
#pragma once

#include "support/sim_process.h"

#include <cstdio>
#include <exception>
#include <fcntl.h>
#include <memory>
#include <string>
#include <unistd.h>
#include <vector>

namespace bench {

// vukra-sim with these arguments, its standard error discarded, stopped
// when the pointer goes; null when it could not start.
inline std::unique_ptr<vukra::test::SimProcess> start_sim(const std::vector<std::string>& arguments) {
    try {
        return std::make_unique<vukra::test::SimProcess>(arguments, true);
    } catch (const std::exception&) {
        return nullptr;
    }
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
