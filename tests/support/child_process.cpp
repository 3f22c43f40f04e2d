#include "support/child_process.h"

#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

namespace vukra::test {

pid_t spawn(std::vector<std::string> args, int out, int err) {
    const pid_t pid = fork();
    if (pid == 0) {
        const int nowhere = open("/dev/null", O_WRONLY);
        dup2(out >= 0 ? out : nowhere, 1);
        dup2(err >= 0 ? err : nowhere, 2);
        std::vector<char*> argv;
        for (std::string& a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        _exit(127);
    }
    return pid;
}

Child::Child(std::vector<std::string> args, bool keep_output) {
    // Close-on-exec: the child holds only its own ends, as 1 and 2.
    int e[2], o[2];
    if (pipe2(e, O_CLOEXEC) != 0 || pipe2(o, O_CLOEXEC) != 0) return;
    pid = spawn(std::move(args), keep_output ? o[1] : -1, e[1]);
    close(e[1]);
    close(o[1]);
    err = e[0];
    out = o[0];
}

std::string read_line(int fd) {
    std::string l;
    char c;
    pollfd p{fd, POLLIN, 0};
    while (poll(&p, 1, 30000) > 0 && read(fd, &c, 1) == 1 && c != '\n') l += c;
    return l;
}

std::string Child::line() { return read_line(err); }

std::string Child::output() {
    std::string s;
    char b[4096];
    ssize_t n;
    while ((n = read(out, b, sizeof b)) > 0) s.append(b, static_cast<std::size_t>(n));
    return s;
}

int Child::wait(bool terminate) {
    if (pid <= 0) return -1;
    int status = -1;
    if (terminate) kill(pid, SIGTERM);
    waitpid(pid, &status, 0);
    close(err);
    close(out);
    pid = -1;
    return status;
}

} // namespace vukra::test
