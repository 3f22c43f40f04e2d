// The far end of a test line: opens a pseudo-terminal, prints its slave
// path on the first line of standard output, and answers each SLIP packet
// that arrives with the same bytes in reverse order. A packet "silence"
// gets no answer and "quit" ends the program, as does a minute without
// traffic.
#include "link/serial_port.h"
#include "link/slip.h"
#include "platform/platform.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>

using namespace vukra;

int main() {
    platform::PseudoTerminal pty;
    if (!platform::pty_open(pty)) {
        std::perror("openpty");
        return 1;
    }
    std::printf("%s\n", pty.path);
    std::fflush(stdout);

    // The line's speed is left to the program under test: the master is
    // adopted as it is, only with a long time-out.
    link::Port* port = link::serial_open(0, nullptr, pty.master, nullptr);
    port->timeout_ms = 60000;
    std::uint8_t packet[4096];
    for (;;) {
        long n = link::slip_receive(port, packet, sizeof packet);
        if (n < 0) break;
        std::string text(reinterpret_cast<char*>(packet), static_cast<std::size_t>(n));
        if (text == "quit") break;
        if (text == "silence") continue;
        std::reverse(packet, packet + n);
        link::slip_send(port, packet, static_cast<std::size_t>(n));
    }
    link::serial_close(port);
    platform::serial_close(pty.slave);
    return 0;
}
