#include "front.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <functional>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <utility>

#include <systemd/sd-daemon.h>

#include "bus_names.h"
#include "methods.h"
#include "tz_discovery.h"

namespace tz::dbus {
namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kBusDaemonName = "org.freedesktop.DBus";
constexpr const char* kBusDaemonPath = "/org/freedesktop/DBus";

// A call that could have started this long ago gets a pool thread of its own.
constexpr std::chrono::milliseconds kGrowAfter{2};
constexpr std::size_t kMaxThreads = 64;

// WalkProgress goes out at most once per this interval while a walk runs.
constexpr std::chrono::milliseconds kProgressInterval{100};

std::string str(std::string_view text) { return std::string(text); }

int64_t now_ns() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch())
        .count();
}

// Sends an error reply; a reply that cannot be sent any more (the bus is gone)
// is dropped, as the caller can no longer receive it anyway.
void send_error(const sdbus::Result<std::string>& result, std::string_view name,
                const std::string& message) noexcept {
    try {
        result.returnError(sdbus::Error(str(name), message));
    } catch (...) {
    }
}

// Runs one operation and answers the call exactly once: with the operation's
// reply, or with a named error when the operation stopped without one.
// `before_reply`, if set, runs just before the reply is sent (not before an
// error).
void answer(const Service& service, Service::Operation op, const std::string& request,
            const sdbus::Result<std::string>& result,
            const std::function<void()>& before_reply = {}) noexcept {
    bool replied = false;
    const Service::Reply reply = [&](const std::string& text) {
        if (replied) return;
        replied = true;
        if (before_reply) before_reply();
        result.returnResults(text);
    };
    try {
        (service.*op)(request, reply);
        if (!replied) {
            replied = true;
            send_error(result, bus::kFailed, "the operation ended without a reply");
        }
    } catch (const std::out_of_range& e) {
        if (!replied) send_error(result, bus::kRangeError, e.what());
    } catch (const std::exception& e) {
        if (!replied) send_error(result, bus::kFailed, e.what());
    } catch (...) {
        if (!replied) send_error(result, bus::kFailed, "unknown failure");
    }
}

}  // namespace

// The running walk's progress, on the walking thread: the discovery layer
// calls its progress hook there after each variable, and the hook finds the
// walk through a thread-local pointer set for the walk's duration. Only one
// walk runs at a time, but the pointer is per thread anyway, so a hook call
// on any other thread does nothing.
class Front::WalkProgress {
public:
    WalkProgress(Front& front, std::string caller)
        : front_(front), caller_(std::move(caller)), last_sent_(Clock::now()) {
        current = this;
    }
    ~WalkProgress() { current = nullptr; }
    WalkProgress(const WalkProgress&) = delete;
    WalkProgress& operator=(const WalkProgress&) = delete;

    // The hook the discovery layer calls; set once for the process.
    static void hook(int32_t variables) {
        if (current != nullptr) current->accepted(variables);
    }
    // The walk has ended: its final count, whatever was sent before.
    void finish() { front_.emit_walk_progress(caller_, variables_); }

private:
    void accepted(int32_t variables) {
        variables_ = variables;
        const Clock::time_point now = Clock::now();
        if (now - last_sent_ < kProgressInterval) return;
        last_sent_ = now;
        front_.emit_walk_progress(caller_, variables_);
    }

    static thread_local WalkProgress* current;
    Front& front_;
    const std::string caller_;
    Clock::time_point last_sent_;  // the walk's start, then the last signal
    int32_t variables_ = 0;
};

thread_local Front::WalkProgress* Front::WalkProgress::current = nullptr;

Front::Front(sdbus::IConnection& bus, FrontOptions options)
    : bus_(bus),
      options_(std::move(options)),
      own_uid_(::getuid()),
      unique_name_(bus.getUniqueName()),
      last_call_(Clock::now()) {
    wake_fd_ = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (wake_fd_ < 0) throw std::system_error(errno, std::generic_category(), "eventfd");

    bus_daemon_ = sdbus::createProxy(bus_, kBusDaemonName, kBusDaemonPath);
    name_watch_ = bus_.addMatch(
        "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',"
        "interface='org.freedesktop.DBus',member='NameOwnerChanged'",
        [this](sdbus::Message& signal) { on_name_owner_changed(signal); });

    object_ = sdbus::createObject(bus_, str(bus::kObjectPath));
    register_interfaces();
    pool_ = std::make_unique<WorkerPool>(kGrowAfter, kMaxThreads);
    loop_strand_ = std::make_shared<WorkerPool::Strand>();
    TZSetWalkProgressHook(&WalkProgress::hook);
}

Front::~Front() {
    // The pool first: its jobs reply through the bus. run() leaves no
    // hand-off or waiting walk behind unless the bus failed; those calls
    // cannot be answered. A walk still running passes its turn to nobody.
    handoffs_.clear();
    std::unordered_map<const Caller*, std::deque<Call>> backlogs;
    {
        std::lock_guard lock(walks_mutex_);
        closing_ = true;
        walk_queue_.clear();
        backlogs.swap(backlogs_);
    }
    backlogs.clear();  // outside the lock: a call's result goes through sd-bus
    pool_.reset();
    TZSetWalkProgressHook(nullptr);
    clients_.clear();
    object_.reset();
    if (wake_fd_ >= 0) ::close(wake_fd_);
}

void Front::register_interfaces() {
    const std::string interface = str(bus::kInterface);
    // The service's operations stand in the protocol's order under its names.
    for (std::size_t i = 0; i < protocol::kMethods.size(); ++i) {
        const Service::Operation op = kOperations[i].operation;
        object_->registerMethod(str(protocol::kMethods[i].name))
            .onInterface(interface)
            .withInputParamNames("request")
            .withOutputParamNames("reply")
            .implementedAs([this, op](sdbus::Result<std::string>&& result, std::string request) {
                on_call(op, std::move(result), std::move(request));
            });
    }

    const std::string interface1 = str(bus::kInterface1);
    constexpr auto constant = sdbus::Flags::CONST_PROPERTY_VALUE;
    object_->registerProperty(str(bus::kVersionProperty))
        .onInterface(interface1)
        .withGetter([] { return str(kVersion); })
        .withUpdateBehavior(constant);
    object_->registerProperty(str(bus::kPreferencesDirectoryProperty))
        .onInterface(interface1)
        .withGetter([this] { return options_.preferences_dir; })
        .withUpdateBehavior(constant);
    object_->registerSignal(str(bus::kWalkProgressSignal))
        .onInterface(interface1)
        .withParameters<std::string, uint32_t>("caller", "variables");
    object_->finishRegistration();
}

// Called on the walking thread. sdbus-c++ lets any thread emit a signal on an
// object while the event loop runs on another; the object outlives every
// walk (the pool is joined before it goes). A signal that cannot be sent is
// dropped: progress is advisory.
void Front::emit_walk_progress(const std::string& caller, int32_t variables) noexcept {
    try {
        object_->emitSignal(str(bus::kWalkProgressSignal))
            .onInterface(str(bus::kInterface1))
            .withArguments(caller, static_cast<uint32_t>(std::max(variables, 0)));
    } catch (...) {
    }
}

// Runs on the event-loop thread. Nothing may escape into sd-bus from here:
// every way out answers the call or hands it to a worker that will.
void Front::on_call(Service::Operation op, sdbus::Result<std::string>&& result, std::string request) {
    last_call_ = Clock::now();
    try {
        const sdbus::Message* message = object_->getCurrentlyProcessedMessage();
        const std::string sender = message != nullptr ? message->getSender() : std::string();
        Client* client = client_for(sender);
        if (client == nullptr) {
            send_error(result, bus::kFailed, "cannot identify the caller \"" + sender + "\"");
            return;
        }
        if (!client->allowed) {
            send_error(result, bus::kAccessDenied,
                       "caller \"" + sender + "\" runs as uid " + std::to_string(client->uid) +
                           ", the service only serves uid " + std::to_string(own_uid_));
            return;
        }
        auto shared = std::make_shared<sdbus::Result<std::string>>(std::move(result));
        Call call;
        call.caller = client->caller;
        call.walk = op == &Service::mibwalk_XPC;
        if (call.walk) {
            call.run = [this, caller = client->caller.get(), shared, request = std::move(request)] {
                WalkProgress progress(*this, caller->name);
                answer(caller->service, &Service::mibwalk_XPC, request, *shared,
                       [&] { progress.finish(); });
            };
        } else {
            call.run = [caller = client->caller.get(), op, shared, request = std::move(request)] {
                answer(caller->service, op, request, *shared);
            };
        }
        handoffs_.push_back(std::move(call));
        pending_.fetch_add(1, std::memory_order_acq_rel);
    } catch (const std::exception& e) {
        send_error(result, bus::kFailed, e.what());
    }
}

// The caller's state, made at its first call: its uid comes from the bus, and
// unique names are never reused, so it is asked once per caller.
// Null when the bus cannot tell who the caller is (it has already gone).
Front::Client* Front::client_for(const std::string& sender) {
    if (sender.empty()) return nullptr;
    if (auto found = clients_.find(sender); found != clients_.end()) return found->second.get();

    uint32_t uid = 0;
    try {
        bus_daemon_->callMethod("GetConnectionUnixUser")
            .onInterface(kBusDaemonName)
            .withArguments(sender)
            .storeResultsTo(uid);
    } catch (const sdbus::Error&) {
        return nullptr;
    }
    auto client = std::make_unique<Client>();
    client->uid = uid;
    client->allowed = uid == own_uid_;
    if (client->allowed) client->caller = std::make_shared<Caller>(sender, options_.preferences_dir);
    return clients_.emplace(sender, std::move(client)).first->second.get();
}

void Front::on_name_owner_changed(sdbus::Message& signal) {
    std::string name, old_owner, new_owner;
    try {
        signal >> name >> old_owner >> new_owner;
    } catch (const sdbus::Error&) {
        return;
    }
    if (name == bus::kBusName) {
        if (old_owner == unique_name_ && new_owner != unique_name_) name_gone_ = true;
        return;
    }
    if (!new_owner.empty()) return;
    // The caller has gone: a call of it that runs now ends as it would have
    // (a walk included), the rest are dropped: those on its strand when they
    // come up, those kept aside behind a waiting walk at the end of this turn
    // (not here: sd-bus holds its lock while it runs this handler).
    const auto found = clients_.find(name);
    if (found == clients_.end()) return;
    if (const std::shared_ptr<Caller>& caller = found->second->caller) {
        caller->gone.store(true);
        departed_.push_back(caller);
    }
    clients_.erase(found);
}

// Lock order: sd-bus takes its own lock around everything it does, handlers
// included, so nothing here touches sd-bus while holding walks_mutex_: calls
// to drop (their results are sd-bus messages) are collected in `dropped` and
// let go by drop() once the lock is released.

// Sends `call` on its way, in the order calls arrived: behind its caller's
// waiting walk if it has one, else to its strand; a walk without the turn
// waits for it. Called by the loop at the end of a turn, for each call of
// that turn in arrival order.
void Front::route_locked(Call call, std::vector<Call>& dropped) {
    if (call.caller->gone.load()) {
        dropped.push_back(std::move(call));
        return;
    }
    if (const auto kept = backlogs_.find(call.caller.get()); kept != backlogs_.end()) {
        if (call.walk) walk_queue_.push_back(call.caller);
        kept->second.push_back(std::move(call));
        return;
    }
    if (call.walk) {
        if (walk_turn_taken_) {
            walk_queue_.push_back(call.caller);
            backlogs_[call.caller.get()].push_back(std::move(call));
            return;
        }
        walk_turn_taken_ = true;
    }
    post_locked(std::move(call));
}

// Posts `call` to its caller's strand. When it comes up, it runs unless its
// caller has gone by then; a walk then passes the turn on either way.
void Front::post_locked(Call call) {
    const std::shared_ptr<WorkerPool::Strand> strand = call.caller->strand;
    pool_->post(strand, [this, call = std::move(call)] {
        if (!call.caller->gone.load()) call.run();
        if (call.walk) end_walk();
        finish_call();
    });
}

// The walk that held the turn has ended (or was dropped): the turn goes to
// the first waiting walk whose caller is still there, with the calls that
// its caller sent after it, up to the caller's next walk.
void Front::end_walk() {
    std::vector<Call> dropped;
    pass_walk_turn(dropped);
    drop(dropped);
}

void Front::pass_walk_turn(std::vector<Call>& dropped) {
    std::lock_guard lock(walks_mutex_);
    walk_turn_taken_ = false;
    if (closing_) return;
    while (!walk_queue_.empty()) {
        const std::shared_ptr<Caller> caller = std::move(walk_queue_.front());
        walk_queue_.pop_front();
        const auto kept = backlogs_.find(caller.get());
        if (kept == backlogs_.end()) continue;  // dropped when its caller left
        if (caller->gone.load()) {
            drop_backlog_locked(*caller, dropped);
            continue;
        }
        std::deque<Call>& calls = kept->second;
        walk_turn_taken_ = true;
        post_locked(std::move(calls.front()));
        calls.pop_front();
        while (!calls.empty() && !calls.front().walk) {
            post_locked(std::move(calls.front()));
            calls.pop_front();
        }
        if (calls.empty()) backlogs_.erase(kept);
        return;
    }
}

// Moves the calls kept aside for `caller` to `dropped`; its entries in the
// walk queue are skipped when they come up.
void Front::drop_backlog_locked(const Caller& caller, std::vector<Call>& dropped) {
    const auto kept = backlogs_.find(&caller);
    if (kept == backlogs_.end()) return;
    for (Call& call : kept->second) dropped.push_back(std::move(call));
    backlogs_.erase(kept);
}

// Lets go of calls that will not run; nobody waits for their replies.
void Front::drop(std::vector<Call>& calls) {
    const std::size_t count = calls.size();
    calls.clear();
    for (std::size_t i = 0; i < count; ++i) finish_call();
}

// Runs on a pool thread after a call was answered. The event loop is woken
// only when it has something to do: a reply that sd-bus had to queue (the
// socket was full) waits for the loop to flush it, and a loop that is leaving
// waits for the last pending call. The idle clock needs no wake: while calls
// are pending the loop looks again after one idle period anyway.
void Front::finish_call() {
    last_done_ns_.store(now_ns(), std::memory_order_release);
    // Sequentially consistent with the turn that sets releasing_ and then
    // reads pending_: one of the two sees the other's write.
    const bool last = pending_.fetch_sub(1) == 1;
    if ((last && releasing_.load()) || reply_queued()) wake();
}

bool Front::reply_queued() const {
    try {
        return (bus_.getEventLoopPollData().events & POLLOUT) != 0;
    } catch (const sdbus::Error&) {
        return true;  // let the loop find out what is wrong
    }
}

void Front::wake() {
    const uint64_t one = 1;
    // The counter cannot overflow in practice; a failed write only delays the
    // loop until its next timeout.
    [[maybe_unused]] const ssize_t written = ::write(wake_fd_, &one, sizeof one);
}

Clock::time_point Front::idle_since() const {
    const Clock::time_point done{std::chrono::nanoseconds(last_done_ns_.load(std::memory_order_acquire))};
    return std::max(last_call_, done);
}

bool Front::idle_expired() const {
    if (options_.idle_exit.count() <= 0) return false;
    if (pending_.load(std::memory_order_acquire) != 0) return false;
    return Clock::now() - idle_since() >= options_.idle_exit;
}

int Front::poll_timeout_ms(int bus_timeout) const {
    if (releasing_ || options_.idle_exit.count() <= 0) return bus_timeout;
    // A pending call ends after now, so idleness cannot end before one
    // whole period from now: look again then.
    const auto left = pending_.load(std::memory_order_acquire) != 0
                          ? options_.idle_exit
                          : std::chrono::ceil<std::chrono::milliseconds>(
                                idle_since() + options_.idle_exit - Clock::now());
    const int idle_ms = static_cast<int>(std::clamp<int64_t>(left.count(), 0, INT32_MAX));
    return bus_timeout < 0 ? idle_ms : std::min(bus_timeout, idle_ms);
}

void Front::release_name() {
    releasing_ = true;
    try {
        bus_.releaseName(str(bus::kBusName));
    } catch (const sdbus::Error&) {
        // Not ours any more (or never was): nothing will confirm it.
        name_gone_ = true;
    }
}

int Front::run(int stop_fd) {
    stop_fd_ = stop_fd;
    {
        std::lock_guard lock(run_mutex_);
        run_status_.reset();
    }
    post_turn();
    std::unique_lock lock(run_mutex_);
    run_done_.wait(lock, [this] { return run_status_.has_value(); });
    return *run_status_;
}

void Front::post_turn() {
    pool_->post(loop_strand_, [this] { turn(); });
}

void Front::end_run(int status) {
    {
        std::lock_guard lock(run_mutex_);
        run_status_ = status;
    }
    run_done_.notify_one();
}

// One turn of the event loop, a job on the loop's own strand: the turns run
// one after another, on whichever pool thread is free. The next turn is
// queued behind the calls this one handed off, so a thread that is awake runs
// them without waking another; a turn that waits behind a long call is
// picked up by another thread as any waiting job is.
void Front::turn() {
    try {
        while (bus_.processPendingRequest()) {
        }
        if (!releasing_ && idle_expired()) {
            release_name();
            post_turn();
            return;
        }
        if (releasing_ && name_gone_ && pending_.load() == 0) {
            end_run(0);
            return;
        }
        const bool handed_off = !handoffs_.empty();
        if (handed_off || !departed_.empty()) {
            std::vector<Call> dropped;
            {
                std::lock_guard lock(walks_mutex_);
                for (const std::shared_ptr<Caller>& caller : departed_)
                    drop_backlog_locked(*caller, dropped);
                for (Call& call : handoffs_) route_locked(std::move(call), dropped);
            }
            departed_.clear();
            handoffs_.clear();
            drop(dropped);
        }
        if (handed_off) {
            post_turn();
            return;
        }
        wait_for_bus();
        post_turn();
    } catch (const std::exception& e) {
        std::fprintf(stderr, SD_ERR "tzhelperd: lost the bus connection: %s\n", e.what());
        end_run(1);
    }
}

// Sleeps until the bus, the wake-up or the stop signal has something, or the
// next timeout is due.
void Front::wait_for_bus() {
    const sdbus::IConnection::PollData data = bus_.getEventLoopPollData();
    pollfd fds[3] = {{data.fd, data.events, 0}, {wake_fd_, POLLIN, 0}, {stop_fd_, POLLIN, 0}};
    const int count = stop_fd_ >= 0 ? 3 : 2;
    const int ready = ::poll(fds, count, poll_timeout_ms(data.getPollTimeout()));
    if (ready < 0 && errno != EINTR) throw std::system_error(errno, std::generic_category(), "poll");
    if (ready <= 0) return;
    if (fds[1].revents & POLLIN) {
        uint64_t drained = 0;
        [[maybe_unused]] const ssize_t got = ::read(wake_fd_, &drained, sizeof drained);
    }
    if (count == 3 && (fds[2].revents & POLLIN)) {
        signalfd_siginfo info{};
        [[maybe_unused]] const ssize_t got = ::read(stop_fd_, &info, sizeof info);
        if (!releasing_) release_name();
    }
}

}  // namespace tz::dbus
