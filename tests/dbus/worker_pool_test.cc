// The front's worker pool on its own.
#include "worker_pool.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <future>
#include <numeric>
#include <thread>

namespace {

using namespace std::chrono_literals;
using tz::dbus::WorkerPool;
std::shared_ptr<WorkerPool::Strand> make_strand() { return std::make_shared<WorkerPool::Strand>(); }


struct Gate {
    std::promise<void> promise;
    std::shared_future<void> opened = promise.get_future().share();
    bool wait(std::chrono::milliseconds limit = 30s) const {
        return opened.wait_for(limit) == std::future_status::ready;
    }
};

// Four threads post to two strands each while slow jobs make the pool grow; destruction runs every job posted.
TEST(WorkerPool, JobsOfOneStrandRunInOrderAndNeverTwoAtOnce) {
    struct Line {
        std::shared_ptr<WorkerPool::Strand> strand = make_strand();
        std::atomic<bool> busy{false}, overlapped{false};
        std::vector<int> ran;
    };
    std::array<Line, 8> lines;
    {
        WorkerPool pool(1ms, 8);
        std::vector<std::thread> posters;
        for (int p = 0; p < 4; ++p)
            posters.emplace_back([&, p] {
                for (int i = 0; i < 400; ++i)
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
    std::vector<int> expected(400);
    std::iota(expected.begin(), expected.end(), 0);
    for (const Line& line : lines) EXPECT_TRUE(!line.overlapped && line.ran == expected);
}

TEST(WorkerPool, StartsNoMoreThreadsThanItsLimit) {
    Gate release;
    std::array<Gate, 3> started;
    WorkerPool pool(1ms, 2);
    for (Gate& gate : started) pool.post(make_strand(), [&] { gate.promise.set_value(), release.wait(); });
    ASSERT_TRUE(started[0].wait() && started[1].wait());
    EXPECT_FALSE(started[2].wait(50ms)) << "some fifty looks for a thread found one";
    EXPECT_EQ(pool.thread_count(), 2u);
    release.promise.set_value();
    EXPECT_TRUE(started[2].wait());
}

}  // namespace
