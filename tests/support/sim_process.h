// vukra-sim started as a child process for end-to-end tests.
#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

namespace vukra::test {

class SimProcess {
public:
    // Starts vukra-sim with these arguments and waits for its pty path;
    // its standard error goes nowhere when quiet.
    explicit SimProcess(const std::vector<std::string>& arguments, bool quiet = false);
    ~SimProcess();
    SimProcess(const SimProcess&) = delete;
    SimProcess& operator=(const SimProcess&) = delete;

    const std::string& port() const { return port_; }
    pid_t pid() const { return pid_; }

private:
    pid_t pid_ = -1;
    std::string port_;
};

} // namespace vukra::test
