#include "helper_client.h"

#include <utility>

#include <sdbus-c++/sdbus-c++.h>

#include "bus_names.h"

namespace tz::client {

std::unique_ptr<HelperClient> HelperClient::connect(const std::string& address, BusError* error) {
    try {
        auto connection = address.empty() ? sdbus::createSessionBusConnection()
                                          : sdbus::createSessionBusConnectionWithAddress(address);
        return std::unique_ptr<HelperClient>(new HelperClient(std::move(connection)));
    } catch (const sdbus::Error& e) {
        if (error != nullptr) *error = BusError{e.getName(), e.getMessage()};
    } catch (const std::exception& e) {
        if (error != nullptr) *error = BusError{std::string(bus::kFailed), e.what()};
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
    return call_with(method, request, method == bus::kMibWalk ? walk_timeout_ : timeout_);
}

Outcome HelperClient::mib_walk(const std::string& request) {
    return call_with(bus::kMibWalk, request, walk_timeout_);
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
    } catch (const sdbus::Error& e) {
        outcome.error = BusError{e.getName(), e.getMessage()};
    } catch (const std::exception& e) {
        outcome.error = BusError{std::string(bus::kFailed), e.what()};
    }
    return outcome;
}

std::string swap_request(int32_t type, std::string_view current, std::string_view previous) {
    std::string request = std::to_string(type);
    request += ":ARG_iSwapType";
    request += current.empty() ? std::string_view("NULL") : current;
    request += ":ARG_cFooCurrentString";
    request += previous.empty() ? std::string_view("NULL") : previous;
    request += ":ARG_cFooPrevString";
    return request;
}

std::string write_request(std::string_view url, std::string_view text) {
    std::string request(url);
    request += ":AddURL:END";
    request += text;
    return request;
}

std::string walk_request(std::string_view model, std::string_view user,
                         const std::vector<std::string>& arguments) {
    std::string request(model);
    request += ":ModelName:END";
    request += user;
    request += ":USErName:END";
    for (const std::string& argument : arguments) {
        request += argument;
        request += ":arg:";
    }
    return request;
}

std::string file_url(std::string_view absolute_path) {
    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string url = "file://";
    for (const char c : absolute_path) {
        const auto byte = static_cast<unsigned char>(c);
        const bool plain = (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') ||
                           (byte >= '0' && byte <= '9') || byte == '-' || byte == '.' ||
                           byte == '_' || byte == '~' || byte == '/';
        if (plain) {
            url += c;
        } else {
            url += '%';
            url += kHex[byte >> 4];
            url += kHex[byte & 0x0F];
        }
    }
    return url;
}

}  // namespace tz::client
