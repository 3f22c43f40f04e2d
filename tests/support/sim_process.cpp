#include "support/sim_process.h"

#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

namespace vukra::test {

SimProcess::SimProcess(const std::vector<std::string>& arguments, bool quiet) {
    int out[2];
    if (pipe(out) != 0) throw std::runtime_error("pipe failed");
    std::vector<std::string> args{VUKRA_SIM_PATH};
    args.insert(args.end(), arguments.begin(), arguments.end());
    pid_ = fork();
    if (pid_ == 0) {
        dup2(out[1], 1);
        if (quiet) dup2(open("/dev/null", O_WRONLY), 2);
        close(out[0]);
        close(out[1]);
        std::vector<char*> argv;
        for (std::string& a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        _exit(127);
    }
    close(out[1]);
    // The first line of its output is the pty's path; a loaded machine or a
    // sanitizer build may take seconds to get there (an end of output stops it).
    char c;
    pollfd p{out[0], POLLIN, 0};
    while (poll(&p, 1, 30000) > 0 && read(out[0], &c, 1) == 1 && c != '\n') port_ += c;
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
