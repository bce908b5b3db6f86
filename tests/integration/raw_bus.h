// A bus connection without a D-Bus library: the EXTERNAL handshake, Hello and
// one method call with a single string argument, marshalled by hand. A D-Bus
// library refuses to send a string that is not UTF-8; this one sends any
// bytes, so a test can see what the bus daemon does with them.
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace tz::test {

class RawBusConnection {
public:
    // `address`: "unix:path=..." as dbus-daemon prints it.
    explicit RawBusConnection(const std::string& address) {
        const auto start = address.find("path=");
        if (start == std::string::npos) throw std::runtime_error("not a unix path address");
        std::string path = address.substr(start + 5);
        path = path.substr(0, path.find(','));
        fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
        if (fd_ < 0 || ::connect(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0)
            throw std::runtime_error("cannot connect to " + path);
        std::string uid;
        for (const char c : std::to_string(::geteuid())) uid += hex_byte(static_cast<unsigned char>(c));
        send_all(std::string(1, '\0') + "AUTH EXTERNAL " + uid + "\r\n");
        if (read_line().rfind("OK ", 0) != 0) throw std::runtime_error("the bus refused the handshake");
        send_all("BEGIN\r\n");
        send_all(method_call("/org/freedesktop/DBus", "org.freedesktop.DBus", "Hello",
                             "org.freedesktop.DBus", std::nullopt));
    }
    ~RawBusConnection() { ::close(fd_); }
    RawBusConnection(const RawBusConnection&) = delete;
    RawBusConnection& operator=(const RawBusConnection&) = delete;

    void call(std::string_view destination, std::string_view path, std::string_view interface,
              std::string_view member, std::string_view argument) {
        send_all(method_call(path, interface, member, destination, argument));
    }

    // Reads until `text` has arrived (true) or the bus closes the
    // connection (false). Throws after a minute of silence, a hung test.
    bool read_until(std::string_view text) {
        while (received_.find(text) == std::string::npos) {
            pollfd entry{fd_, POLLIN, 0};
            if (::poll(&entry, 1, 60'000) != 1) throw std::runtime_error("the bus said nothing");
            char buffer[4096];
            const ssize_t got = ::read(fd_, buffer, sizeof buffer);
            if (got <= 0) return false;
            received_.append(buffer, static_cast<size_t>(got));
        }
        return true;
    }

private:
    static std::string hex_byte(unsigned char c) {
        static const char digits[] = "0123456789abcdef";
        return {digits[c >> 4], digits[c & 15]};
    }
    static void pad(std::string& out, std::size_t alignment) {
        while (out.size() % alignment != 0) out += '\0';
    }
    static void put_u32(std::string& out, uint32_t value) {
        pad(out, 4);
        out.append(reinterpret_cast<const char*>(&value), 4);  // little-endian, as 'l' says
    }
    static void put_string(std::string& out, std::string_view text) {
        put_u32(out, static_cast<uint32_t>(text.size()));
        out.append(text);
        out += '\0';
    }
    // One header field: code, variant signature, value (all strings here but
    // the signature field).
    static void put_field(std::string& out, char code, char type, std::string_view value) {
        pad(out, 8);
        out += code;
        out += '\1';
        out += type;
        out += '\0';
        if (type == 'g') {
            out += static_cast<char>(value.size());
            out.append(value);
            out += '\0';
        } else {
            put_string(out, value);
        }
    }

    std::string method_call(std::string_view path, std::string_view interface, std::string_view member,
                            std::string_view destination, std::optional<std::string_view> argument) {
        std::string body;
        if (argument) put_string(body, *argument);
        std::string fields;
        put_field(fields, 1, 'o', path);
        put_field(fields, 2, 's', interface);
        put_field(fields, 3, 's', member);
        put_field(fields, 6, 's', destination);
        if (argument) put_field(fields, 8, 'g', "s");
        std::string message = {'l', '\1', '\0', '\1'};
        put_u32(message, static_cast<uint32_t>(body.size()));
        put_u32(message, ++serial_);
        put_u32(message, static_cast<uint32_t>(fields.size()));
        message += fields;  // the array starts at offset 16, already 8-aligned
        pad(message, 8);
        return message + body;
    }

    void send_all(std::string_view bytes) {
        while (!bytes.empty()) {
            const ssize_t put = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (put <= 0) throw std::runtime_error("the bus closed the connection");
            bytes.remove_prefix(static_cast<size_t>(put));
        }
    }
    std::string read_line() {
        std::string line;
        char c = 0;
        while (::read(fd_, &c, 1) == 1 && c != '\n') line += c;
        return line;
    }

    int fd_ = -1;
    uint32_t serial_ = 0;
    std::string received_;
};

}  // namespace tz::test
