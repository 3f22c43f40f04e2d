// The one queue in front of the line: vukra serve's doors (Modbus TCP, the
// shared line protocol, the web door) put every request to the device in
// it as a Job, and one thread, the line's, runs the jobs one at a time on
// the session.
//
// A door opens a client for each connection (open_client), submits jobs
// under it and closes it when the connection goes; what it had queued is
// then never sent. Each job carries:
//   - work, run on the line's thread with the session (the exchange);
//   - done, called exactly once with what became of the job: kDone after
//     work ran and the door still waited for it, kExpired when it was not
//     run (its deadline passed, or the door gave up on it with abandon())
//     or ran but the door had given up meanwhile, kGone when its client
//     closed or serve stopped first. done runs on the line's thread, or in
//     close_client() or stop(); it must not wait for the queue.
//
// Order (next()): each client's jobs run in the order they came. Between
// clients, the job at the head of each client's queue competes: the most
// urgent priority first (writes, then a client's reads, then periodic
// reads), and among equals the clients take turns, one job each. So one busy
// client cannot starve the others, and a write never waits behind another
// client's reads. So that writes cannot starve readers either, after
// kBurst picks in a row that passed over a less urgent job waiting, the
// next pick is one of those.
//
// Bounds: at most Limits::per_client jobs queued per client and
// Limits::total in all; submit() refuses beyond them (a Modbus TCP client
// then gets exception 6, server busy; a shared-protocol connection is
// closed).
#pragma once

#include "modbus_vukra.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>

namespace vukra::serve {

using Clock = std::chrono::steady_clock;

enum class Priority : int { kWrite = 0, kRead = 1, kPeriodic = 2 };

enum class Outcome { kDone, kExpired, kGone, kRefused /* by call(): the queue was full */ };

struct Job {
    int client = 0;
    Priority priority = Priority::kRead;
    Clock::time_point deadline; // not started after it
    std::function<void(modbus_vukra_session*)> work;
    std::function<void(Outcome)> done;
    // 0 queued, 1 running, 2 finished, 3 abandoned (see abandon()).
    std::atomic<int> state{0};
};

// The door gives up on the job (its client's deadline passed): true when it
// will never be reported kDone, so the door answers for it itself; false
// when the job has already finished (its done(kDone) is on its way or came).
bool abandon(Job& job);

struct Limits {
    std::size_t per_client = 16;
    std::size_t total = 1024;
};

// Picks after which a waiting, less urgent job goes first.
inline constexpr int kBurst = 4;

struct Queue {
    Limits limits;
    std::mutex mutex;
    std::condition_variable changed;
    std::map<int, std::deque<std::shared_ptr<Job>>> clients; // by client, in turn order
    int next_client = 1;
    int last_served = 0;  // the turn goes on after this client
    int passed_over = 0;  // picks in a row that left a less urgent job waiting
    std::size_t queued = 0;
    bool stopping = false;
    // The line: its session (set by run()), whether a job runs on it now,
    // and whether the last one took long (a silent device).
    modbus_vukra_session* session = nullptr;
    bool busy = false;
    bool slow = false;
};

int open_client(Queue& q);
// Drops the client's queued jobs (done(kGone)); a job of it that runs now
// finishes.
void close_client(Queue& q, int client);

enum class Submitted { kQueued, kClientFull, kFull, kStopped, kNoClient };
Submitted submit(Queue& q, std::shared_ptr<Job> job);

// When the line is free and nothing waits, runs the job at once in the
// calling thread (no one is passed over, and a request costs no hand-over
// between threads) and returns true; otherwise false, and the job is to be
// submitted. Not while the line is slow: a door's thread must not wait on a
// silent device.
bool run_now(Queue& q, const std::shared_ptr<Job>& job);

// The next job to run, by the order above, marked running; jobs past their
// deadline or abandoned are reported kExpired on the way. Waits for one;
// null once stop() was called.
std::shared_ptr<Job> next(Queue& q);

// Reports a job next() gave (kDone, or kExpired when its door gave up) and
// frees the line for the next.
void finish(Queue& q, Job& job);

// For a door that waits in its own thread (the web door): runs work under
// client with priority, at the latest patience from now, and returns when
// it is over: kDone when work ran (its results are what it left), kExpired
// when it could not start in time, kGone when serve stops, kRefused when the
// queue is full. work may capture the caller's locals by reference: call()
// returns only once work has run or will never run.
Outcome call(Queue& q, int client, Priority priority, Clock::duration patience,
             std::function<void(modbus_vukra_session*)> work);

// The line's thread: runs jobs on the session until stop(); returns when
// the job in flight has finished.
void run(Queue& q, modbus_vukra_session* session);

// Ends run() after the job in flight; what is still queued is reported
// kGone, and later submits are refused.
void stop(Queue& q);

} // namespace vukra::serve
