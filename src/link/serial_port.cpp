#include "link/serial_port.h"

#include <atomic>
#include <cstdio>
#include <cstring>
#include <new>

namespace vukra::link {

namespace {

std::atomic<std::uint32_t> received_count{0};

struct LastSettings {
    std::atomic<std::uint32_t> baud{0};
    std::atomic<std::uint32_t> format{0}; // parity, data bits, stop bits
    std::atomic<std::uint32_t> timeout_ms{0};
} last_settings;

} // namespace

int serial_fill(Port* port) {
    long n = platform::serial_read_some(port->native, port->received, kReceiveBufferSize, port->timeout_ms);
    if (n < 0) {
        std::printf("%s", platform::last_error_text());
        return -1;
    }
    port->head = 0;
    port->tail = static_cast<std::uint32_t>(n);
    return n > 0 ? 1 : 0;
}

Port* serial_open(int, const char* name, std::intptr_t native_handle, const SerialSettings* settings) {
    auto* port = new (std::nothrow) Port;
    if (port == nullptr) return nullptr;
    port->native = native_handle != 0 ? native_handle : platform::serial_open(name);
    port->timeout_ms = kSessionSettings.timeout_ms;
    port->head = port->tail = 0;
    port->adopted = native_handle != 0;
    if (settings != nullptr) (void)serial_configure(name, port, settings);
    platform::serial_purge(port->native);
    platform::serial_setup_queues(port->native);
    platform::serial_clear_break(port->native);
    return port;
}

int serial_configure(const char* name, Port* port, const SerialSettings* settings) {
    if (port == nullptr || settings == nullptr) return -1;
    if (platform::serial_configure(port->native, settings->baud, settings->timeout_ms) != 0) {
        if (!port->adopted) platform::serial_close(port->native);
        port->native = platform::kInvalidPort;
        return -1;
    }
    port->timeout_ms = settings->timeout_ms;
    if (name != nullptr) std::printf("%s ready\n", name);
    last_settings.baud = settings->baud;
    last_settings.format = static_cast<std::uint32_t>(static_cast<unsigned char>(settings->parity)) |
                           static_cast<std::uint32_t>(settings->data_bits) << 8 |
                           static_cast<std::uint32_t>(settings->stop_bits) << 16;
    last_settings.timeout_ms = settings->timeout_ms;
    return 0;
}

long serial_read(Port* port, void* buffer, std::size_t count) {
    if (count == 0) return 0;
    if (port->head == port->tail) {
        int r = serial_fill(port);
        if (r <= 0) return r;
    }
    std::size_t n = port->tail - port->head;
    if (n > count) n = count;
    std::memcpy(buffer, port->received + port->head, n);
    port->head += static_cast<std::uint32_t>(n);
    serial_count_received(static_cast<std::uint32_t>(n));
    return static_cast<long>(n);
}

long serial_write(Port* port, const void* bytes, std::size_t count) {
    return platform::serial_write(port->native, bytes, count);
}

int serial_purge(Port* port) {
    port->head = port->tail = 0;
    platform::serial_purge(port->native);
    platform::serial_clear_break(port->native);
    return 0;
}

int serial_close(Port* port) {
    if (port == nullptr) return 0;
    platform::serial_close(port->native);
    delete port;
    return 0;
}

void serial_release(Port* port) { delete port; }

SerialSettings serial_last_settings() {
    std::uint32_t format = last_settings.format;
    return SerialSettings{last_settings.baud, static_cast<char>(format & 0xFF), static_cast<std::uint8_t>(format >> 8),
                          static_cast<std::uint8_t>(format >> 16), last_settings.timeout_ms};
}

std::uint32_t serial_received_count() { return received_count.load(std::memory_order_relaxed); }

void serial_count_received(std::uint32_t bytes) { received_count.fetch_add(bytes, std::memory_order_relaxed); }

void serial_reset_received_count() { received_count.store(0, std::memory_order_relaxed); }

} // namespace vukra::link
