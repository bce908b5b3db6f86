#include "helper_client.h"

#include <poll.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include <sdbus-c++/sdbus-c++.h>

#include "bus_names.h"
#include "methods.h"
#include "request.h"

namespace tz::client {
namespace {

// The exception being handled, as the error a caller receives: a bus error
// keeps its name; anything else is org.freedesktop.DBus.Error.Failed.
BusError current_error() {
    try {
        throw;
    } catch (const sdbus::Error& e) {
        return BusError{e.getName(), e.getMessage()};
    } catch (const std::exception& e) {
        return BusError{std::string(bus::kFailed), e.what()};
    } catch (...) {
        return BusError{std::string(bus::kFailed), "unknown failure"};
    }
}

}  // namespace

std::unique_ptr<HelperClient> HelperClient::connect(const std::string& address, BusError* error) {
    try {
        auto connection = address.empty() ? sdbus::createSessionBusConnection()
                                          : sdbus::createSessionBusConnectionWithAddress(address);
        return std::unique_ptr<HelperClient>(new HelperClient(std::move(connection)));
    } catch (...) {
        if (error != nullptr) *error = current_error();
    }
    return nullptr;
}

HelperClient::HelperClient(std::unique_ptr<sdbus::IConnection> connection)
    : connection_(std::move(connection)),
      proxy_(sdbus::createProxy(*connection_, std::string(bus::kBusName),
                                std::string(bus::kObjectPath))) {}

HelperClient::~HelperClient() = default;

std::string HelperClient::unique_name() const { return connection_->getUniqueName(); }

Outcome HelperClient::call(std::string_view method, const std::string& request) {
    const protocol::Method* known = protocol::find_method(method);
    return call_with(method, request, known && known->long_running ? walk_timeout_ : timeout_);
}

Outcome HelperClient::is_admin(const std::string& path) { return call(protocol::kIsAdmin.name, path); }
Outcome HelperClient::swap(const std::string& request) { return call(protocol::kSwap.name, request); }
Outcome HelperClient::exist(const std::string& path) { return call(protocol::kExist.name, path); }
Outcome HelperClient::remove(const std::string& path) { return call(protocol::kRemove.name, path); }
Outcome HelperClient::write_dictionary(const std::string& request) {
    return call(protocol::kWriteDictionary.name, request);
}
Outcome HelperClient::write_data(const std::string& request) {
    return call(protocol::kWriteData.name, request);
}
Outcome HelperClient::write_data_rename(const std::string& url) {
    return call(protocol::kWriteDataRename.name, url);
}
Outcome HelperClient::mib_walk(const std::string& request) { return call(protocol::kMibWalk.name, request); }

// The walk with progress is an asynchronous call on this same connection,
// followed by a poll loop on its descriptor until the reply (or its timeout)
// has come: the signals and the reply are dispatched one after the other on
// this thread, in the order the bus delivered them. A blocking call would
// leave the signals queued unread until the reply; a second connection with
// its own event-loop thread would deliver them on another thread and need a
// lock, and its match would have to name this connection's walk anyway.
Outcome HelperClient::mib_walk(const std::string& request,
                               const std::function<void(uint32_t)>& on_progress) {
    Outcome outcome;
    bool done = false;
    try {
        // A proxy of its own: its match on WalkProgress lives only as long as
        // this walk, so no signal is left queued for later calls.
        auto proxy = sdbus::createProxy(*connection_, std::string(bus::kBusName),
                                        std::string(bus::kObjectPath));
        const std::string self = connection_->getUniqueName();
        proxy->uponSignal(std::string(bus::kWalkProgressSignal))
            .onInterface(std::string(bus::kInterface1))
            .call([&](const std::string& caller, uint32_t variables) {
                if (caller == self && on_progress) on_progress(variables);
            });
        proxy->finishRegistration();
        auto pending = proxy->callMethodAsync(std::string(protocol::kMibWalk.name))
                           .onInterface(std::string(bus::kInterface))
                           .withTimeout(walk_timeout_)
                           .withArguments(request)
                           .uponReplyInvoke([&](const sdbus::Error* error, std::string reply) {
                               if (error != nullptr)
                                   outcome.error = BusError{error->getName(), error->getMessage()};
                               else
                                   outcome.reply = std::move(reply);
                               done = true;
                           });
        while (!done) {
            if (connection_->processPendingRequest()) continue;
            const auto data = connection_->getEventLoopPollData();
            const auto wait = data.getRelativeTimeout();
            // sd-bus ends the call itself once its timeout has passed; the
            // poll only has to wake up for it.
            const int wait_ms =
                wait ? static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(*wait).count())
                     : -1;
            pollfd entry{data.fd, data.events, 0};
            if (::poll(&entry, 1, wait_ms) < 0 && errno != EINTR)
                throw std::runtime_error(std::string("poll: ") + std::strerror(errno));
        }
        // Progress already read behind the reply is still reported.
        while (connection_->processPendingRequest()) {
        }
    } catch (...) {
        if (!done) outcome.error = current_error();
    }
    return outcome;
}

Outcome HelperClient::property(std::string_view name) {
    Outcome outcome;
    try {
        sdbus::Variant value;
        proxy_->callMethod("Get")
            .onInterface("org.freedesktop.DBus.Properties")
            .withTimeout(timeout_)
            .withArguments(std::string(bus::kInterface1), std::string(name))
            .storeResultsTo(value);
        if (value.containsValueOfType<std::string>())
            outcome.reply = value.get<std::string>();
        else
            outcome.error = BusError{"org.freedesktop.DBus.Error.InvalidSignature",
                                     "the property " + std::string(name) + " is of type " +
                                         value.peekValueType() + ", not s"};
    } catch (...) {
        outcome.error = current_error();
    }
    return outcome;
}

Outcome HelperClient::version() { return property(bus::kVersionProperty); }

Outcome HelperClient::preferences_directory() {
    return property(bus::kPreferencesDirectoryProperty);
}

Outcome HelperClient::call_with(std::string_view method, const std::string& request,
                                std::chrono::microseconds timeout) {
    Outcome outcome;
    try {
        proxy_->callMethod(std::string(method))
            .onInterface(std::string(bus::kInterface))
            .withTimeout(timeout)
            .withArguments(request)
            .storeResultsTo(outcome.reply);
    } catch (...) {
        outcome.error = current_error();
    }
    return outcome;
}

std::string swap_request(int32_t type, std::string_view current, std::string_view previous) {
    return protocol::swap_request(type, current, previous);
}

std::string write_request(std::string_view url, std::string_view text) {
    return protocol::write_request(url, text);
}

std::string walk_request(std::string_view model, std::string_view user,
                         const std::vector<std::string>& arguments) {
    return protocol::walk_request(model, user, arguments);
}

std::string file_url(std::string_view absolute_path) { return protocol::file_url(absolute_path); }

}  // namespace tz::client
