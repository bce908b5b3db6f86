#include "front.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <systemd/sd-daemon.h>

#include "bus_names.h"
#include "methods.h"
#include "tz_discovery.h"

namespace tz::dbus {
namespace {

using Clock = std::chrono::steady_clock;

// WalkProgress goes out at most once per this interval while a walk runs.
constexpr std::chrono::milliseconds kProgressInterval{100};

std::string str(std::string_view text) { return std::string(text); }

bool is_walk(Service::Operation op) { return op == &Service::mibwalk_XPC; }

// The front whose walk thread the hooks report to (one per process).
Front* the_front = nullptr;

}  // namespace

Front::Front(sdbus::IConnection& bus, FrontOptions options)
    : bus_(bus),
      options_(std::move(options)),
      service_(options_.preferences_dir),
      own_uid_(::getuid()),
      unique_name_(bus.getUniqueName()),
      last_call_(Clock::now()) {
    wake_fd_ = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (wake_fd_ < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
    name_watch_ = bus_.addMatch(
        "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',"
        "interface='org.freedesktop.DBus',member='NameOwnerChanged'",
        [this](sdbus::Message& signal) { on_name_owner_changed(signal); });
    object_ = sdbus::createObject(bus_, str(bus::kObjectPath));
    // The method table: the protocol's names, each with its operation.
    for (const NamedOperation& named : kOperations)
        object_->registerMethod(str(bus::kInterface), str(named.name), "s", {"request"}, "s", {"reply"},
                                [this, op = named.operation](sdbus::MethodCall call) { on_call(op, std::move(call)); });
    const std::string interface1 = str(bus::kInterface1);
    object_->registerProperty(str(bus::kVersionProperty)).onInterface(interface1)
        .withGetter([] { return str(kVersion); }).withUpdateBehavior(sdbus::Flags::CONST_PROPERTY_VALUE);
    object_->registerProperty(str(bus::kPreferencesDirectoryProperty)).onInterface(interface1)
        .withGetter([this] { return options_.preferences_dir; })
        .withUpdateBehavior(sdbus::Flags::CONST_PROPERTY_VALUE);
    object_->registerSignal(str(bus::kWalkProgressSignal)).onInterface(interface1)
        .withParameters<std::string, uint32_t>("caller", "variables");
    object_->finishRegistration();
    the_front = this;
    TZSetWalkProgressHook(&Front::progress_hook);
    TZSetWalkStopHook(&Front::stop_hook);
    walker_ = std::thread([this] { walk_thread(); });
}

Front::~Front() {
    {
        std::lock_guard lock(mutex_);
        closing_ = true;
    }
    stop_walk_ = true;
    job_ready_.notify_one();
    walker_.join();
    TZSetWalkProgressHook(nullptr);
    TZSetWalkStopHook(nullptr);
    the_front = nullptr;
    ::close(wake_fd_);
}

// On the loop thread, from sd-bus: nothing may escape from here.
void Front::on_call(Service::Operation op, sdbus::MethodCall message) {
    last_call_ = Clock::now();
    Call call{std::move(message), op, {}};
    try {
        char* text = nullptr;
        call.message >> text;
        call.request = text != nullptr ? text : "";
        const std::string sender = call.message.getSender();
        auto [entry, added] = callers_.try_emplace(sender);
        Caller& caller = entry->second;
        if (added) {  // unique names are never reused: their uid is read once
            try {
                caller.uid = call.message.getCredsUid();
                caller.allowed = caller.uid == own_uid_;
            } catch (...) {
                callers_.erase(entry);
                throw;
            }
        }
        if (!caller.allowed)
            return answer(call, {str(bus::kAccessDenied), "caller \"" + sender + "\" runs as uid " +
                                 std::to_string(caller.uid) + ", the service only serves uid " +
                                 std::to_string(own_uid_)});
        if (!is_walk(op) && !caller.walking) return answer(call, perform(op, call.request));
        if (caller.kept_bytes + call.request.size() > kQueuedLimit)
            return answer(call, {str(bus::kLimitsExceeded),
                                 "the calls of \"" + sender + "\" waiting for a walk would hold more than " +
                                     std::to_string(kQueuedLimit >> 20) + " MiB of requests"});
        if (is_walk(op)) walk_turns_.push_back(sender);
        caller.walking = true;
        caller.kept_bytes += call.request.size();
        caller.kept.push_back(std::move(call));
        ++kept_calls_;
    } catch (const std::exception& e) {
        if (call.message.isValid()) answer(call, {str(bus::kFailed), e.what()});
    }
}

void Front::on_name_owner_changed(sdbus::Message& signal) {
    std::string name, old_owner, new_owner;
    try {
        signal >> name >> old_owner >> new_owner;
    } catch (const sdbus::Error&) {
        return;
    }
    if (name == bus::kBusName && old_owner == unique_name_ && new_owner != unique_name_) name_gone_ = true;
    if (!new_owner.empty()) return;
    // The caller has gone: its kept calls go unanswered, its walk stops.
    if (const auto found = callers_.find(name); found != callers_.end()) {
        kept_calls_ -= found->second.kept.size();
        callers_.erase(found);
    }
    if (running_ && running_->caller == name) stop_walk_ = true;
}

// Runs one operation: its reply, or the named error it stopped with.
Front::Answer Front::perform(Service::Operation op, std::string_view request) const noexcept {
    std::optional<Answer> got;
    try {
        (service_.*op)(request, [&](const std::string& text) { got.emplace(Answer{{}, text}); });
        if (!got) got.emplace(Answer{str(bus::kFailed), "the operation ended without a reply"});
    } catch (const std::out_of_range& e) {
        if (!got) got.emplace(Answer{str(bus::kRangeError), e.what()});
    } catch (const std::exception& e) {
        if (!got) got.emplace(Answer{str(bus::kFailed), e.what()});
    }
    return std::move(*got);
}

// A reply that cannot be sent (the caller or the bus has gone) is dropped.
void Front::answer(const Call& call, const Answer& answer) noexcept {
    try {
        if (!answer.error.empty()) return call.message.createErrorReply(sdbus::Error(answer.error, answer.text)).send();
        sdbus::MethodReply reply = call.message.createReply();
        reply << answer.text;
        reply.send();
    } catch (...) {
    }
}

// Runs the calls `caller` kept behind its walk, up to its next walk.
void Front::run_kept(Caller& caller) {
    while (!caller.kept.empty() && !is_walk(caller.kept.front().op)) {
        const Call call = std::move(caller.kept.front());
        caller.kept.pop_front();
        caller.kept_bytes -= call.request.size();
        --kept_calls_;
        answer(call, perform(call.op, call.request));
    }
    caller.walking = !caller.kept.empty();
}

// Hands the first waiting walk whose caller is still there to the walk thread.
void Front::next_walk() {
    while (!running_ && !walk_turns_.empty()) {
        const auto found = callers_.find(walk_turns_.front());
        walk_turns_.pop_front();
        if (found == callers_.end()) continue;  // gone, its calls dropped
        Caller& caller = found->second;
        Running walk{found->first, std::move(caller.kept.front())};
        caller.kept.pop_front();
        caller.kept_bytes -= walk.call.request.size();
        --kept_calls_;
        if (stopping_) {
            answer(walk.call, {str(bus::kFailed), "the service is stopping"});
            run_kept(caller);
            continue;
        }
        stop_walk_ = false;
        variables_ = 0;
        std::lock_guard lock(mutex_);
        job_ = walk.call.request;
        running_.emplace(std::move(walk));
        job_ready_.notify_one();
    }
}

// The running walk has ended: its final count, its reply, its caller's calls.
void Front::walk_ended() {
    std::optional<Answer> done;
    {
        std::lock_guard lock(mutex_);
        done.swap(done_);
    }
    if (!done) return;
    progress_due_ = false;
    if (done->error.empty()) emit_progress(variables_);
    answer(running_->call, *done);
    if (const auto found = callers_.find(running_->caller); found != callers_.end()) run_kept(found->second);
    running_.reset();
    last_call_ = Clock::now();
}

// Progress is advisory: a signal that cannot be sent is dropped.
void Front::emit_progress(int32_t variables) noexcept {
    try {
        object_->emitSignal(str(bus::kWalkProgressSignal)).onInterface(str(bus::kInterface1))
            .withArguments(running_->caller, static_cast<uint32_t>(std::max(variables, 0)));
    } catch (...) {
    }
}

void Front::release_name() {
    releasing_ = true;
    try {
        bus_.releaseName(str(bus::kBusName));
    } catch (const sdbus::Error&) {
        name_gone_ = true;  // not ours (any more): nothing will confirm it
    }
}

int Front::run(int stop_fd) {
    try {
        for (;;) {
            // A bounded batch, so that a walk's end is not kept waiting by a stream of calls.
            for (int i = 0; i < 64 && bus_.processPendingRequest(); ++i) {
            }
            walk_ended();
            if (running_ && progress_due_.exchange(false)) emit_progress(variables_);
            next_walk();
            const bool idle = options_.idle_exit.count() > 0 && !pending() &&
                              Clock::now() - last_call_ >= options_.idle_exit;
            if (!releasing_ && (stopping_ || idle)) release_name();
            if (releasing_ && name_gone_ && !pending()) return 0;
            wait(stop_fd);
        }
    } catch (const std::exception& e) {
        std::fprintf(stderr, SD_ERR "tzhelperd: lost the bus connection: %s\n", e.what());
        return 1;
    }
}

// Sleeps until the bus, the walk thread or the stop signal has something,
// or the bus's next timeout or the idle exit is due.
void Front::wait(int stop_fd) {
    const sdbus::IConnection::PollData data = bus_.getEventLoopPollData();
    int timeout = data.getPollTimeout();
    if (!releasing_ && !pending() && options_.idle_exit.count() > 0) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(last_call_ + options_.idle_exit - Clock::now());
        const int idle_ms = static_cast<int>(std::clamp<int64_t>(left.count(), 0, INT32_MAX));
        timeout = timeout < 0 ? idle_ms : std::min(timeout, idle_ms);
    }
    pollfd fds[3] = {{data.fd, data.events, 0}, {wake_fd_, POLLIN, 0}, {stop_fd, POLLIN, 0}};
    const int ready = ::poll(fds, stop_fd >= 0 ? 3 : 2, timeout);
    if (ready < 0 && errno != EINTR) throw std::system_error(errno, std::generic_category(), "poll");
    uint64_t count = 0;
    if (ready > 0 && (fds[1].revents & POLLIN)) [[maybe_unused]] auto got = ::read(wake_fd_, &count, sizeof count);
    signalfd_siginfo info{};
    if (ready > 0 && stop_fd >= 0 && (fds[2].revents & POLLIN) && ::read(stop_fd, &info, sizeof info) > 0) {
        stopping_ = true;
        stop_walk_ = true;
    }
}

void Front::wake() noexcept {
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = ::write(wake_fd_, &one, sizeof one);  // a full counter wakes anyway
}

// The walk thread: runs each walk the loop hands it and hands back its answer.
void Front::walk_thread() {
    for (;;) {
        std::string_view request;
        {
            std::unique_lock lock(mutex_);
            job_ready_.wait(lock, [this] { return job_.has_value() || closing_; });
            if (!job_) return;
            request = *job_;
            job_.reset();
        }
        last_progress_ = Clock::now();
        Answer answer = perform(&Service::mibwalk_XPC, request);
        {
            std::lock_guard lock(mutex_);
            done_.emplace(std::move(answer));
        }
        wake();
    }
}

// On the walk thread, after each variable: wakes the loop at most once an interval.
void Front::progress_hook(int32_t variables) {
    if (the_front == nullptr) return;
    the_front->variables_ = variables;
    const Clock::time_point now = Clock::now();
    if (now - the_front->last_progress_ < kProgressInterval) return;
    the_front->last_progress_ = now;
    the_front->progress_due_ = true;
    the_front->wake();
}

// On the walk thread: true once the walk's caller has left or the service is stopping.
bool Front::stop_hook() { return the_front != nullptr && the_front->stop_walk_.load(); }

}  // namespace tz::dbus
