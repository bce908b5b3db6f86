// A UDP relay between walks and an SNMP agent (one socket towards it per walk socket), to time events in a walk.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <functional>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace tz::test {

class UdpRelay {
public:
    explicit UdpRelay(uint16_t agent_port) : agent_(loopback(agent_port)), front_(bound_socket()) {
        sockaddr_in own{}; socklen_t len = sizeof own;
        if (::getsockname(front_, reinterpret_cast<sockaddr*>(&own), &len) != 0 || ::pipe2(stop_, O_CLOEXEC) != 0)
            throw std::runtime_error("cannot set up a relay");
        peer_ = "127.0.0.1:" + std::to_string(ntohs(own.sin_port));
        thread_ = std::thread([this] { run(); });
    }
    ~UdpRelay() {
        ::close(stop_[1]);
        thread_.join();
        for (const int fd : {stop_[0], front_}) ::close(fd);
        for (const auto& [address, back] : walkers_) ::close(back);
    }

    const std::string& peer() const { return peer_; }
    // Holding starts the count of requests afresh; letting go sends the held ones in order.
    void hold(bool on) {
        std::lock_guard lock(mutex_);
        holding_ = on;
        if (on) requests_ = 0;
        for (const auto& [back, packet] : held_) ::send(back, packet.data(), packet.size(), 0);
        held_.clear();
    }
    std::size_t requests() const { std::lock_guard lock(mutex_); return requests_; }
    // The first of `relays` asked since hold(true), or -1 after a minute.
    static int first_asked(const std::vector<const UdpRelay*>& relays) {
        for (int tick = 0; tick < 30'000; ++tick, std::this_thread::sleep_for(std::chrono::milliseconds(2)))
            for (std::size_t i = 0; i < relays.size(); ++i)
                if (relays[i]->requests() > 0) return static_cast<int>(i);
        return -1;
    }
    // After `answers` answers: runs `action` and passes nothing more.
    void cut_after(std::size_t answers, std::function<void()> action) {
        std::lock_guard lock(mutex_);
        limit_ = answers, action_ = std::move(action);
    }

private:
    static sockaddr_in loopback(uint16_t port) { return {AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}}; }
    static int bound_socket() {
        const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        const sockaddr_in addr = loopback(0);
        if (fd < 0 || ::bind(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0)
            throw std::runtime_error("cannot bind a UDP socket");
        return fd;
    }
    void run() {
        char packet[65536];
        for (;;) {
            std::vector<pollfd> fds = {{stop_[0], POLLIN, 0}, {front_, POLLIN, 0}};
            for (const auto& [address, back] : walkers_) fds.push_back({back, POLLIN, 0});  // only this thread adds
            if (::poll(fds.data(), fds.size(), -1) < 0) continue;
            if (fds[0].revents != 0) return;
            std::function<void()> action;
            std::lock_guard lock(mutex_);
            sockaddr_in from{}; socklen_t len = sizeof from;
            const ssize_t got = (fds[1].revents & POLLIN) ? ::recvfrom(front_, packet, sizeof packet, 0,
                                                                       reinterpret_cast<sockaddr*>(&from), &len) : 0;
            if (got > 0 && answers_ < limit_) {
                int back = -1;
                for (const auto& [address, fd] : walkers_) back = address.sin_port == from.sin_port ? fd : back;
                if (back < 0) {
                    walkers_.emplace_back(from, back = bound_socket());
                    ::connect(back, reinterpret_cast<const sockaddr*>(&agent_), sizeof agent_);
                }
                ++requests_;
                if (holding_) held_.emplace_back(back, std::string(packet, static_cast<std::size_t>(got)));
                else ::send(back, packet, static_cast<std::size_t>(got), 0);
            }
            for (std::size_t i = 0; i + 2 < fds.size(); ++i) {
                const auto& [address, back] = walkers_[i];
                const ssize_t size = (fds[i + 2].revents & POLLIN) ? ::recv(back, packet, sizeof packet, 0) : 0;
                if (size <= 0 || answers_ >= limit_) continue;
                ::sendto(front_, packet, static_cast<std::size_t>(size), 0, reinterpret_cast<const sockaddr*>(&address),
                         sizeof address);
                if (++answers_ == limit_) action = std::move(action_);
            }
            if (action) action();  // under the lock: whatever the action ends, nothing passes meanwhile
        }
    }

    const sockaddr_in agent_;
    const int front_;
    std::string peer_;
    int stop_[2] = {-1, -1};
    mutable std::mutex mutex_;
    std::vector<std::pair<sockaddr_in, int>> walkers_;
    std::vector<std::pair<int, std::string>> held_;  // our socket, request
    bool holding_ = false;
    std::size_t requests_ = 0, answers_ = 0, limit_ = SIZE_MAX;
    std::function<void()> action_;
    std::thread thread_;  // last: starts after everything it uses exists
};

}  // namespace tz::test
