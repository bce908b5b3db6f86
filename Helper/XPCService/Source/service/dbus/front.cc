#include "front.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <utility>

#include "bus_names.h"

namespace tz::dbus {
namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kBusDaemonName = "org.freedesktop.DBus";
constexpr const char* kBusDaemonPath = "/org/freedesktop/DBus";

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
void answer(Service& service, void (*op)(Service&, std::string_view, const Service::Reply&),
            const std::string& request, const sdbus::Result<std::string>& result) noexcept {
    bool replied = false;
    const Service::Reply reply = [&](const std::string& text) {
        if (replied) return;
        replied = true;
        result.returnResults(text);
    };
    try {
        op(service, request, reply);
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

struct MethodEntry {
    std::string_view name;
    void (*op)(Service&, std::string_view, const Service::Reply&);
};

const MethodEntry kEntries[] = {
    {bus::kIsAdmin,
     [](Service& s, std::string_view r, const Service::Reply& a) { s.tzPListIsAdminProfile_XPC(r, a); }},
    {bus::kSwap,
     [](Service& s, std::string_view r, const Service::Reply& a) { s.tzPListSwapProfile_XPC(r, a); }},
    {bus::kExist,
     [](Service& s, std::string_view r, const Service::Reply& a) { s.tzPListExistProfile_XPC(r, a); }},
    {bus::kRemove,
     [](Service& s, std::string_view r, const Service::Reply& a) { s.tzPListRemove_XPC(r, a); }},
    {bus::kWriteDictionary,
     [](Service& s, std::string_view r, const Service::Reply& a) {
         s.writeDictionaryToPlistFile_XPC(r, a);
     }},
    {bus::kWriteData,
     [](Service& s, std::string_view r, const Service::Reply& a) { s.writeDataToPlistFile_XPC(r, a); }},
    {bus::kWriteDataRename,
     [](Service& s, std::string_view r, const Service::Reply& a) {
         s.writeDataToPlistFileRename_XPC(r, a);
     }},
    {bus::kMibWalk,
     [](Service& s, std::string_view r, const Service::Reply& a) { s.mibwalk_XPC(r, a); }},
};
static_assert(std::size(kEntries) == bus::kMethods.size());

}  // namespace

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
    register_methods();
}

Front::~Front() {
    // Workers first: their jobs use the services and reply through the bus.
    for (auto& [name, client] : clients_) {
        if (client->queue) client->queue->join();
    }
    clients_.clear();
    retired_.clear();
    object_.reset();
    if (wake_fd_ >= 0) ::close(wake_fd_);
}

void Front::register_methods() {
    const std::string interface = str(bus::kInterface);
    for (const MethodEntry& entry : kEntries) {
        const std::string name = str(entry.name);
        const Operation op = entry.op;
        object_->registerMethod(name)
            .onInterface(interface)
            .withInputParamNames("request")
            .withOutputParamNames("reply")
            .implementedAs([this, op](sdbus::Result<std::string>&& result, std::string request) {
                on_call(op, std::move(result), std::move(request));
            });
    }
    object_->finishRegistration();
}

// Runs on the event-loop thread. Nothing may escape into sd-bus from here:
// every way out answers the call or hands it to a worker that will.
void Front::on_call(Operation op, sdbus::Result<std::string>&& result, std::string request) {
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
        pending_.fetch_add(1, std::memory_order_acq_rel);
        client->queue->post([this, service = client->service.get(), op, shared,
                             request = std::move(request)] {
            answer(*service, op, request, *shared);
            finish_call();
        });
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
    if (client->allowed) {
        client->service = std::make_unique<Service>(options_.preferences_dir);
        client->queue = std::make_unique<SerialQueue>([this] { wake(); });
    }
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
    auto found = clients_.find(name);
    if (found == clients_.end()) return;
    // The caller has gone: its queue finishes what it holds (the replies go
    // nowhere) and is joined by reap_retired() once its thread is done.
    std::unique_ptr<Client> client = std::move(found->second);
    clients_.erase(found);
    if (client->queue) {
        client->queue->close();
        retired_.push_back(std::move(client));
    }
}

// Runs on a worker thread after a call was answered. The event loop is woken
// only when the last pending call is done: then the idle clock starts, and
// any reply that sd-bus had to queue (a full socket) is flushed by the loop.
// While calls are still pending, queued replies go out with the loop's next
// turn, which the next reply to finish (or an incoming message) brings.
void Front::finish_call() {
    last_done_ns_.store(now_ns(), std::memory_order_release);
    if (pending_.fetch_sub(1, std::memory_order_acq_rel) == 1) wake();
}

void Front::wake() {
    const uint64_t one = 1;
    // The counter cannot overflow in practice; a failed write only delays the
    // loop until its next timeout.
    [[maybe_unused]] const ssize_t written = ::write(wake_fd_, &one, sizeof one);
}

void Front::reap_retired() {
    std::erase_if(retired_, [](const std::unique_ptr<Client>& client) {
        if (!client->queue->finished()) return false;
        client->queue->join();
        return true;
    });
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
    int timeout = bus_timeout;
    if (!releasing_ && options_.idle_exit.count() > 0 &&
        pending_.load(std::memory_order_acquire) == 0) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(
            idle_since() + options_.idle_exit - Clock::now());
        const int idle_ms = static_cast<int>(std::max<int64_t>(0, left.count()));
        timeout = timeout < 0 ? idle_ms : std::min(timeout, idle_ms);
    }
    return timeout;
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
    try {
        for (;;) {
            while (bus_.processPendingRequest()) {
            }
            reap_retired();
            if (!releasing_ && idle_expired()) {
                release_name();
                continue;
            }
            if (releasing_ && name_gone_ && pending_.load(std::memory_order_acquire) == 0) break;

            const sdbus::IConnection::PollData data = bus_.getEventLoopPollData();
            pollfd fds[3] = {{data.fd, data.events, 0}, {wake_fd_, POLLIN, 0}, {stop_fd, POLLIN, 0}};
            const int count = stop_fd >= 0 ? 3 : 2;
            const int ready = ::poll(fds, count, poll_timeout_ms(data.getPollTimeout()));
            if (ready < 0 && errno != EINTR) throw std::system_error(errno, std::generic_category(), "poll");
            if (ready <= 0) continue;
            if (fds[1].revents & POLLIN) {
                uint64_t drained = 0;
                [[maybe_unused]] const ssize_t got = ::read(wake_fd_, &drained, sizeof drained);
            }
            if (count == 3 && (fds[2].revents & POLLIN)) {
                signalfd_siginfo info{};
                [[maybe_unused]] const ssize_t got = ::read(stop_fd, &info, sizeof info);
                if (!releasing_) release_name();
            }
        }
    } catch (const std::exception& e) {
        std::fprintf(stderr, "tzhelperd: lost the bus connection: %s\n", e.what());
        return 1;
    }
    return 0;
}

}  // namespace tz::dbus
