#include "line.h"
#include "metrics.h"

#include "link/register_transactions.h"

#include <memory>

namespace vukra::web {

namespace {

void answered(Rounds& r) { r.last_answer = Clock::now().time_since_epoch().count(); }

// One round on the line's thread. After the first time-out the others of
// the round are not tried: one silent read a round is enough to know.
void round(Rounds& r, modbus_vukra_session* s) {
    Board& b = *r.board;
    bool answer = false, silent = false;
    for (std::size_t i = 0; i < b.entries.size(); ++i) {
        if (!b.entries[i].readable) continue;
        if (silent) {
            cli::Reading gone = b.entries[i].last;
            gone.ok = false;
            gone.error = "no reply from the device (time-out)";
            record(b, i, gone, cli::timestamp());
            continue;
        }
        read_entry(s, b, i);
        if (link_silent()) {
            silent = true;
        } else { // a value or a refusal: the device answers
            answer = true;
            answered(r);
        }
    }
    record_line(b, answer || !silent, cli::timestamp());
}

} // namespace

cli::Reading read_entry(modbus_vukra_session* s, Board& b, std::size_t index) {
    const cli::Reading r = cli::read_register(s, b.entries[index].reg);
    count_transaction(b.counters);
    record(b, index, r, cli::timestamp());
    return r;
}

bool link_silent() { return link::last_outcome().failure == link::Failure::kNoReply; }

void start(Rounds& r) {
    answered(r);
    r.thread = std::thread([&r] {
        Clock::time_point next = Clock::now();
        std::unique_lock<std::mutex> lock(r.mutex);
        while (!r.stopping) {
            lock.unlock();
            const Ran ran = r.line->run([&r](modbus_vukra_session* s) { round(r, s); }, Urgency::kRound, next + r.period);
            if ((ran == Ran::kDone || ran == Ran::kLate) && r.after_round) r.after_round();
            // A round that ran late starts the next at once; the missed
            // ones are not made up.
            next += r.period;
            if (next < Clock::now()) next = Clock::now();
            lock.lock();
            r.wake.wait_until(lock, next, [&r] { return r.stopping; });
        }
    });
    // A round stuck behind a silent device cannot say so before its
    // time-out: the line is down once nothing answered for two periods.
    r.watchdog = std::thread([&r] {
        std::unique_lock<std::mutex> lock(r.mutex);
        while (!r.wake.wait_for(lock, r.period / 4, [&r] { return r.stopping; })) {
            const Clock::time_point last{Clock::duration(r.last_answer.load())};
            if (Clock::now() - last > r.period * 2) record_line(*r.board, false, cli::timestamp());
        }
    });
}

void stop(Rounds& r) {
    {
        const std::lock_guard<std::mutex> lock(r.mutex);
        r.stopping = true;
    }
    r.wake.notify_all();
    if (r.thread.joinable()) r.thread.join();
    if (r.watchdog.joinable()) r.watchdog.join();
}

} // namespace vukra::web
