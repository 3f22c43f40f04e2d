// Runs on Windows (or wine): loads modbus_vukra.dll, resolves every export,
// opens a session on a COM port, then exchanges SLIP packets on that port
// with the reversing peer at its other end.
//
//   wine_session_test COM5 COM6
//
// COM5 leads to vukra-sim playing the device with the example table (also
// in the working directory as table.xml); COM6 to the reversing SLIP peer.
#include "link/serial_port.h"
#include "link/slip.h"
#include "modbus_vukra.h"

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

// The library's export list, as the build names it.
const char* const kExports[] = {
#include "export_names.inc"
};

using OpenFn = modbus_vukra_session* (*)(const char*);
using CloseFn = int32_t (*)(modbus_vukra_session*);
using InfoFn = int32_t (*)(modbus_vukra_session*, int32_t*);
using ErrorFn = int32_t (*)(modbus_vukra_session*);
using RegFn = int32_t (*)(modbus_vukra_session*, const char*, void*, int32_t);
using WriteRegFn = int32_t (*)(modbus_vukra_session*, const char*, const void*, int32_t);
using BtoaFn = char* (*)(char*, const char*, const void*);

template <typename Fn>
Fn resolve(HMODULE dll, const char* name) {
    return reinterpret_cast<Fn>(reinterpret_cast<void*>(GetProcAddress(dll, name)));
}

void dll_session(const char* port_name) {
    HMODULE dll = LoadLibraryA("modbus_vukra.dll");
    check(dll != nullptr, "LoadLibrary modbus_vukra.dll");
    if (dll == nullptr) return;
    for (const char* name : kExports) check(GetProcAddress(dll, name) != nullptr, name);

    auto open = resolve<OpenFn>(dll, "modbus_vukra_op_session_open");
    auto close = resolve<CloseFn>(dll, "modbus_vukra_op_session_close");
    auto info = resolve<InfoFn>(dll, "modbus_vukra_op_session_info");
    auto error = resolve<ErrorFn>(dll, "modbus_vukra_op_session_error");
    if (!open || !close || !info || !error) return;

    check(error(nullptr) == 4095, "session_error of a null session is 4095");
    modbus_vukra_session* s = open(port_name);
    check(s != nullptr, "session_open on the COM port");
    check(open(port_name) == nullptr, "a second open is refused");
    int32_t words[7] = {};
    check(info(s, words) == 0 && words[5] == 4, "session_info gives the done phase");
    const uint8_t flags[4] = {0, 1, 1, 1};
    check(std::memcmp(&words[0], flags, 4) == 0, "request flags 0 1 1 1");

    auto readreg = resolve<RegFn>(dll, "modbus_vukra_op_protected_readreg");
    auto writereg = resolve<WriteRegFn>(dll, "modbus_vukra_op_protected_writereg");
    auto btoa = resolve<BtoaFn>(dll, "modbus_vukra_op_register_btoa");
    if (s != nullptr && readreg && writereg && btoa) {
        float setpoint = 0;
        check(readreg(s, "setpoint", &setpoint, 4) == 4 && setpoint == 21.5f, "read a real from the device");
        int32_t energy = -123456;
        check(writereg(s, "energy", &energy, 4) == 4, "write an int32");
        int32_t back = 0;
        check(readreg(s, "energy", &back, 4) == 4 && back == energy, "read the int32 back");
        char text[256];
        check(btoa(text, "energy", &back) != nullptr && std::strcmp(text, "-123456") == 0, "register_btoa");
        check(readreg(s, "no_such_register", &back, 4) == -1, "an unknown register gives -1");
    }
    check(close(s) == 0, "session_close");
    FreeLibrary(dll);
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
    dll_session(argc > 1 ? argv[1] : "COM5");
    slip_exchange(argc > 2 ? argv[2] : "COM6");
    std::printf("%d passed, %d failed\n", passed, failed);
    return failed == 0 ? 0 : 1;
}
