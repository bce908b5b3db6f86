// UDP relays on 127.0.0.1 between walks and real SNMP agents, one lane per
// agent, that let a test pick the moment something happens in a walk instead
// of guessing a time:
//
//   UdpRelay relay({first.port(), second.port()});
//   relay.close();                                  // hold every request
//   ... start walks to relay.peer(0) and relay.peer(1) ...
//   const int lane = relay.wait_for_request();      // a walk is under way
//   relay.open();                                   // send what was held, pass on
//
//   UdpRelay relay({agent.port()});
//   relay.cut_after(2400, [&] { agent.stop(); });   // "halfway through a walk"
//
// Each address a walk sends from (a walk may use more than one socket) gets a
// socket of its own towards the agent, so every answer goes back to the
// socket that asked. The relay's thread runs from the constructor to the
// destructor; an action of cut_after() runs on it.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
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
    explicit UdpRelay(const std::vector<uint16_t>& agent_ports) : lanes_(agent_ports.size()) {
        for (std::size_t i = 0; i < lanes_.size(); ++i) {
            Lane& lane = lanes_[i];
            lane.front = bound_socket();
            lane.agent = loopback(agent_ports[i]);
            sockaddr_in own{};
            socklen_t len = sizeof own;
            if (::getsockname(lane.front, reinterpret_cast<sockaddr*>(&own), &len) != 0)
                throw std::runtime_error("cannot set up a relay lane");
            lane.port = ntohs(own.sin_port);
        }
        stop_ = ::eventfd(0, EFD_CLOEXEC);
        thread_ = std::thread([this] { run(); });
    }
    ~UdpRelay() {
        const uint64_t one = 1;
        [[maybe_unused]] const ssize_t put = ::write(stop_, &one, sizeof one);
        thread_.join();
        for (const Lane& lane : lanes_) {
            ::close(lane.front);
            for (const Walker& walker : lane.walkers) ::close(walker.back);
        }
        ::close(stop_);
    }
    UdpRelay(const UdpRelay&) = delete;
    UdpRelay& operator=(const UdpRelay&) = delete;

    // "127.0.0.1:PORT", where a walk to lane `lane`'s agent sends.
    std::string peer(std::size_t lane = 0) const {
        return "127.0.0.1:" + std::to_string(lanes_[lane].port);
    }

    // Holds every request from now on and starts counting them afresh.
    void close() {
        std::lock_guard lock(mutex_);
        closed_ = true;
        for (Lane& lane : lanes_) lane.requests = 0;
    }
    // Sends what was held, in order, and passes everything from now on.
    void open() {
        std::lock_guard lock(mutex_);
        closed_ = false;
        for (Lane& lane : lanes_) {
            for (const auto& [walker, packet] : lane.held)
                ::send(lane.walkers[walker].back, packet.data(), packet.size(), 0);
            lane.held.clear();
        }
    }
    // Requests lane `lane` received since the last close().
    std::size_t requests(std::size_t lane) const {
        std::lock_guard lock(mutex_);
        return lanes_[lane].requests;
    }
    // Waits until a lane has received a request since the last close();
    // returns the first such lane, or -1 after `limit` (a hung test only).
    int wait_for_request(std::chrono::seconds limit = std::chrono::seconds(60)) const {
        std::unique_lock lock(mutex_);
        int found = -1;
        arrived_.wait_for(lock, limit, [&] {
            for (std::size_t i = 0; i < lanes_.size() && found < 0; ++i)
                if (lanes_[i].requests > 0) found = static_cast<int>(i);
            return found >= 0;
        });
        return found;
    }

    // After `answers` answers in all (counted from the relay's start), runs
    // `action` and passes nothing more in either direction.
    void cut_after(std::size_t answers, std::function<void()> action) {
        std::lock_guard lock(mutex_);
        limit_ = answers;
        action_ = std::move(action);
    }
    // Passes everything again, with no limit.
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
    // One socket of a walk and the socket that speaks for it to the agent.
    struct Walker {
        sockaddr_in address{};
        int back = -1;
    };
    struct Lane {
        int front = -1;  // the walks' side
        sockaddr_in agent{};
        uint16_t port = 0;
        std::vector<Walker> walkers;
        std::vector<std::pair<std::size_t, std::string>> held;  // walker, request
        std::size_t requests = 0;
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
        sockaddr_in addr = loopback(0);
        if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0)
            throw std::runtime_error("cannot bind a UDP socket");
        return fd;
    }
    // The walker of `from` on `lane`, added with a socket of its own when new.
    static std::size_t walker_of(Lane& lane, const sockaddr_in& from) {
        for (std::size_t w = 0; w < lane.walkers.size(); ++w)
            if (lane.walkers[w].address.sin_port == from.sin_port) return w;
        const Walker walker{from, bound_socket()};
        if (::connect(walker.back, reinterpret_cast<const sockaddr*>(&lane.agent), sizeof lane.agent) != 0)
            throw std::runtime_error("cannot reach the agent");
        lane.walkers.push_back(walker);
        return lane.walkers.size() - 1;
    }

    void on_request(Lane& lane, const char* packet, std::size_t size, const sockaddr_in& from) {
        std::lock_guard lock(mutex_);
        if (cut_) return;
        const std::size_t walker = walker_of(lane, from);
        ++lane.requests;
        if (closed_)
            lane.held.emplace_back(walker, std::string(packet, size));
        else
            ::send(lane.walkers[walker].back, packet, size, 0);
        arrived_.notify_all();
    }

    void on_answer(const Lane& lane, const Walker& walker, const char* packet, std::size_t size) {
        std::function<void()> action;
        {
            std::lock_guard lock(mutex_);
            if (cut_) return;
            ::sendto(lane.front, packet, size, 0, reinterpret_cast<const sockaddr*>(&walker.address),
                     sizeof walker.address);
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
            // Walkers come and go: the set to wait on is made afresh each time.
            std::vector<pollfd> fds;
            std::vector<std::pair<std::size_t, std::size_t>> backs;  // lane, walker
            {
                std::lock_guard lock(mutex_);
                for (std::size_t i = 0; i < lanes_.size(); ++i) {
                    fds.push_back({lanes_[i].front, POLLIN, 0});
                    for (std::size_t w = 0; w < lanes_[i].walkers.size(); ++w) {
                        fds.push_back({lanes_[i].walkers[w].back, POLLIN, 0});
                        backs.emplace_back(i, w);
                    }
                }
            }
            fds.push_back({stop_, POLLIN, 0});
            if (::poll(fds.data(), fds.size(), -1) < 0) continue;
            if (fds.back().revents != 0) return;
            std::size_t at = 0, back = 0;
            for (std::size_t i = 0; i < lanes_.size(); ++i) {
                Lane& lane = lanes_[i];
                if (fds[at++].revents & POLLIN) {
                    sockaddr_in from{};
                    socklen_t from_len = sizeof from;
                    const ssize_t got = ::recvfrom(lane.front, packet, sizeof packet, 0,
                                                   reinterpret_cast<sockaddr*>(&from), &from_len);
                    if (got > 0) on_request(lane, packet, static_cast<std::size_t>(got), from);
                }
                for (; back < backs.size() && backs[back].first == i; ++back, ++at) {
                    if (!(fds[at].revents & POLLIN)) continue;
                    // Walkers are only ever added, so the copy stays valid.
                    Walker walker;
                    {
                        std::lock_guard lock(mutex_);
                        walker = lane.walkers[backs[back].second];
                    }
                    const ssize_t got = ::recv(walker.back, packet, sizeof packet, 0);
                    if (got > 0) on_answer(lane, walker, packet, static_cast<std::size_t>(got));
                }
            }
        }
    }

    std::vector<Lane> lanes_;
    int stop_ = -1;
    mutable std::mutex mutex_;
    mutable std::condition_variable arrived_;
    bool closed_ = false;
    bool cut_ = false;
    std::size_t limit_ = std::numeric_limits<std::size_t>::max();
    std::function<void()> action_;
    std::size_t answers_ = 0;
    std::thread thread_;  // last: starts after everything it uses exists
};

}  // namespace tz::test
