// A UDP relay on 127.0.0.1 between walks and a real SNMP agent, so that a test
// picks the moment something happens in a walk instead of guessing a time:
// hold() keeps every request until release(); cut_after(n, action) runs
// `action` after n answers and passes nothing more until reopen(). Each
// socket a walk sends from gets a socket of its own towards the agent, so
// every answer goes back to the socket that asked. Actions run on the relay's
// thread, which lives from the constructor to the destructor.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <limits>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace tz::test {

class UdpRelay {
public:
    explicit UdpRelay(uint16_t agent_port) : agent_(loopback(agent_port)), front_(bound_socket()) {
        sockaddr_in own{};
        socklen_t len = sizeof own;
        if (::getsockname(front_, reinterpret_cast<sockaddr*>(&own), &len) != 0 || ::pipe2(stop_, O_CLOEXEC) != 0)
            throw std::runtime_error("cannot set up a relay");
        port_ = ntohs(own.sin_port);
        thread_ = std::thread([this] { run(); });
    }
    ~UdpRelay() {
        ::close(stop_[1]);
        thread_.join();
        ::close(stop_[0]);
        ::close(front_);
        for (const Walker& walker : walkers_) ::close(walker.back);
    }

    std::string peer() const { return "127.0.0.1:" + std::to_string(port_); }
    void hold() {
        std::lock_guard lock(mutex_);
        holding_ = true;
        requests_ = 0;
    }
    void release() {
        std::lock_guard lock(mutex_);
        holding_ = false;
        for (const auto& [back, packet] : held_) ::send(back, packet.data(), packet.size(), 0);
        held_.clear();
    }
    // Requests received since the last hold().
    std::size_t requests() const {
        std::lock_guard lock(mutex_);
        return requests_;
    }
    // The first of `relays` to receive a request since hold(), or -1 after a minute.
    static int first_asked(const std::vector<const UdpRelay*>& relays) {
        for (int tick = 0; tick < 30'000; ++tick, std::this_thread::sleep_for(std::chrono::milliseconds(2)))
            for (std::size_t i = 0; i < relays.size(); ++i)
                if (relays[i]->requests() > 0) return static_cast<int>(i);
        return -1;
    }
    void cut_after(std::size_t answers, std::function<void()> action) {
        std::lock_guard lock(mutex_);
        limit_ = answers;
        action_ = std::move(action);
    }
    void reopen() {
        std::lock_guard lock(mutex_);
        limit_ = std::numeric_limits<std::size_t>::max();
        cut_ = false;
    }
    std::size_t answers() const {
        std::lock_guard lock(mutex_);
        return answers_;
    }

private:
    struct Walker {
        sockaddr_in address;
        int back;
    };
    static sockaddr_in loopback(uint16_t port) {
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        addr.sin_port = htons(port);
        return addr;
    }
    static int bound_socket() {
        const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        const sockaddr_in addr = loopback(0);
        if (fd < 0 || ::bind(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0)
            throw std::runtime_error("cannot bind a UDP socket");
        return fd;
    }

    void on_request(const char* packet, std::size_t size, const sockaddr_in& from) {
        std::lock_guard lock(mutex_);
        if (cut_) return;
        int back = -1;
        for (const Walker& walker : walkers_)
            if (walker.address.sin_port == from.sin_port) back = walker.back;
        if (back < 0) {
            back = bound_socket();
            ::connect(back, reinterpret_cast<const sockaddr*>(&agent_), sizeof agent_);
            walkers_.push_back({from, back});
        }
        ++requests_;
        if (holding_) held_.emplace_back(back, std::string(packet, size));
        else ::send(back, packet, size, 0);
    }
    void on_answer(const char* packet, std::size_t size, const sockaddr_in& to) {
        std::function<void()> action;
        {
            std::lock_guard lock(mutex_);
            if (cut_) return;
            ::sendto(front_, packet, size, 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
            if (++answers_ == limit_) {
                cut_ = true;
                action = std::move(action_);
            }
        }
        if (action) action();
    }
    void run() {
        char packet[65536];
        for (;;) {
            std::vector<Walker> walkers;
            {
                std::lock_guard lock(mutex_);
                walkers = walkers_;
            }
            std::vector<pollfd> fds = {{stop_[0], POLLIN, 0}, {front_, POLLIN, 0}};
            for (const Walker& walker : walkers) fds.push_back({walker.back, POLLIN, 0});
            if (::poll(fds.data(), fds.size(), -1) < 0) continue;
            if (fds[0].revents != 0) return;
            if (fds[1].revents & POLLIN) {
                sockaddr_in from{};
                socklen_t len = sizeof from;
                const ssize_t got =
                    ::recvfrom(front_, packet, sizeof packet, 0, reinterpret_cast<sockaddr*>(&from), &len);
                if (got > 0) on_request(packet, static_cast<std::size_t>(got), from);
            }
            for (std::size_t i = 0; i < walkers.size(); ++i) {
                if (!(fds[i + 2].revents & POLLIN)) continue;
                const ssize_t got = ::recv(walkers[i].back, packet, sizeof packet, 0);
                if (got > 0) on_answer(packet, static_cast<std::size_t>(got), walkers[i].address);
            }
        }
    }

    const sockaddr_in agent_;
    const int front_;
    uint16_t port_ = 0;
    int stop_[2] = {-1, -1};
    mutable std::mutex mutex_;
    std::vector<Walker> walkers_;
    std::vector<std::pair<int, std::string>> held_;  // back socket, request
    bool holding_ = false;
    bool cut_ = false;
    std::size_t requests_ = 0, answers_ = 0, limit_ = std::numeric_limits<std::size_t>::max();
    std::function<void()> action_;
    std::thread thread_;  // last: starts after everything it uses exists
};

}  // namespace tz::test
