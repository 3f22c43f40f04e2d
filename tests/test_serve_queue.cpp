// vukra serve's queue: the order jobs run in, its bounds, deadlines and a
// client that goes. No line here: next() is what the line's thread calls.
#include "../tools/vukra/serve/queue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

namespace vukra::serve {
namespace {

struct Taken {
    std::string outcomes; // D done, E expired, G gone, in the order reported
    std::atomic<int> count{0};
};

std::shared_ptr<Job> job(int client, Priority p, Taken& t, char tag,
                         Clock::duration patience = std::chrono::seconds(60)) {
    auto j = std::make_shared<Job>();
    j->client = client;
    j->priority = p;
    j->deadline = Clock::now() + patience;
    j->done = [&t, tag](Outcome o) {
        t.outcomes += tag;
        t.outcomes += o == Outcome::kDone ? 'D' : o == Outcome::kExpired ? 'E' : 'G';
        ++t.count;
    };
    return j;
}

// The tags of the next n jobs, each finished as it is taken.
std::string order(Queue& q, int n) {
    std::string tags;
    for (int i = 0; i < n; ++i) {
        const auto j = next(q);
        tags += static_cast<char>('a' + j->client - 1);
        finish(q, *j);
    }
    return tags;
}

TEST(ServeQueue, ClientsTakeTurnsWritesGoFirstAndReadsAreNotStarved) {
    Queue q;
    Taken t;
    const int a = open_client(q), b = open_client(q), c = open_client(q);
    for (int i = 0; i < 3; ++i) submit(q, job(a, Priority::kRead, t, 'r'));
    submit(q, job(b, Priority::kRead, t, 'r'));
    submit(q, job(c, Priority::kPeriodic, t, 'p'));
    // a's flood does not hold b up; the periodic read waits for the reads.
    EXPECT_EQ(order(q, 5), "abaac");

    for (int i = 0; i < 2 * kBurst; ++i) submit(q, job(a, Priority::kWrite, t, 'w'));
    submit(q, job(b, Priority::kRead, t, 'r'));
    EXPECT_EQ(order(q, kBurst + 2), std::string(kBurst, 'a') + "ba");
}

TEST(ServeQueue, BoundsDeadlinesAndClientsThatGo) {
    Queue q;
    q.limits = Limits{2, 3};
    Taken t;
    const int a = open_client(q), b = open_client(q);
    EXPECT_EQ(submit(q, job(a, Priority::kRead, t, '1', std::chrono::milliseconds(-1))), Submitted::kQueued);
    EXPECT_EQ(submit(q, job(a, Priority::kRead, t, '2')), Submitted::kQueued);
    EXPECT_EQ(submit(q, job(a, Priority::kRead, t, '3')), Submitted::kClientFull);
    EXPECT_EQ(submit(q, job(b, Priority::kRead, t, '4')), Submitted::kQueued);
    EXPECT_EQ(submit(q, job(b, Priority::kRead, t, '5')), Submitted::kFull);
    // Past its deadline: reported, never run.
    const auto j = next(q);
    EXPECT_EQ(t.outcomes, "1E");
    // Abandoned while running: reported expired, not done.
    EXPECT_TRUE(abandon(*j));
    finish(q, *j);
    // A client that goes takes its queued jobs with it.
    EXPECT_EQ(submit(q, job(a, Priority::kRead, t, '6')), Submitted::kQueued);
    close_client(q, a);
    EXPECT_EQ(submit(q, job(a, Priority::kRead, t, '7')), Submitted::kNoClient);
    std::thread line([&] { run(q, nullptr); });
    while (t.count < 4) std::this_thread::yield();
    stop(q);
    line.join();
    EXPECT_EQ(t.outcomes, "1E2E6G4D");
    EXPECT_EQ(submit(q, job(b, Priority::kRead, t, '8')), Submitted::kStopped);
}

} // namespace
} // namespace vukra::serve
