// A door's listening socket and its connections, for a protocol of
// requests framed on a byte stream (Modbus TCP's MBAP, SLIP packets).
//
// Each connection has one thread, which reads and frames what its client
// sends, hands each whole message to the door (Protocol::take), writes the
// answers, answers for jobs whose deadline passed, and closes the
// connection when the client goes, sends what does not frame, or stays
// silent past the idle limit. The line's thread never writes to a socket:
// a job's answer goes to its connection's outbox and wakes that thread, so
// a client that stops reading holds up only itself. POSIX only, like the
// rest of serve.
#pragma once

#include "queue.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace vukra::serve {

struct Connection;
using Bytes = std::vector<std::uint8_t>;

struct Protocol {
    const char* name; // the door's, for its lines: "Modbus TCP"
    // The length of the first whole message in bytes (size of them), 0 when
    // more must come, -1 when they cannot be this protocol's (the
    // connection is closed).
    long (*frame)(const std::uint8_t* bytes, std::size_t size);
    // A whole message: the door answers it (send) or submits a job for it
    // (submit).
    void (*take)(Connection& c, const std::uint8_t* message, std::size_t length);
    std::chrono::seconds idle; // a connection silent this long, with nothing pending, is closed; 0: never
    std::size_t most_bytes;    // the most a message in progress may hold
    void (*closed)(Connection& c) = nullptr; // the connection has ended (its client is gone)
};

struct Server;

// Whether address reads as HOST:PORT (port 0 allowed), before anything opens.
bool address_reads(const std::string& address);

// Listens on address (HOST:PORT, IPv6 in brackets, "*" for every
// address, port 0 for any free one) and prints "vukra: NAME on HOST:PORT"
// on standard error, with a warning about authentication unless the address
// is a loopback one. Null after saying why.
Server* listen_on(const std::string& address, const Protocol& protocol, Queue& queue, unsigned max_clients);
// Closes the door and every connection; returns when their threads ended.
void close_server(Server* server);

// ---- for the door, within take() and done() -----------------------------
int client(const Connection& c);
Queue& queue_of(Connection& c);
std::shared_ptr<Connection> shared(Connection& c);
// A slot the door keeps per connection (the shared protocol's memory).
std::shared_ptr<void>& door_data(Connection& c);

// Sends bytes now (an answer the door gives without the line).
void send(Connection& c, Bytes bytes);
// Submits the job; if it has not finished by its deadline, the connection
// abandons it and sends at_deadline (nothing when empty).
Submitted submit(Connection& c, const std::shared_ptr<Job>& job, Bytes at_deadline);
// A job's answer, from its done(kDone); nothing when bytes is empty.
void answer(Connection& c, const Job& job, Bytes bytes);
// Closes the connection once what waits to be sent has gone.
void hang_up(Connection& c);

} // namespace vukra::serve
