#include "support/child_process.h"

#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

namespace vukra::test {

Child::Child(std::vector<std::string> args, bool keep_output) {
    int e[2], o[2];
    if (pipe(e) != 0 || pipe(o) != 0) return;
    pid = fork();
    if (pid == 0) {
        dup2(e[1], 2);
        dup2(keep_output ? o[1] : open("/dev/null", O_WRONLY), 1);
        std::vector<char*> argv;
        for (std::string& a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        _exit(127);
    }
    close(e[1]);
    close(o[1]);
    err = e[0];
    out = o[0];
}

std::string Child::line() {
    std::string l;
    char c;
    pollfd p{err, POLLIN, 0};
    while (poll(&p, 1, 30000) > 0 && read(err, &c, 1) == 1 && c != '\n') l += c;
    return l;
}

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
