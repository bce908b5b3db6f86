// The D-Bus front (see front.h): the loop thread's state and handlers, the lanes and the walk's hooks.
#include "front.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <array>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <mutex>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <unordered_map>

#include <systemd/sd-daemon.h>

#include "bus_names.h"
#include "tz_discovery.h"

namespace tz::dbus {
namespace {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::milliseconds kProgressInterval{100};  // WalkProgress at most once per interval
constexpr std::size_t kShortLanes = 4;  // lanes for the calls that may wait on the disk; one more runs the walks

std::string str(std::string_view text) { return std::string(text); }
bool is_walk(Service::Operation op) { return op == &Service::mibwalk_XPC; }
// Only reads: never waits for the disk to take a write (a rename may flush the file it replaces, say).
bool reads_only(Service::Operation op) { return op == &Service::tzPListExistProfile_XPC; }
void wake(int fd) { ::eventfd_write(fd, 1); }  // a full counter wakes the loop anyway

struct Call { sdbus::MethodCall message; Service::Operation op; std::string_view request; /* in message */ };
struct Caller {
    uid_t uid;
    std::deque<Call> kept = {};    // behind its walk, in arrival order
    std::size_t queued_bytes = 0;  // the requests it has kept aside or on a lane
    int on_lane = 0;               // its calls on a lane, not yet answered
};
struct Answer { std::string error, text; };  // error: a bus error name, or empty: `text` is the reply
// A call on a lane: the loop thread keeps the message (no message leaves it), the lane sees the request.
struct Job { std::uint64_t id; Service::Operation op; std::string_view request; };
struct Lane { std::mutex mutex; std::condition_variable ready; std::deque<Job> jobs; std::thread thread; };

void send(const Call& call, const Answer& answer) noexcept {
    try {  // an answer that cannot be sent (its caller or the bus has gone) is dropped
        const bool ok = answer.error.empty();
        sdbus::MethodReply reply = ok ? call.message.createReply()
                                      : call.message.createErrorReply(sdbus::Error(answer.error, answer.text));
        if (ok) reply << answer.text;
        reply.send();
    } catch (...) {}
}

}  // namespace

struct Front::State {
    State(sdbus::IConnection& connection, FrontOptions front) : bus(connection), options(std::move(front)) {}
    sdbus::IConnection& bus;
    const FrontOptions options;
    const Service service{options.preferences_dir, Service::Folder::private_to_user};
    const std::string unique_name = bus.getUniqueName();
    const int wake_fd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    std::unique_ptr<sdbus::IObject> object;
    sdbus::Slot name_watch;
    // The loop thread's own.
    std::unordered_map<std::string, Caller> callers;
    std::deque<std::string> walk_turns;  // the caller of each waiting walk, in arrival order
    std::unordered_map<std::uint64_t, std::pair<std::string, Call>> on_lanes;  // by job: its caller and call
    std::uint64_t last_job = 0, running = 0;  // running: the walk's job, or 0
    std::string running_caller;
    Clock::time_point last_call = Clock::now();
    bool stopping = false, releasing = false, name_gone = false;
    // Shared with the lanes: jobs go in by each lane's queue, answers come back by `answered`.
    std::array<Lane, kShortLanes + 1> lanes;  // the last runs the walks
    std::mutex answered_mutex;
    std::vector<std::pair<std::uint64_t, Answer>> answered;  // guarded by answered_mutex
    std::atomic<bool> closing{false}, stop_walk{false}, progress_due{false};
    std::atomic<int32_t> variables{0};
    Clock::time_point last_progress;  // set before a walk is handed over, then the walk's own
    static inline State* hooked = nullptr;  // the walk's hooks report here
    bool pending() const { return !walk_turns.empty() || !on_lanes.empty(); }
    // From sd-bus, on the loop thread: nothing may escape from here.
    void on_call(Service::Operation op, sdbus::MethodCall message) {
        last_call = Clock::now();
        Call call{std::move(message), op, {}};
        try {
            char* text = nullptr;
            call.request = (call.message >> text, text);
            const std::string sender = call.message.getSender();
            auto found = callers.find(sender);  // unique names are never reused: the uid is read once
            if (found == callers.end()) found = callers.emplace(sender, Caller{call.message.getCredsUid()}).first;
            Caller& caller = found->second;
            if (caller.uid != ::getuid())
                return send(call, {str(bus::kAccessDenied), "caller \"" + sender + "\" runs as uid " + std::to_string(
                                   caller.uid) + ", the service only serves uid " + std::to_string(::getuid())});
            const bool behind_walk = !caller.kept.empty() || (running && running_caller == sender);
            if (!is_walk(op) && !behind_walk) return run_short(sender, caller, std::move(call));
            if (!fits(sender, caller, call)) return;
            if (is_walk(op)) walk_turns.push_back(sender);
            caller.queued_bytes += call.request.size();
            caller.kept.push_back(std::move(call));
        } catch (const std::exception& e) {
            if (call.message.isValid()) send(call, {str(bus::kFailed), e.what()});
        }
    }
    void on_name_owner_changed(sdbus::Message& signal) {  // from the bus itself: well formed
        std::string name, old_owner, new_owner;
        signal >> name >> old_owner >> new_owner;
        if (name == bus::kBusName && old_owner == unique_name && new_owner != unique_name) name_gone = true;
        if (!new_owner.empty()) return;
        callers.erase(name);  // a caller gone: its kept calls go unanswered, its walk stops
        if (running && running_caller == name) stop_walk = true;
    }
    // Runs one operation: its reply, or the named error it stopped with.
    // (An operation throws only before it replies.)
    Answer perform(Service::Operation op, std::string_view request) const noexcept {
        Answer answer{str(bus::kFailed), "the operation ended without a reply"};
        try {
            (service.*op)(request, [&](const std::string& text) { answer = {{}, text}; });
        } catch (const std::out_of_range& e) {
            answer = {str(bus::kRangeError), e.what()};
        } catch (const std::exception& e) {
            answer = {str(bus::kFailed), e.what()};
        }
        return answer;
    }
    // False, once `call` is answered LimitsExceeded, if it would take its caller's waiting requests past the limit.
    static bool fits(const std::string& sender, const Caller& caller, const Call& call) {
        if (caller.queued_bytes + call.request.size() <= kQueuedLimit) return true;
        send(call, {str(bus::kLimitsExceeded), "the calls of \"" + sender + "\" waiting their turn would hold " +
                    "more than " + std::to_string(kQueuedLimit >> 20) + " MiB"});
        return false;
    }
    // Runs a short call whose turn has come: inline if it only reads and its caller has nothing on a lane, else on
    // the caller's lane (a caller's calls all go to the same one, so they run in arrival order).
    void run_short(const std::string& sender, Caller& caller, Call call) {
        if (reads_only(call.op) && caller.on_lane == 0) return send(call, perform(call.op, call.request));
        if (fits(sender, caller, call))
            to_lane(lanes[std::hash<std::string>{}(sender) % kShortLanes], sender, caller, std::move(call));
    }
    static Call take(Caller& caller) {
        Call call = std::move(caller.kept.front());
        caller.kept.pop_front();
        caller.queued_bytes -= call.request.size();
        return call;
    }
    // Hands `call` to `lane`; lanes_answered sends its answer. Returns its job's id.
    std::uint64_t to_lane(Lane& lane, const std::string& sender, Caller& caller, Call call) {
        const Job job{++last_job, call.op, call.request};
        caller.queued_bytes += job.request.size();
        ++caller.on_lane;
        on_lanes.emplace(job.id, std::pair{sender, std::move(call)});
        std::lock_guard lock(lane.mutex);
        lane.jobs.push_back(job);
        lane.ready.notify_one();
        return job.id;
    }
    // A lane's thread: runs its jobs in order and hands back their answers.
    void lane_thread(Lane& lane) {
        std::unique_lock lock(lane.mutex);
        while (lane.ready.wait(lock, [&] { return closing || !lane.jobs.empty(); }), !closing) {
            const Job job = lane.jobs.front();
            lane.jobs.pop_front();
            lock.unlock();
            Answer answer = perform(job.op, job.request);
            {
                std::lock_guard hand_back(answered_mutex);
                if (answered.empty()) wake(wake_fd);
                answered.emplace_back(job.id, std::move(answer));
            }
            lock.lock();
        }
    }
    // Sends the lanes' answers; a walk's goes after its final count and lets the calls kept behind it go on.
    void lanes_answered() {
        std::vector<std::pair<std::uint64_t, Answer>> answers;
        {
            std::lock_guard lock(answered_mutex);
            answers.swap(answered);
        }
        for (const auto& [id, answer] : answers) {
            auto node = on_lanes.extract(id);
            const auto& [sender, call] = node.mapped();
            if (id == running && answer.error.empty()) emit_progress();
            send(call, answer);
            const auto found = callers.find(sender);
            if (found != callers.end()) --found->second.on_lane, found->second.queued_bytes -= call.request.size();
            if (id != running) continue;
            running = 0;
            last_call = Clock::now();
            if (found != callers.end()) run_kept(found->first, found->second);
        }
    }
    // Runs the calls `caller` kept behind its walk, up to its next walk.
    void run_kept(const std::string& sender, Caller& caller) {
        while (!caller.kept.empty() && !is_walk(caller.kept.front().op)) run_short(sender, caller, take(caller));
    }
    // Hands the first waiting walk whose caller is still there to the walk lane, once that caller's earlier calls
    // have been answered.
    void next_walk() {
        while (!running && !walk_turns.empty()) {
            const auto found = callers.find(walk_turns.front());
            if (found != callers.end() && found->second.on_lane > 0) return;
            walk_turns.pop_front();
            if (found == callers.end()) continue;  // gone, its calls dropped
            Call walk = take(found->second);
            if (stopping) {
                send(walk, {str(bus::kFailed), "the service is stopping"});
                run_kept(found->first, found->second);
                continue;
            }
            running_caller = found->first;
            stop_walk = progress_due = false;
            variables = 0;
            last_progress = Clock::now();
            running = to_lane(lanes.back(), found->first, found->second, std::move(walk));
        }
    }
    void emit_progress() noexcept {  // advisory: a signal that cannot be sent is dropped
        try {
            object->emitSignal(str(bus::kWalkProgressSignal)).onInterface(str(bus::kInterface1))
                .withArguments(running_caller, static_cast<uint32_t>(std::max(variables.load(), 0)));
        } catch (...) {}
    }
    int run(int stop_fd) {
        try {
            for (;;) {
                for (int i = 0; i < 64 && bus.processPendingRequest(); ++i) {  // answers wait for no stream of calls
                }
                lanes_answered();
                if (running && progress_due.exchange(false)) emit_progress();
                next_walk();
                const bool idle = options.idle_exit.count() > 0 && !pending() &&
                                  Clock::now() - last_call >= options.idle_exit;
                if (!releasing && (stopping || idle)) {
                    releasing = true;  // a name not ours (any more) has nobody to confirm it has gone
                    try { bus.releaseName(str(bus::kBusName)); } catch (const sdbus::Error&) { name_gone = true; }
                }
                if (releasing && name_gone && !pending()) return 0;
                wait(stop_fd);
            }
        } catch (const std::exception& e) {
            std::fprintf(stderr, SD_ERR "tzhelperd: lost the bus connection: %s\n", e.what());
            return 1;
        }
    }
    // Sleeps until the bus, a lane or the stop signal has something, or the bus's or idle's time is due.
    void wait(int stop_fd) {
        const sdbus::IConnection::PollData data = bus.getEventLoopPollData();
        int timeout = data.getPollTimeout();
        if (!releasing && !pending() && options.idle_exit.count() > 0) {
            const auto ms = std::chrono::ceil<std::chrono::milliseconds>(last_call + options.idle_exit - Clock::now());
            const int idle_ms = static_cast<int>(std::clamp<int64_t>(ms.count(), 0, INT32_MAX));
            timeout = timeout < 0 ? idle_ms : std::min(timeout, idle_ms);
        }
        pollfd fds[3] = {{data.fd, data.events, 0}, {wake_fd, POLLIN, 0}, {stop_fd, POLLIN, 0}};
        if (::poll(fds, stop_fd >= 0 ? 3 : 2, timeout) < 0 && errno != EINTR)
            throw std::system_error(errno, std::generic_category(), "poll");
        eventfd_t count = 0;
        signalfd_siginfo info{};
        if (fds[1].revents & POLLIN) ::eventfd_read(wake_fd, &count);
        if ((fds[2].revents & POLLIN) && ::read(stop_fd, &info, sizeof info) > 0) stopping = stop_walk = true;
    }
    // On the walk lane, after each variable: wakes the loop at most once an interval.
    static void progress_hook(int32_t count) {
        if (hooked == nullptr) return;
        hooked->variables = count;
        if (Clock::now() - hooked->last_progress < kProgressInterval) return;
        hooked->last_progress = Clock::now();
        hooked->progress_due = true;
        wake(hooked->wake_fd);
    }
    // On the walk lane: true once the walk's caller has left or the service is stopping.
    static bool stop_hook() { return hooked != nullptr && hooked->stop_walk.load(); }
};

Front::Front(sdbus::IConnection& bus, FrontOptions options)
    : state_(std::make_unique<State>(bus, std::move(options))) {
    State& s = *state_;
    if (s.wake_fd < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
    s.name_watch = bus.addMatch("type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',"
                                "interface='org.freedesktop.DBus',member='NameOwnerChanged'",
                                [&s](sdbus::Message& signal) { s.on_name_owner_changed(signal); });
    s.object = sdbus::createObject(bus, str(bus::kObjectPath));
    for (const NamedOperation& named : kOperations)  // the method table: the protocol's names and operations
        s.object->registerMethod(str(bus::kInterface), str(named.name), "s", {"request"}, "s", {"reply"},
                                 [&s, op = named.operation](sdbus::MethodCall m) { s.on_call(op, std::move(m)); });
    const std::string interface1 = str(bus::kInterface1);
    for (const auto& [name, value] : {std::pair{bus::kVersionProperty, str(kVersion)},
                                      {bus::kPreferencesDirectoryProperty, s.options.preferences_dir}})
        s.object->registerProperty(str(name)).onInterface(interface1).withGetter([copy = value] { return copy; })
            .withUpdateBehavior(sdbus::Flags::CONST_PROPERTY_VALUE);
    s.object->registerSignal(str(bus::kWalkProgressSignal)).onInterface(interface1)
        .withParameters<std::string, uint32_t>("caller", "variables");
    s.object->finishRegistration();
    State::hooked = &s;
    TZSetWalkProgressHook(&State::progress_hook);
    TZSetWalkStopHook(&State::stop_hook);
    for (Lane& lane : s.lanes) lane.thread = std::thread([&s, &lane] { s.lane_thread(lane); });
}

Front::~Front() {
    state_->closing = state_->stop_walk = true;
    for (Lane& lane : state_->lanes) {
        { std::lock_guard lock(lane.mutex); }  // a lane between its check of `closing` and its wait is waiting now
        lane.ready.notify_all();
        lane.thread.join();
    }
    TZSetWalkProgressHook(nullptr), TZSetWalkStopHook(nullptr), State::hooked = nullptr;
    ::close(state_->wake_fd);
}

int Front::run(int stop_fd) { return state_->run(stop_fd); }

}  // namespace tz::dbus
