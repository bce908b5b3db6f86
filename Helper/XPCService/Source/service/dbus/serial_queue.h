// One client's worker: a thread of its own that runs the jobs posted to it one
// after another, in the order they were posted.
//
// The queue owns its thread. close() lets the thread run what is queued and
// then end; the destructor closes and joins, so a queue never outlives its
// thread and no thread is ever detached. `on_exit` runs on the worker thread
// just before it ends (the front uses it to wake its event loop and join).
#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace tz::dbus {

class SerialQueue {
public:
    using Job = std::function<void()>;

    explicit SerialQueue(std::function<void()> on_exit = {});
    ~SerialQueue();
    SerialQueue(const SerialQueue&) = delete;
    SerialQueue& operator=(const SerialQueue&) = delete;

    // Queues `job` behind every job posted before it. Jobs posted after
    // close() are dropped: the caller must not post to a closed queue.
    // A job must not throw: an escaping exception ends the process.
    void post(Job job);

    // No more jobs; the thread ends once the queue is empty.
    void close();

    // True once the thread has run its last job and is about to end; join()
    // then returns at once.
    bool finished() const { return finished_.load(std::memory_order_acquire); }

    // Closes and waits for the thread. Safe to call more than once.
    void join();

private:
    void run();

    std::function<void()> on_exit_;
    std::mutex mutex_;
    std::condition_variable ready_;
    std::deque<Job> jobs_;
    bool closed_ = false;
    std::atomic<bool> finished_{false};
    std::thread thread_;  // last: starts after everything it uses exists
};

}  // namespace tz::dbus
