#include "support/sim_process.h"

#include "support/child_process.h"

#include <csignal>
#include <fcntl.h>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

namespace vukra::test {

SimProcess::SimProcess(const std::vector<std::string>& arguments, bool quiet) {
    int out[2];
    if (pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    std::vector<std::string> args{VUKRA_SIM_PATH};
    args.insert(args.end(), arguments.begin(), arguments.end());
    pid_ = spawn(std::move(args), out[1], quiet ? -1 : 2);
    close(out[1]);
    // The first line of its output is the pty's path; a loaded machine or a
    // sanitizer build may take seconds to get there (an end of output stops it).
    port_ = read_line(out[0]);
    close(out[0]);
    if (port_.empty()) throw std::runtime_error("vukra-sim gave no port");
}

SimProcess::~SimProcess() {
    if (pid_ > 0) {
        kill(pid_, SIGTERM);
        waitpid(pid_, nullptr, 0);
    }
}

} // namespace vukra::test
