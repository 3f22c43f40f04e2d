#include "link/serial_port.h"

#include "link/line_failure.h"

#include <cerrno>
#include "session/log.h"

#include <atomic>
#include <cstdio>
#include <cstring>
#include <new>

namespace vukra::link {

namespace {

std::atomic<std::uint32_t> received_count{0};

// Room for the longest host, port and reason; and the reason alone.
thread_local char failure[600];
thread_local char connect_why[256];

void drop_connection(Port* port) {
    platform::tcp_close(port->native);
    port->native = platform::kInvalidPort;
}

// Connects a tcp port to its address: false, with the reason in failure.
bool connect(Port* port) {
    char* why = connect_why;
    why[0] = '\0';
    port->native = platform::tcp_connect(port->address.host, port->address.service, port->timeout_ms, why,
                                         sizeof connect_why);
    if (port->native != platform::kInvalidPort) return true;
    std::snprintf(failure, sizeof failure, "cannot connect to %s port %s: %s", port->address.host,
                  port->address.service, why);
    note_failure(FailureKind::kLine, std::strstr(why, "refused") ? ECONNREFUSED : EIO, "%s", failure);
    return false;
}

// A serial line: the terminal driver's time-out, queues and break.
long line_read_some(Port* port, std::uint32_t wait_ms) {
    long n = platform::serial_read_some(port->native, port->received, kReceiveBufferSize, wait_ms);
    if (n < 0) {
        const char* text = platform::last_error_text();
        log::print("%s", text);
        note_failure(FailureKind::kLine, EIO, "the serial line failed: %.*s", static_cast<int>(std::strcspn(text, "\r\n")),
                     text);
    }
    return n;
}

long line_write(Port* port, const void* bytes, std::size_t count) {
    return platform::serial_write(port->native, bytes, count);
}

void line_purge(Port* port) {
    platform::serial_purge(port->native);
    platform::serial_clear_break(port->native);
}

// A TCP connection to a device server. A dropped connection answers at
// once, as a silent line does once its time-out has run out; the next write
// connects again when the address is known.
long tcp_read_some(Port* port, std::uint32_t wait_ms) {
    long n = platform::tcp_read_some(port->native, port->received, kReceiveBufferSize, wait_ms);
    if (n < 0 && port->native != platform::kInvalidPort) {
        log::print("connection to the device server lost\n");
        note_failure(FailureKind::kLine, ECONNRESET, "the device server closed the connection");
        drop_connection(port);
    }
    return n;
}

long tcp_write(Port* port, const void* bytes, std::size_t count) {
    // A connection the other end closed while nothing was asked is noticed
    // here, so that the exchange about to start goes on a new one.
    if (port->native != platform::kInvalidPort && !platform::tcp_connected(port->native)) drop_connection(port);
    if (port->native == platform::kInvalidPort) {
        if (port->address.host[0] == '\0') return -1; // handed over: there is no address to connect to
        if (!connect(port)) {
            log::print("%s\n", failure);
            return -1;
        }
    }
    long n = platform::tcp_write(port->native, bytes, count);
    if (n < 0) drop_connection(port);
    return n;
}

void tcp_purge(Port* port) {
    if (port->native != platform::kInvalidPort && !platform::tcp_drain(port->native)) drop_connection(port);
}

} // namespace

struct Transport {
    // Into received, waiting up to wait_ms: a count, 0 at the time-out, -1 on an error.
    long (*read_some)(Port*, std::uint32_t wait_ms);
    long (*write)(Port*, const void* bytes, std::size_t count);
    void (*purge)(Port*);     // drop what has arrived
    void (*close)(platform::NativePort);
};

namespace {

constexpr Transport kSerialLine{line_read_some, line_write, line_purge, platform::serial_close};
constexpr Transport kTcpConnection{tcp_read_some, tcp_write, tcp_purge, platform::tcp_close};

Port* new_port(const Transport& transport, platform::NativePort native, bool adopted) {
    auto* port = new (std::nothrow) Port;
    if (port == nullptr) return nullptr;
    port->transport = &transport;
    port->native = native;
    port->timeout_ms = kSessionSettings.timeout_ms;
    port->head = port->tail = 0;
    port->adopted = adopted;
    port->address = TcpAddress{};
    port->exchanging = false;
    port->exchange_start = 0;
    return port;
}

Port* tcp_open(const char* name, const SerialSettings* settings) {
    TcpAddress address;
    if (!parse_tcp_name(name, address)) {
        std::snprintf(failure, sizeof failure,
                      "\"%.200s\" is not a port name tcp://HOST:PORT (an IPv6 address in brackets, a port from 1 to "
                      "65535)",
                      name);
        return nullptr;
    }
    Port* port = new_port(kTcpConnection, platform::kInvalidPort, false);
    if (port == nullptr) return nullptr;
    port->address = address;
    if (settings != nullptr) port->timeout_ms = settings->timeout_ms;
    if (!connect(port)) {
        delete port;
        return nullptr;
    }
    if (settings != nullptr) (void)serial_configure(name, port, settings);
    return port;
}

} // namespace

const char* open_failure() { return failure; }

const Transport& serial_line_transport() { return kSerialLine; }

Port* tcp_adopt(platform::NativePort socket, std::uint32_t timeout_ms) {
    Port* port = new_port(kTcpConnection, socket, true);
    if (port == nullptr) return nullptr;
    port->timeout_ms = timeout_ms;
    return port;
}

ExchangeDeadline::ExchangeDeadline(Port* port) : port_(port) {
    port->exchanging = true;
    port->exchange_start = platform::clock_ms();
}

int serial_fill(Port* port) {
    std::uint32_t wait = port->timeout_ms;
    if (port->exchanging) {
        const std::uint32_t spent = platform::clock_ms() - port->exchange_start;
        if (spent >= port->timeout_ms) {
            port->head = port->tail = 0;
            return 0;
        }
        wait = port->timeout_ms - spent;
    }
    long n = port->transport->read_some(port, wait);
    port->head = 0;
    port->tail = static_cast<std::uint32_t>(n > 0 ? n : 0);
    return n > 0 ? 1 : static_cast<int>(n);
}

namespace {

// Says why a serial port did not open, or was not a serial port after all.
void note_port_problem(const char* name) {
    const platform::PortProblem problem = platform::last_port_problem();
    const char* text = platform::last_error_text();
    const int shown = static_cast<int>(std::strcspn(text, "\r\n"));
    const char* shown_name = name != nullptr ? name : "(handed over)";
    switch (problem) {
    case platform::PortProblem::kMissing:
        note_failure(FailureKind::kPort, ENOENT, "cannot open the port %s: no such device (is it plugged in?)", shown_name);
        break;
    case platform::PortProblem::kDenied:
        note_failure(FailureKind::kPort, EACCES,
                     "cannot open the port %s: permission denied (add yourself to the dialout group: sudo usermod "
                     "-aG dialout $USER, then log in again)",
                     shown_name);
        break;
    case platform::PortProblem::kNotSerial:
        note_failure(FailureKind::kPort, ENOTTY, "cannot open the port %s: not a serial port", shown_name);
        break;
    case platform::PortProblem::kBusy:
        note_failure(FailureKind::kPort, EBUSY, "cannot open the port %s: another program holds it (%.*s)", shown_name,
                     shown, text);
        break;
    case platform::PortProblem::kOther:
        note_failure(FailureKind::kPort, EIO, "cannot open the port %s: %.*s", shown_name, shown, text);
        break;
    }
}

} // namespace

Port* serial_open(int, const char* name, std::intptr_t native_handle, const SerialSettings* settings) {
    clear_failure();
    if (native_handle == 0 && is_tcp_name(name)) {
        Port* port = tcp_open(name, settings);
        if (port == nullptr) {
            const bool unconnected = failure_kind() != FailureKind::kNone;
            const int error = unconnected ? failure_errno() : EINVAL;
            clear_failure();
            if (unconnected)
                note_failure(FailureKind::kPort, error, "cannot open the port %s: %s", name, connect_why);
            else
                note_failure(FailureKind::kPort, error, "%s", failure);
        }
        return port;
    }
    const platform::NativePort native = native_handle != 0 ? native_handle : platform::serial_open(name);
    if (native == platform::kInvalidPort) note_port_problem(name);
    Port* port = new_port(kSerialLine, native, native_handle != 0);
    if (port == nullptr) return nullptr;
    if (settings != nullptr && native != platform::kInvalidPort && serial_configure(name, port, settings) != 0)
        note_port_problem(name);
    platform::serial_purge(port->native);
    platform::serial_setup_queues(port->native);
    platform::serial_clear_break(port->native);
    return port;
}

int serial_configure(const char* name, Port* port, const SerialSettings* settings) {
    if (port == nullptr || settings == nullptr) return -1;
    if (port->transport == &kSerialLine && platform::serial_configure(port->native, settings->baud, settings->timeout_ms) != 0) {
        if (!port->adopted) platform::serial_close(port->native);
        port->native = platform::kInvalidPort;
        return -1;
    }
    port->timeout_ms = settings->timeout_ms;
    if (name != nullptr) log::print("%s ready\n", name);
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
    return port->transport->write(port, bytes, count);
}

int serial_purge(Port* port) {
    port->head = port->tail = 0;
    port->transport->purge(port);
    return 0;
}

int serial_close(Port* port) {
    if (port == nullptr) return 0;
    port->transport->close(port->native);
    delete port;
    return 0;
}

void serial_release(Port* port) { delete port; }

std::uint32_t serial_received_count() { return received_count.load(std::memory_order_relaxed); }

void serial_count_received(std::uint32_t bytes) { received_count.fetch_add(bytes, std::memory_order_relaxed); }

void serial_reset_received_count() { received_count.store(0, std::memory_order_relaxed); }

} // namespace vukra::link
