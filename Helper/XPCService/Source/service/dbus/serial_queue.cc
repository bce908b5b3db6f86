#include "serial_queue.h"

#include <utility>

namespace tz::dbus {

SerialQueue::SerialQueue(std::function<void()> on_exit)
    : on_exit_(std::move(on_exit)), thread_([this] { run(); }) {}

SerialQueue::~SerialQueue() { join(); }

void SerialQueue::post(Job job) {
    {
        std::lock_guard lock(mutex_);
        if (closed_) return;
        jobs_.push_back(std::move(job));
    }
    ready_.notify_one();
}

void SerialQueue::close() {
    {
        std::lock_guard lock(mutex_);
        closed_ = true;
    }
    ready_.notify_one();
}

void SerialQueue::join() {
    close();
    if (thread_.joinable()) thread_.join();
}

void SerialQueue::run() {
    for (;;) {
        Job job;
        {
            std::unique_lock lock(mutex_);
            ready_.wait(lock, [this] { return closed_ || !jobs_.empty(); });
            if (jobs_.empty()) break;  // closed and drained
            job = std::move(jobs_.front());
            jobs_.pop_front();
        }
        job();
    }
    finished_.store(true, std::memory_order_release);
    if (on_exit_) on_exit_();
}

}  // namespace tz::dbus
