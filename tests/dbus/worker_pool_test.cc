// The front's worker pool on its own.
#include "worker_pool.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <future>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;
using tz::dbus::WorkerPool;
using Strand = std::shared_ptr<WorkerPool::Strand>;

Strand make_strand() { return std::make_shared<WorkerPool::Strand>(); }

// A one-way event that jobs and the test wait on (30 s before it is missing).
struct Gate {
    std::promise<void> promise;
    std::shared_future<void> opened = promise.get_future().share();
    void open() { promise.set_value(); }
    bool wait(std::chrono::milliseconds limit = 30s) const { return opened.wait_for(limit) == std::future_status::ready; }
};

// Order within a strand and never two jobs of it at once, from four posting
// threads, while slow jobs make the pool grow; destruction runs every job.
TEST(WorkerPool, JobsOfOneStrandRunInOrderAndNeverTwoAtOnce) {
    struct Line {
        Strand strand = make_strand();
        std::atomic<bool> busy{false};
        std::vector<int> ran;
        bool overlapped = false;
    };
    constexpr int kJobs = 400;
    std::array<Line, 8> lines;
    {
        WorkerPool pool(1ms, 8);
        std::vector<std::thread> posters;
        for (int p = 0; p < 4; ++p)
            posters.emplace_back([&, p] {
                for (int i = 0; i < kJobs; ++i)
                    for (Line* line : {&lines[2 * p], &lines[2 * p + 1]})
                        pool.post(line->strand, [line, i] {
                            if (line->busy.exchange(true)) line->overlapped = true;
                            if (i % 50 == 0) std::this_thread::sleep_for(3ms);
                            line->ran.push_back(i);
                            line->busy = false;
                        });
            });
        for (std::thread& poster : posters) poster.join();
    }
    std::vector<int> expected(kJobs);
    for (int i = 0; i < kJobs; ++i) expected[i] = i;
    for (const Line& line : lines) {
        EXPECT_FALSE(line.overlapped);
        EXPECT_EQ(line.ran, expected);
    }
}

// The blocked job waits for another strand's: a pool that starts no thread
// past it would leave it waiting.
TEST(WorkerPool, ABlockedJobHoldsItsOwnStrandButNotAnother) {
    Gate other_ran, second_ran;
    std::atomic<bool> first_done{false}, second_saw_first_done{false};
    WorkerPool pool(1ms, 8);
    const Strand blocked = make_strand();
    pool.post(blocked, [&] {
        EXPECT_TRUE(other_ran.wait());
        first_done = true;
    });
    pool.post(blocked, [&] {
        second_saw_first_done = first_done.load();
        second_ran.open();
    });
    pool.post(make_strand(), [&] { other_ran.open(); });
    ASSERT_TRUE(second_ran.wait());
    EXPECT_TRUE(second_saw_first_done);
    EXPECT_GE(pool.thread_count(), 2u);
}

TEST(WorkerPool, StartsNoMoreThreadsThanItsLimit) {
    Gate release;
    std::array<Gate, 3> started;
    WorkerPool pool(1ms, 2);
    for (Gate& gate : started)
        pool.post(make_strand(), [&] {
            gate.open();
            release.wait();
        });
    ASSERT_TRUE(started[0].wait() && started[1].wait());
    EXPECT_FALSE(started[2].wait(50ms)) << "some fifty looks for a thread found one";
    EXPECT_EQ(pool.thread_count(), 2u);
    release.open();
    EXPECT_TRUE(started[2].wait());
}

}  // namespace
