// The serial line to the device: opening, line settings, raw byte transfer.
//
// A port handle points to a Port: the system's handle and a receive buffer.
// Reads are served from the buffer and refill it with whatever the driver
// holds, so a packet costs a few system calls, not one per byte; purge and
// close drop what the buffer holds along with the driver's queues.
//
// A port named "tcp://HOST:PORT" (see port_name.h) is a TCP connection to a
// serial device server in raw mode instead: the same bytes travel, the read
// time-out, purge and the counts behave as on a serial port, and the line's
// settings (400000 baud, 8N1, DTR, RTS) are not applied, since the device
// server owns the line and its speed; only the time-out is. A connection
// that the other end closes, or that fails, is dropped: reads then fail at
// once, as they do on a silent line after its time-out, and the next write
// (every exchange starts with one) connects again.
#pragma once

#include "link/port_name.h"
#include "platform/platform.h"

#include <cstddef>
#include <cstdint>

namespace vukra::link {

struct SerialSettings {
    std::uint32_t baud;
    char parity;             // carried, not applied: the line is always 8N1
    std::uint8_t data_bits;  // likewise
    std::uint8_t stop_bits;  // likewise
    std::uint32_t timeout_ms;
};

// The settings every session opens its port with.
inline constexpr SerialSettings kSessionSettings{400000, 'N', 8, 1, 4000};

inline constexpr std::size_t kReceiveBufferSize = 4096;

struct Transport; // a serial line or a TCP connection: what differs between them

struct Port {
    const Transport* transport;
    platform::NativePort native;
    std::uint32_t timeout_ms;
    std::uint32_t head; // next byte to hand out
    std::uint32_t tail; // end of the bytes held
    bool adopted;       // the host handed the handle over: a failed open leaves it to the host
    TcpAddress address; // a TCP connection's, empty for one handed over: a dropped one cannot be made again
    bool exchanging;             // an exchange is under way (see ExchangeDeadline)
    std::uint32_t exchange_start; // the clock when its request left
    std::uint8_t received[kReceiveBufferSize];
};

// An exchange, a request and its reply, ends within the port's time-out
// counted from the request, however the line behaves: while one is under
// way each wait for input waits only for what is left of the time-out, and
// once it has run out a receive fails as on a silent line. So a reply that
// ends late counts as no reply, and so does a device that never stops
// talking (END bytes without end, a frame that never ends, a byte now and
// then): the bytes it keeps sending are left on the line for whoever reads
// next. Outside an exchange (the emulator waiting for requests) each wait
// is the whole time-out. Held for the exchange's scope, from just before
// its request is sent.
class ExchangeDeadline {
public:
    explicit ExchangeDeadline(Port* port);
    ~ExchangeDeadline() { port_->exchanging = false; }
    ExchangeDeadline(const ExchangeDeadline&) = delete;
    ExchangeDeadline& operator=(const ExchangeDeadline&) = delete;

private:
    Port* port_;
};

// Opens the port by name, or adopts native_handle when it is not 0, applies
// settings when given, purges and prepares the port. For a serial port only
// a failed allocation gives null: a name that cannot be opened yields a
// Port on the invalid handle, whose transfers then fail. A tcp:// name that
// does not parse, a host that does not resolve and a connection that is
// refused or not made within the time-out give null, with the reason in
// open_failure().
Port* serial_open(int unused, const char* name, std::intptr_t native_handle, const SerialSettings* settings);

// Why the calling thread's last open of a tcp:// name failed, for a person.
const char* open_failure();

// A Port on a connection the caller accepted (the emulator's end): it is
// not connected again once dropped.
Port* tcp_adopt(platform::NativePort socket, std::uint32_t timeout_ms);

// The serial line's transport, for a Port laid out by hand (the fuzz
// targets' line).
const Transport& serial_line_transport();

// Applies settings; prints "%s ready\n" when a name is given. 0 or -1 (the
// Port is then left on the invalid handle; a handle opened by name is
// closed, one the host handed over stays open for the host).
int serial_configure(const char* name, Port* port, const SerialSettings* settings);

// Up to count bytes: the number read, 0 when the time-out ran out, -1 on
// failure (the system's text of the error is printed).
long serial_read(Port* port, void* buffer, std::size_t count);

long serial_write(Port* port, const void* bytes, std::size_t count);
int serial_purge(Port* port);
int serial_close(Port* port); // also frees the Port
// Frees the Port without closing its handle: an open that fails gives a
// handle the host handed over back to the host as it was.
void serial_release(Port* port);

// Waits up to the port's time-out (within an exchange: what is left of it)
// for input and takes all that has arrived into the receive buffer: 1 with
// bytes held, 0 on time-out, -1 on failure (the system's text of the error
// is printed).
int serial_fill(Port* port);

// One byte, not counted as received: 1, 0 on time-out, -1 on failure. The
// packet receive's inner step, which counts a packet's bytes as a whole.
inline int serial_take_byte(Port* port, std::uint8_t& byte) {
    if (port->head == port->tail) {
        int r = serial_fill(port);
        if (r <= 0) return r;
    }
    byte = port->received[port->head++];
    return 1;
}

// Diagnostic records kept for the whole process; nothing depends on them.
std::uint32_t serial_received_count();
void serial_count_received(std::uint32_t bytes);
void serial_reset_received_count();

} // namespace vukra::link
