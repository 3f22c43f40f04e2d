// Ctrl-C while a long command runs (a whole-card transfer, watch): the
// first one is only noted, for the command to stop in good order and close
// its session; a second one ends the program at once with status 130.
// Outside interrupt_catch and interrupt_release Ctrl-C keeps its usual
// effect. SIGINT on POSIX, the console's Ctrl-C and Ctrl-Break on Windows.
#pragma once

namespace vukra::cli {

void interrupt_catch();
void interrupt_release();
// Whether Ctrl-C came since the program started.
bool interrupted();

// Catches Ctrl-C while it lives.
struct InterruptCaught {
    InterruptCaught() { interrupt_catch(); }
    ~InterruptCaught() { interrupt_release(); }
    InterruptCaught(const InterruptCaught&) = delete;
    InterruptCaught& operator=(const InterruptCaught&) = delete;
};

} // namespace vukra::cli
