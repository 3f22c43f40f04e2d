// Opens a session on a pseudo-terminal whose other end answers, and shows
// the SLIP packets going both ways, byte for byte.
#include "link/slip.h"
#include "modbus_vukra.h"
#include "platform/platform.h"
#include "session/session.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <string>

using namespace vukra;

namespace {

void show(const char* who, const std::uint8_t* bytes, long n) {
    std::printf("  %-7s", who);
    for (long i = 0; i < n; ++i) std::printf(" %02X", bytes[i]);
    std::printf("\n");
}

struct Device {
    link::Port* port;
    std::atomic<bool> stop{false};
};

// The device's end: shows what arrives on the wire and answers each packet
// with its bytes reversed.
void device_loop(void* raw) {
    auto* device = static_cast<Device*>(raw);
    link::Port* port = device->port;
    std::uint8_t packet[512];
    while (!device->stop) {
        long n = link::slip_receive(port, packet, sizeof packet);
        if (n <= 0) continue;
        std::reverse(packet, packet + n);
        link::slip_send(port, packet, static_cast<std::size_t>(n));
    }
}

} // namespace

int main() {
    platform::PseudoTerminal pty;
    if (!platform::pty_open(pty)) {
        std::perror("openpty");
        return 1;
    }
    const char* name = pty.path;

    std::printf("device line: %s\n", name);
    modbus_vukra_session* s = modbus_vukra_op_session_open(name);
    if (s == nullptr) {
        std::printf("session_open failed\n");
        return 1;
    }
    std::int32_t info[MODBUS_VUKRA_INFO_WORDS];
    modbus_vukra_op_session_info(s, info);
    std::printf("session open at 400000 baud 8N1, mount path \"%s\", phase %d\n", s->mount_path,
                static_cast<int>(info[MODBUS_VUKRA_INFO_PHASE]));

    // The device's end is ready (and purged) before the host sends anything.
    Device device{link::serial_open(0, nullptr, pty.master, nullptr)};
    device.port->timeout_ms = 500;
    platform::Thread thread;
    platform::thread_start(thread, device_loop, &device);

    const std::string payloads[] = {"hello device", std::string("\xC0 end \xDB esc", 11), ":010301000002F9\r\n"};
    int exchanged = 0;
    for (const std::string& p : payloads) {
        const auto* bytes = reinterpret_cast<const std::uint8_t*>(p.data());
        std::printf("packet of %zu bytes\n", p.size());
        show("host", bytes, static_cast<long>(p.size()));
        link::slip_send(s->port, bytes, p.size());
        std::uint8_t reply[512];
        long n = link::slip_receive(s->port, reply, sizeof reply);
        if (n < 0) {
            std::printf("  no answer\n");
            continue;
        }
        show("device", reply, n);
        ++exchanged;
    }
    device.stop = true;
    platform::thread_join(thread, 2000);
    modbus_vukra_op_session_close(s);
    link::serial_close(device.port);
    platform::serial_close(pty.slave);
    std::printf("%d of 3 packets answered\n", exchanged);
    return exchanged == 3 ? 0 : 1;
}
