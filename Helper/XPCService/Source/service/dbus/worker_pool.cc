#include "worker_pool.h"

#include <algorithm>
#include <system_error>
#include <utility>

namespace tz::dbus {
namespace {

// The watcher stops its timer after this long without work.
constexpr std::chrono::milliseconds kQuietBeforeSleep{100};

}  // namespace

WorkerPool::WorkerPool(std::chrono::microseconds grow_after, std::size_t max_threads)
    : grow_after_(std::max(grow_after, std::chrono::microseconds(1))),
      max_threads_(std::max<std::size_t>(max_threads, 1)) {
    // The first thread is started here, so that a machine that cannot start
    // one fails at start-up rather than leaving a call without a thread.
    threads_.emplace_back([this] { run_jobs(); });
    try {
        watcher_ = std::thread([this] { watch(); });
    } catch (...) {
        stop_and_join();
        throw;
    }
}

WorkerPool::~WorkerPool() { stop_and_join(); }

void WorkerPool::stop_and_join() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    work_ready_.notify_all();
    watch_wake_.notify_all();
    if (watcher_.joinable()) watcher_.join();
    // Only the watcher and post() start threads: the list is final now.
    for (std::thread& thread : threads_) thread.join();
}

void WorkerPool::post(const std::shared_ptr<Strand>& strand, Job job) {
    Wake wake = Wake::none;
    bool wake_watcher = false;
    {
        std::lock_guard lock(mutex_);
        strand->jobs.push_back(std::move(job));
        if (!strand->scheduled) {
            strand->scheduled = true;
            strand->ready_since = Clock::now();
            ready_.push_back(strand);
        }
        if (awake_locked() == 0) wake = add_thread_locked();
        if (watcher_asleep_) {
            watcher_asleep_ = false;
            wake_watcher = true;
        }
    }
    // Outside the lock, so that the woken thread does not block on it at once.
    if (wake == Wake::sleeper) work_ready_.notify_one();
    if (wake_watcher) watch_wake_.notify_one();
}

std::size_t WorkerPool::thread_count() const {
    std::lock_guard lock(mutex_);
    return threads_.size();
}

// Wakes a sleeping thread when one is left unclaimed, else starts one while
// under the limit. A thread that cannot be started leaves the job to the
// threads there are (there is always at least one).
WorkerPool::Wake WorkerPool::add_thread_locked() {
    if (sleeping_ > wakeups_) {
        ++wakeups_;
        return Wake::sleeper;
    }
    if (threads_.size() < max_threads_) {
        try {
            threads_.emplace_back([this] { run_jobs(); });
        } catch (const std::system_error&) {
            // The threads there are take the job in turn.
        }
    }
    return Wake::none;
}

void WorkerPool::run_jobs() {
    std::unique_lock lock(mutex_);
    for (;;) {
        if (!ready_.empty()) {
            std::shared_ptr<Strand> strand = std::move(ready_.front());
            ready_.pop_front();
            Job job = std::move(strand->jobs.front());
            strand->jobs.pop_front();
            lock.unlock();
            job();
            job = nullptr;  // what it held goes before the lock is taken again
            lock.lock();
            if (strand->jobs.empty()) {
                strand->scheduled = false;
            } else {
                // Behind the other callers' work: one caller's burst does not
                // starve the rest.
                strand->ready_since = Clock::now();
                ready_.push_back(std::move(strand));
            }
            continue;
        }
        if (stopping_) return;
        ++sleeping_;
        work_ready_.wait(lock, [this] { return wakeups_ > 0 || stopping_; });
        --sleeping_;
        if (wakeups_ > 0) --wakeups_;
    }
}

void WorkerPool::watch() {
    const auto quiet_ticks = std::max<std::chrono::microseconds::rep>(
        1, std::chrono::microseconds(kQuietBeforeSleep).count() / grow_after_.count());
    std::unique_lock lock(mutex_);
    std::chrono::microseconds::rep quiet = 0;
    while (!stopping_) {
        // A job blocked for long (a poll, a walk) keeps a thread awake
        // without anything to grow for: only waiting work counts.
        if (ready_.empty()) {
            if (++quiet >= quiet_ticks) {
                watcher_asleep_ = true;
                watch_wake_.wait(lock, [this] { return !watcher_asleep_ || stopping_; });
                quiet = 0;
                continue;
            }
        } else {
            quiet = 0;
        }
        // The oldest waiting strand is first; one more thread per look, and
        // none while a wake is still on its way.
        if (!ready_.empty() && wakeups_ == 0 &&
            Clock::now() - ready_.front()->ready_since >= grow_after_) {
            if (add_thread_locked() == Wake::sleeper) {
                lock.unlock();
                work_ready_.notify_one();
                lock.lock();
                continue;
            }
        }
        watch_wake_.wait_for(lock, grow_after_);
    }
}

}  // namespace tz::dbus
