// The front's worker pool on its own: order within a strand, a blocked job
// that holds its own strand but no other, the thread limit, and a destructor
// that runs everything posted.
#include "worker_pool.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;
using tz::dbus::WorkerPool;
using Strand = std::shared_ptr<WorkerPool::Strand>;

constexpr auto kGrowAfter = 1ms;
// How long a test waits for an event before it calls it missing.
constexpr auto kPatience = 30s;

Strand make_strand() { return std::make_shared<WorkerPool::Strand>(); }

// A one-way event that jobs and the test wait on.
class Gate {
public:
    void open() { promise_.set_value(); }
    bool wait() const { return opened_.wait_for(kPatience) == std::future_status::ready; }
    bool is_open() const { return opened_.wait_for(0s) == std::future_status::ready; }

private:
    std::promise<void> promise_;
    std::shared_future<void> opened_ = promise_.get_future().share();
};

TEST(WorkerPool, JobsOfOneStrandRunInOrderAndNeverTwoAtOnce) {
    constexpr int kStrands = 8;
    constexpr int kJobs = 400;
    struct Line {
        Strand strand = make_strand();
        std::atomic<bool> busy{false};
        std::vector<int> ran;
        bool overlapped = false;
    };
    std::array<Line, kStrands> lines;
    {
        WorkerPool pool(kGrowAfter, 8);
        // Four posting threads with two strands each; now and then a job takes
        // longer than the pool waits, so that more threads join in.
        std::vector<std::thread> posters;
        for (int p = 0; p < 4; ++p) {
            posters.emplace_back([&, p] {
                for (int i = 0; i < kJobs; ++i) {
                    for (Line* line : {&lines[2 * p], &lines[2 * p + 1]}) {
                        pool.post(line->strand, [line, i] {
                            if (line->busy.exchange(true)) line->overlapped = true;
                            if (i % 50 == 0) std::this_thread::sleep_for(3ms);
                            line->ran.push_back(i);
                            line->busy = false;
                        });
                    }
                }
            });
        }
        for (std::thread& poster : posters) poster.join();
    }
    std::vector<int> expected(kJobs);
    for (int i = 0; i < kJobs; ++i) expected[i] = i;
    for (const Line& line : lines) {
        EXPECT_FALSE(line.overlapped);
        EXPECT_EQ(line.ran, expected);
    }
}

TEST(WorkerPool, ABlockedJobHoldsItsOwnStrandButNotAnother) {
    Gate other_ran, second_ran;
    std::atomic<bool> first_done{false};
    bool second_saw_first_done = false;
    WorkerPool pool(kGrowAfter, 8);  // after what its jobs use: ends first
    const Strand blocked = make_strand();
    const Strand other = make_strand();

    // The first job waits for the other strand's job: a pool that does not
    // start a thread past it would leave it waiting.
    pool.post(blocked, [&] {
        EXPECT_TRUE(other_ran.wait());
        first_done = true;
    });
    pool.post(blocked, [&] {
        second_saw_first_done = first_done;
        second_ran.open();
    });
    pool.post(other, [&] { other_ran.open(); });

    ASSERT_TRUE(second_ran.wait());
    EXPECT_TRUE(second_saw_first_done);
    EXPECT_GE(pool.thread_count(), 2u);
}

TEST(WorkerPool, StartsNoMoreThreadsThanItsLimit) {
    Gate release;
    std::array<Gate, 3> started;
    WorkerPool pool(kGrowAfter, 2);
    for (Gate& gate : started) {
        pool.post(make_strand(), [&] {
            gate.open();
            release.wait();
        });
    }
    ASSERT_TRUE(started[0].wait());
    ASSERT_TRUE(started[1].wait());
    // Time for the pool to look for a thread some fifty times: it must not
    // find one.
    std::this_thread::sleep_for(50 * kGrowAfter);
    EXPECT_FALSE(started[2].is_open());
    EXPECT_EQ(pool.thread_count(), 2u);
    release.open();
    EXPECT_TRUE(started[2].wait());
}

TEST(WorkerPool, DestructionRunsEveryJobAlreadyPosted) {
    std::atomic<int> ran{0};
    {
        WorkerPool pool(kGrowAfter, 4);
        std::vector<Strand> strands;
        for (int s = 0; s < 10; ++s) strands.push_back(make_strand());
        for (int i = 0; i < 1000; ++i) pool.post(strands[i % 10], [&] { ++ran; });
    }
    EXPECT_EQ(ran, 1000);
}

}  // namespace
