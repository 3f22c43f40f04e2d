#include "line.h"
#include "metrics.h"

#include "link/register_transactions.h"
#include "session/tool_interface.h"

#include <memory>

namespace vukra::web {

namespace {

void answered(Rounds& r) { r.last_answer = Clock::now().time_since_epoch().count(); }

// One round on the line's thread, in grouped reads (register_reads.h).
void round(Rounds& r, modbus_vukra_session* s) {
    Board& b = *r.board;
    const unsigned before = r.grouping.transactions;
    const std::vector<cli::Reading> readings = cli::read_registers(s, r.polled, r.grouping);
    b.counters.exchanges += r.grouping.transactions - before;
    const std::string time = cli::timestamp();
    bool answer = false;
    for (std::size_t i = 0; i < readings.size(); ++i) {
        record(b, r.indexes[i], readings[i], time);
        answer |= readings[i].ok;
    }
    // A refusal is an answer too; only silence is a line down.
    const bool silent = !answer && !readings.empty() && link_silent();
    if (!answer && !readings.empty()) count_failure(b.counters);
    if (answer || !silent) answered(r);
    record_line(b, answer || !silent, time);
}
} // namespace

cli::Reading read_entry(modbus_vukra_session* s, Board& b, std::size_t index) {
    const cli::Reading r = cli::read_register(s, b.entries[index].reg);
    count_transaction(b.counters);
    record(b, index, r, cli::timestamp());
    return r;
}

bool link_silent() {
    const tool::FailureKind kind = tool::last_failure().kind;
    return kind == tool::FailureKind::kTimeout || kind == tool::FailureKind::kLine ||
           link::last_outcome().failure == link::Failure::kNoReply;
}

void start(Rounds& r) {
    answered(r);
    for (std::size_t i = 0; i < r.board->entries.size(); ++i) {
        if (!r.board->entries[i].readable) continue;
        r.polled.push_back(r.board->entries[i].reg);
        r.indexes.push_back(i);
    }
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
