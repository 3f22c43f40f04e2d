// The far end of a test line: opens a pseudo-terminal, prints its slave
// path on the first line of standard output, and answers each SLIP packet
// that arrives with the same bytes in reverse order. A packet "silence"
// gets no answer and "quit" ends the program, as does a minute without
// traffic.
#include "link/serial_port.h"
#include "link/slip.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

using namespace vukra;

int main() {
    int master = -1, slave = -1;
    char name[256];
    if (openpty(&master, &slave, name, nullptr, nullptr) != 0) {
        std::perror("openpty");
        return 1;
    }
    termios tio{};
    for (int fd : {master, slave}) {
        tcgetattr(fd, &tio);
        cfmakeraw(&tio);
        tcsetattr(fd, TCSANOW, &tio);
    }
    std::printf("%s\n", name);
    std::fflush(stdout);

    // The line's speed is left to the program under test: the master is
    // adopted as it is, only with a long time-out.
    link::Port* port = link::serial_open(0, nullptr, master, nullptr);
    port->timeout_ms = 60000;
    // The slave end stays open here too, so that the line is never hung up
    // while the program under test opens and closes it.
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
    ::close(slave);
    return 0;
}
