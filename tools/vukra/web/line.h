// What the web door needs of vukra serve: work run on the line's thread
// (the one that owns the session), in its turn among every door's
// requests, and the reading round once a period that keeps the board.
#pragma once

#include "../register_reads.h"
#include "board.h"

#include "modbus_vukra.h"

#include <atomic>
#include <functional>
#include <thread>

namespace vukra::web {

enum class Ran {
    kDone,    // the work ran
    kLate,    // the work runs, but ends after the deadline
    kExpired, // it did not run before its deadline, and will not
    kBusy,    // the queue was full
    kStopped, // serve is stopping
};

// How urgent a job is: writes go ahead of a client's reads, which go
// ahead of the reading rounds.
enum class Urgency { kWrite, kRead, kRound };

struct Line {
    // Runs work with the session on the line's thread and waits for it: it
    // is not started after deadline, and once started it is waited for.
    std::function<Ran(std::function<void(modbus_vukra_session*)> work, Urgency urgency, Clock::time_point deadline)>
        run;
};

// Reads one register on the line's thread (in a job), counts the exchange
// and records the reading.
cli::Reading read_entry(modbus_vukra_session* s, Board& b, std::size_t index);

// Whether the line thread's last transaction found the device silent.
bool link_silent();

// The reading round: every readable register once a period, in grouped
// reads, through the line, each round told to after_round (on the round's thread). The line
// is down when a round finds the device silent, or when no read has
// succeeded for two periods (a round stuck behind time-outs); up again
// at the first read that succeeds.
struct Rounds {
    Board* board = nullptr;
    Line* line = nullptr;
    Clock::duration period{};
    std::function<void()> after_round;
    std::atomic<Clock::rep> last_answer{0}; // when the device last answered
    std::vector<cli::Polled> polled;        // the readable registers, read in groups
    std::vector<std::size_t> indexes;       // their entries on the board
    cli::Grouping grouping;
    std::thread thread, watchdog;
    std::mutex mutex;
    std::condition_variable wake;
    bool stopping = false;
};

void start(Rounds& r);
void stop(Rounds& r);

} // namespace vukra::web
