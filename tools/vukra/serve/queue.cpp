#include "queue.h"

#include <vector>

namespace vukra::serve {

namespace {

enum State : int { kQueued = 0, kRunning = 1, kFinished = 2, kAbandoned = 3 };

void report(const std::vector<std::shared_ptr<Job>>& jobs, Outcome outcome) {
    for (const auto& job : jobs)
        if (job->done) job->done(outcome);
}

// Takes the jobs that will not run (abandoned, or past their deadline)
// out of the queue into dropped. Under the queue's mutex.
void drop_dead(Queue& q, Clock::time_point now, std::vector<std::shared_ptr<Job>>& dropped) {
    for (auto& [client, jobs] : q.clients) {
        for (auto j = jobs.begin(); j != jobs.end();) {
            Job& job = **j;
            int queued = kQueued;
            const bool dead = job.state.load() == kAbandoned ||
                              (now >= job.deadline && job.state.compare_exchange_strong(queued, kAbandoned));
            if (!dead) {
                ++j;
                continue;
            }
            dropped.push_back(std::move(*j));
            j = jobs.erase(j);
            --q.queued;
        }
    }
}

// The client whose head goes next (0 when none waits). Under the mutex.
int pick(Queue& q) {
    int most_urgent = 3, least_urgent = -1;
    for (const auto& [client, jobs] : q.clients) {
        if (jobs.empty()) continue;
        const int p = static_cast<int>(jobs.front()->priority);
        most_urgent = std::min(most_urgent, p);
        least_urgent = std::max(least_urgent, p);
    }
    if (least_urgent < 0) return 0;
    const bool overdue = q.passed_over >= kBurst && least_urgent > most_urgent;
    // Turns: the clients after the last one served, then from the start.
    int chosen = 0;
    for (int round = 0; round < 2 && chosen == 0; ++round) {
        for (const auto& [client, jobs] : q.clients) {
            if (jobs.empty() || (round == 0 && client <= q.last_served) || (round == 1 && client > q.last_served))
                continue;
            const int p = static_cast<int>(jobs.front()->priority);
            if (overdue ? p > most_urgent : p == most_urgent) {
                chosen = client;
                break;
            }
        }
    }
    q.passed_over = overdue || least_urgent == most_urgent ? 0 : q.passed_over + 1;
    q.last_served = chosen;
    return chosen;
}

} // namespace

bool abandon(Job& job) {
    int state = job.state.load();
    while (state == kQueued || state == kRunning)
        if (job.state.compare_exchange_weak(state, kAbandoned)) return true;
    return state == kAbandoned;
}

int open_client(Queue& q) {
    std::lock_guard lock(q.mutex);
    const int client = q.next_client++;
    q.clients[client];
    return client;
}

void close_client(Queue& q, int client) {
    std::vector<std::shared_ptr<Job>> dropped;
    {
        std::lock_guard lock(q.mutex);
        auto found = q.clients.find(client);
        if (found == q.clients.end()) return;
        for (auto& job : found->second) {
            job->state = kAbandoned;
            dropped.push_back(std::move(job));
        }
        q.queued -= found->second.size();
        q.clients.erase(found);
    }
    report(dropped, Outcome::kGone);
}

Submitted submit(Queue& q, std::shared_ptr<Job> job) {
    {
        std::lock_guard lock(q.mutex);
        if (q.stopping) return Submitted::kStopped;
        auto found = q.clients.find(job->client);
        if (found == q.clients.end()) return Submitted::kNoClient;
        if (found->second.size() >= q.limits.per_client) return Submitted::kClientFull;
        if (q.queued >= q.limits.total) return Submitted::kFull;
        found->second.push_back(std::move(job));
        ++q.queued;
    }
    q.changed.notify_one();
    return Submitted::kQueued;
}

std::shared_ptr<Job> next(Queue& q) {
    for (;;) {
        std::vector<std::shared_ptr<Job>> dropped;
        std::shared_ptr<Job> job;
        {
            std::unique_lock lock(q.mutex);
            for (;;) {
                if (q.stopping) return nullptr;
                drop_dead(q, Clock::now(), dropped);
                if (!dropped.empty()) break; // reported outside the lock, then the pick again
                const int client = q.busy ? 0 : pick(q);
                if (client != 0) {
                    auto& jobs = q.clients[client];
                    job = std::move(jobs.front());
                    jobs.pop_front();
                    --q.queued;
                    q.busy = true;
                    break;
                }
                // Nothing waits: sleep until a submit (a door gives up on its own jobs at their deadlines).
                q.changed.wait(lock);
            }
        }
        report(dropped, Outcome::kExpired);
        if (!job) continue;
        int queued = kQueued;
        if (job->state.compare_exchange_strong(queued, kRunning)) return job;
        if (job->done) job->done(Outcome::kExpired); // abandoned between the pick and now
        std::lock_guard lock(q.mutex);
        q.busy = false;
    }
}

namespace {

// Runs a job marked running on the line, then frees the line.
void run_on_line(Queue& q, Job& job, modbus_vukra_session* session) {
    const Clock::time_point start = Clock::now();
    if (job.work) job.work(session);
    {
        std::lock_guard lock(q.mutex);
        q.slow = Clock::now() - start > std::chrono::seconds(1);
    }
    finish(q, job);
}

} // namespace

bool run_now(Queue& q, const std::shared_ptr<Job>& job) {
    modbus_vukra_session* session;
    {
        std::lock_guard lock(q.mutex);
        if (q.stopping || q.busy || q.slow || q.queued > 0 || q.session == nullptr || !q.clients.count(job->client))
            return false;
        int queued = kQueued;
        if (!job->state.compare_exchange_strong(queued, kRunning)) return false;
        q.busy = true;
        session = q.session;
    }
    run_on_line(q, *job, session);
    return true;
}

void finish(Queue& q, Job& job) {
    int running = kRunning;
    const bool wanted = job.state.compare_exchange_strong(running, kFinished);
    if (job.done) job.done(wanted ? Outcome::kDone : Outcome::kExpired);
    {
        std::lock_guard lock(q.mutex);
        q.busy = false;
    }
    q.changed.notify_all();
}

Outcome call(Queue& q, int client, Priority priority, Clock::duration patience,
             std::function<void(modbus_vukra_session*)> work) {
    struct Waiting {
        std::mutex mutex;
        std::condition_variable over;
        bool reported = false;
        Outcome outcome = Outcome::kGone;
    };
    auto waiting = std::make_shared<Waiting>();
    auto job = std::make_shared<Job>();
    job->client = client;
    job->priority = priority;
    job->deadline = Clock::now() + patience;
    job->work = std::move(work);
    job->done = [waiting](Outcome outcome) {
        std::lock_guard lock(waiting->mutex);
        waiting->outcome = outcome;
        waiting->reported = true;
        waiting->over.notify_all();
    };
    if (submit(q, job) != Submitted::kQueued) return Outcome::kRefused;
    std::unique_lock lock(waiting->mutex);
    // Past the deadline the job will not start; one that runs is waited for.
    if (!waiting->over.wait_until(lock, job->deadline, [&] { return waiting->reported; })) {
        lock.unlock();
        abandon(*job);
        {
            std::lock_guard wake(q.mutex); // the line's thread reports a queued one as it passes
        }
        q.changed.notify_one();
        lock.lock();
        waiting->over.wait(lock, [&] { return waiting->reported; });
    }
    return waiting->outcome;
}

void run(Queue& q, modbus_vukra_session* session) {
    {
        std::lock_guard lock(q.mutex);
        q.session = session;
    }
    while (std::shared_ptr<Job> job = next(q)) run_on_line(q, *job, session);
    std::lock_guard lock(q.mutex);
    q.session = nullptr;
}

void stop(Queue& q) {
    std::vector<std::shared_ptr<Job>> dropped;
    {
        std::lock_guard lock(q.mutex);
        q.stopping = true;
        for (auto& [client, jobs] : q.clients)
            for (auto& job : jobs) {
                job->state = kAbandoned;
                dropped.push_back(std::move(job));
            }
        q.clients.clear();
        q.queued = 0;
    }
    q.changed.notify_all();
    report(dropped, Outcome::kGone);
}

} // namespace vukra::serve
