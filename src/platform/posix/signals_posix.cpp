// Requests to stop the program, taken as signals waited for in one thread.
#include "platform/platform.h"

#include <csignal>
#include <pthread.h>

namespace vukra::platform {

namespace {

sigset_t stop_signals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGHUP);
    return set;
}

} // namespace

void stop_requests_hold() {
    const sigset_t set = stop_signals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

void stop_request_wait() {
    const sigset_t set = stop_signals();
    int which = 0;
    while (sigwait(&set, &which) != 0) {
    }
}

} // namespace vukra::platform
