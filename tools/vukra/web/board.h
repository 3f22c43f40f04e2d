// What the web door shows of the device: every register of the table, the
// last value read of each readable one, and whether the device answers.
// The door's reading round (once a period) and its own reads and writes
// fill it; the pages, the JSON API, the events, the metrics and the MQTT
// bridge read it. None of them touches the register table, which belongs
// to the line's thread (the live page writes into it).
#pragma once

#include "../poll_values.h"

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace vukra::web {

using Clock = std::chrono::steady_clock;

struct Entry {
    cli::Polled reg; // name, record and type, looked up once
    std::string table;
    bool readable = false, writable = false;
    cli::Reading last; // not ok, "not read yet", until the first round
    std::string time;  // of the last reading
};

// A change told to the event clients: "value" (data: the register's JSON)
// or "line" (data: {"state":"up"|"down","time":...}).
struct Event {
    std::uint64_t id = 0;
    std::string kind;
    std::string data;
};

// Events kept for clients that fall behind; older ones are dropped.
inline constexpr std::size_t kKeptEvents = 1024;

// The line's counters, kept by every job that talks to the device.
enum class FailureKind { kNoReply, kBadFrame, kException, kWrongFunction, kWrongEcho, kCount };

struct LineCounters {
    std::atomic<std::uint64_t> exchanges{0};
    std::array<std::atomic<std::uint64_t>, static_cast<std::size_t>(FailureKind::kCount)> failures{};
    std::atomic<std::uint64_t> timeouts{0};
};

struct Board {
    LineCounters counters;
    std::vector<Entry> entries;                 // table order; fixed once filled
    std::map<std::string, std::size_t> by_name; // index in entries
    mutable std::mutex mutex;                   // guards what follows
    std::condition_variable news;
    bool line_up = false;
    bool line_known = false; // no round has ended yet
    std::deque<Event> events;
    std::uint64_t last_event = 0;
    bool closing = false;
};

// Every register of the loaded table; on the thread that owns the table.
void fill(Board& b);

// The entry of a register, or null.
const Entry* find(const Board& b, const std::string& name);

// Stores a reading, with an event when its value or status changed.
void record(Board& b, std::size_t index, const cli::Reading& r, const std::string& time);

// Stores the line's state, with an event when it changed.
void record_line(Board& b, bool up, const std::string& time);

// The register as the JSON API shows it: name, table, access ("R", "W" or
// "RW"), then its reading (value, type, time, status, error).
nlohmann::ordered_json entry_json(const Entry& e);

// Under the board's lock.
nlohmann::ordered_json entry_json_locked(const Board& b, std::size_t index);

// The events after id, waiting up to wait for one; false once closing.
bool events_after(Board& b, std::uint64_t id, std::vector<Event>& out, Clock::duration wait);

// Ends every wait (the door stops).
void close(Board& b);

} // namespace vukra::web
