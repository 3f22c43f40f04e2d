// Runs on Windows (or wine): the library's serial port and SLIP layer over
// a Win32 COM port, exchanging packets with the reversing peer at its
// other end.
//
//   wine_session_test COM6
#include "link/serial_port.h"
#include "link/slip.h"

#include <windows.h>

#include <cstdio>
#include <cstring>
#include <string>

using namespace vukra;

namespace {

int passed = 0;
int failed = 0;

void check(bool ok, const char* what) {
    if (ok) {
        ++passed;
    } else {
        ++failed;
        std::printf("FAILED: %s\n", what);
    }
}

void slip_exchange(const char* port_name) {
    const link::SerialSettings settings{400000, 'N', 8, 1, 1000};
    link::Port* port = link::serial_open(0, port_name, 0, &settings);
    check(port->native != platform::kInvalidPort, "CreateFileA on the COM port");

    const uint8_t payload[] = {'a', 0xC0, 'b', 0xDB, 'c'};
    link::slip_send(port, payload, sizeof payload);
    uint8_t reply[64] = {};
    long n = link::slip_receive(port, reply, sizeof reply);
    const uint8_t reversed[] = {'c', 0xDB, 'b', 0xC0, 'a'};
    check(n == 5 && std::memcmp(reply, reversed, 5) == 0, "a packet with END and ESC comes back reversed");

    std::string big(3000, 'x');
    big.front() = 'F';
    link::slip_send(port, big.data(), big.size());
    std::string back(3000, '\0');
    n = link::slip_receive(port, back.data(), back.size());
    check(n == 3000 && back.back() == 'F' && back.front() == 'x', "a 3000-byte packet comes back whole");

    link::slip_send(port, "123456", 6);
    n = link::slip_receive(port, reply, 4);
    check(n == 4 && std::memcmp(reply, "6543", 4) == 0, "a packet is cut at the capacity");
    n = link::slip_receive(port, reply, sizeof reply);
    check(n == 1 && reply[0] == '1', "the rest of a cut packet comes next");

    DWORD start = GetTickCount();
    link::slip_send(port, "silence", 7);
    n = link::slip_receive(port, reply, sizeof reply);
    DWORD waited = GetTickCount() - start;
    check(n == -1, "no answer gives -1");
    check(waited >= 900 && waited < 5000, "the read time-out governs the wait");

    link::slip_send(port, "quit", 4);
    link::serial_close(port);
}

} // namespace

int main(int argc, char** argv) {
    slip_exchange(argc > 1 ? argv[1] : "COM6");
    std::printf("%d passed, %d failed\n", passed, failed);
    return failed == 0 ? 0 : 1;
}
