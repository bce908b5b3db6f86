// The callers' jobs on a small, elastic set of threads.
//
// Each caller gets a Strand: its jobs run one after another in the order they
// were posted, never two at once. Strands share the pool's threads:
//   - a job posted while a pool thread is awake waits for that thread, so a
//     steady stream of short calls is served without waking a sleeping thread
//     per call (on a small machine the wake-ups, not the calls, were the cost);
//   - a job still waiting `grow_after` after it could have started (the awake
//     threads are busy with something long, or blocked: a walk on an agent that
//     does not answer) gets a thread of its own: a sleeping one is woken, or a
//     new one started, up to `max_threads`.
// So one caller's call waits at most about `grow_after` behind another
// caller's, and the long calls of different callers run at the same time.
//
// A watcher thread does the growing. It looks every `grow_after` while jobs
// are waiting and sleeps without a timer once none has waited for a while;
// the next post wakes it.
//
// Threads are never detached: the destructor runs every job already posted,
// then joins them all. Started threads stay until then (the service exits
// when idle, which bounds them in practice; `max_threads` bounds them always).
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace tz::dbus {

class WorkerPool {
public:
    using Job = std::function<void()>;
    using Clock = std::chrono::steady_clock;

    // One caller's serial line of jobs. Opaque; only the pool looks inside.
    class Strand {
        friend class WorkerPool;
        std::deque<Job> jobs;          // posted, not started
        bool scheduled = false;        // waiting in the pool's ready list, or running
        Clock::time_point ready_since; // when it last joined the ready list
    };

    WorkerPool(std::chrono::microseconds grow_after, std::size_t max_threads);
    ~WorkerPool();
    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;

    // Queues `job` on `strand`, behind every job posted to it before.
    // A job must not throw: an escaping exception ends the process.
    // Must not be called once the destructor has begun.
    void post(const std::shared_ptr<Strand>& strand, Job job);

    // How many threads run jobs (the watcher not counted).
    std::size_t thread_count() const;

private:
    enum class Wake { none, sleeper };

    void run_jobs();
    void watch();
    void stop_and_join();
    Wake add_thread_locked();
    // Threads running a job or about to look for one: a woken sleeper counts
    // from the moment its wake is sent.
    std::size_t awake_locked() const { return threads_.size() - sleeping_ + wakeups_; }

    const std::chrono::microseconds grow_after_;
    const std::size_t max_threads_;

    mutable std::mutex mutex_;
    std::condition_variable work_ready_;  // sleeping pool threads wait here
    std::condition_variable watch_wake_;  // the watcher waits here
    std::deque<std::shared_ptr<Strand>> ready_;
    std::vector<std::thread> threads_;
    std::size_t sleeping_ = 0;  // threads waiting on work_ready_
    std::size_t wakeups_ = 0;   // wakes sent to sleepers, not taken yet
    bool watcher_asleep_ = false;
    bool stopping_ = false;
    std::thread watcher_;  // last: starts after everything it uses exists
};

}  // namespace tz::dbus
