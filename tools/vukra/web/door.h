// vukra serve's web door (cpp-httplib):
//
//   GET  /                    the generator's live value page, read from the device
//   POST /modbus.cb           its forms (NAME=TEXT): writes, answers the page again
//   GET  /map                 the generator's register map
//   GET  /api/registers       every readable register as JSON, from the last round
//   GET  /api/registers/NAME  one, read now
//   PUT  /api/registers/NAME  {"value": V}: writes it, answers the value read back
//   GET  /api/events          server-sent events: "value" and "line"
//   GET  /ui                  the door's own page, kept current by the events
//   GET  /metrics             Prometheus text
//
// Who may write: access.h. Bounds: a request line and headers of at most
// 8 KiB (the library's), a body of at most kMaxBody, 5 s without a byte
// from the client ends its connection, a request waits at most
// request_wait for the line; connections are served by up to kMaxWorkers
// threads, and at most kMaxEventClients of them hold an event stream.
#pragma once

#include "line.h"
#include "pages.h"

#include <string>

namespace vukra::web {

inline constexpr std::size_t kMaxBody = 64 * 1024;
inline constexpr std::size_t kMaxWorkers = 64;
inline constexpr std::size_t kMaxEventClients = 32;

struct DoorSettings {
    std::string address;    // HOST:PORT (port 0: a free one)
    std::string token_file; // "" for none (loopback only)
    bool read_only = false;
    Clock::duration request_wait = std::chrono::seconds(10);
};

struct Door;

// Checks the settings, reads the token and listens; null, with why, when it
// cannot. The pages folder must be made; called before the line's thread
// runs (it writes the register map from the table).
Door* start_door(const DoorSettings& settings, Board& board, Line& line, Pages& pages, std::string& why);

// The address it listens on, as HOST:PORT with the port it got.
std::string door_address(const Door* door);

// Closes the door: its connections end, the event streams too.
void stop_door(Door* door);

} // namespace vukra::web
