// The D-Bus front (see front.h): the loop thread's state and handlers, the walk thread and the walk's hooks.
#include "front.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cstdio>
#include <deque>
#include <optional>
#include <semaphore>
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

std::string str(std::string_view text) { return std::string(text); }
bool is_walk(Service::Operation op) { return op == &Service::mibwalk_XPC; }
void wake(int fd) { ::eventfd_write(fd, 1); }  // a full counter wakes the loop anyway

struct Call { sdbus::MethodCall message; Service::Operation op; std::string_view request; /* in message */ };
struct Caller { uid_t uid; std::deque<Call> kept = {}; /* behind its walk */ std::size_t kept_bytes = 0; };
struct Answer { std::string error, text; };  // error: a bus error name, or empty: `text` is the reply

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
    std::optional<Call> running;         // the walk the walk thread has
    std::string running_caller;
    Clock::time_point last_call = Clock::now();
    bool stopping = false, releasing = false, name_gone = false;
    // Shared with the walk thread: `job` is handed over by job_ready, `done` by walk_done.
    std::counting_semaphore<2> job_ready{0};  // `running` is the job
    Answer done;
    std::atomic<bool> walk_done{false}, closing{false}, stop_walk{false}, progress_due{false};
    std::atomic<int32_t> variables{0};
    Clock::time_point last_progress;  // the walk thread's own
    std::thread walker;
    static inline State* hooked = nullptr;  // the walk's hooks report here
    bool pending() const { return running || !walk_turns.empty(); }
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
            if (!is_walk(op) && !behind_walk) return send(call, perform(op, call.request));
            if (caller.kept_bytes + call.request.size() > kQueuedLimit)
                return send(call, {str(bus::kLimitsExceeded), "the calls of \"" + sender + "\" waiting for a " +
                                   "walk would hold more than " + std::to_string(kQueuedLimit >> 20) + " MiB"});
            if (is_walk(op)) walk_turns.push_back(sender);
            caller.kept_bytes += call.request.size();
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
    static Call take(Caller& caller) {
        Call call = std::move(caller.kept.front());
        caller.kept.pop_front();
        caller.kept_bytes -= call.request.size();
        return call;
    }
    // Runs the calls `caller` kept behind its walk, up to its next walk.
    void run_kept(Caller& caller) {
        while (!caller.kept.empty() && !is_walk(caller.kept.front().op)) {
            const Call call = take(caller);
            send(call, perform(call.op, call.request));
        }
    }
    // Hands the first waiting walk whose caller is still there to the walk thread.
    void next_walk() {
        while (!running && !walk_turns.empty()) {
            const auto found = callers.find(walk_turns.front());
            walk_turns.pop_front();
            if (found == callers.end()) continue;  // gone, its calls dropped
            Call walk = take(found->second);
            if (stopping) {
                send(walk, {str(bus::kFailed), "the service is stopping"});
                run_kept(found->second);
                continue;
            }
            running_caller = found->first;
            stop_walk = progress_due = false;
            variables = 0;
            running.emplace(std::move(walk));
            job_ready.release();
        }
    }
    // Once the walk thread has answered: the final count, the reply, the calls kept behind the walk.
    void walk_ended() {
        if (!walk_done.exchange(false)) return;
        if (done.error.empty()) emit_progress();
        send(*running, done);
        running.reset();
        if (const auto found = callers.find(running_caller); found != callers.end()) run_kept(found->second);
        last_call = Clock::now();
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
                for (int i = 0; i < 64 && bus.processPendingRequest(); ++i) {  // a walk's end waits for no stream
                }
                walk_ended();
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
    // Sleeps until the bus, the walk thread or the stop signal has something, or the bus's or idle's time is due.
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
    // The walk thread: runs each walk the loop hands it and hands back its answer.
    void walk_thread() {
        for (job_ready.acquire(); !closing; job_ready.acquire()) {
            last_progress = Clock::now();
            done = perform(&Service::mibwalk_XPC, running->request);
            walk_done = true;
            wake(wake_fd);
        }
    }
    // On the walk thread, after each variable: wakes the loop at most once an interval.
    static void progress_hook(int32_t count) {
        if (hooked == nullptr) return;
        hooked->variables = count;
        if (Clock::now() - hooked->last_progress < kProgressInterval) return;
        hooked->last_progress = Clock::now();
        hooked->progress_due = true;
        wake(hooked->wake_fd);
    }
    // On the walk thread: true once the walk's caller has left or the service is stopping.
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
    s.walker = std::thread([&s] { s.walk_thread(); });
}

Front::~Front() {
    state_->closing = state_->stop_walk = true;
    state_->job_ready.release();
    state_->walker.join();
    TZSetWalkProgressHook(nullptr), TZSetWalkStopHook(nullptr), State::hooked = nullptr;
    ::close(state_->wake_fd);
}

int Front::run(int stop_fd) { return state_->run(stop_fd); }

}  // namespace tz::dbus
