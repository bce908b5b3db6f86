// A UDP relay between a walk and a real SNMP agent that counts the agent's
// answers. After the limit-th answer has been passed on it runs an action
// (stop the agent, kill the service) and passes nothing more in either
// direction, so "halfway through a walk" is an event the test picks, not a
// moment in time.
//
//   CountingRelay relay(agent.port());
//   relay.cut_after(2250, [&] { agent.stop(); });
//   ... walk relay.peer() ...
//
// The relay's thread runs from the constructor to the destructor.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <limits>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>

namespace tz::test {

class CountingRelay {
public:
    explicit CountingRelay(uint16_t agent_port) {
        front_ = bound_socket();
        back_ = bound_socket();
        sockaddr_in agent = loopback(agent_port);
        if (::connect(back_, reinterpret_cast<sockaddr*>(&agent), sizeof agent) != 0)
            throw std::runtime_error("cannot reach the agent's port");
        sockaddr_in own{};
        socklen_t len = sizeof own;
        ::getsockname(front_, reinterpret_cast<sockaddr*>(&own), &len);
        port_ = ntohs(own.sin_port);
        stop_ = ::eventfd(0, EFD_CLOEXEC);
        thread_ = std::thread([this] { run(); });
    }
    ~CountingRelay() {
        const uint64_t one = 1;
        [[maybe_unused]] const ssize_t put = ::write(stop_, &one, sizeof one);
        thread_.join();
        ::close(front_);
        ::close(back_);
        ::close(stop_);
    }
    CountingRelay(const CountingRelay&) = delete;
    CountingRelay& operator=(const CountingRelay&) = delete;

    // "127.0.0.1:PORT", where a walk sends its requests.
    std::string peer() const { return "127.0.0.1:" + std::to_string(port_); }

    // After `answers` answers in all (counted from the relay's start), run
    // `action` on the relay's thread and pass nothing more.
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
    std::size_t answers() const { return answers_.load(); }

private:
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

    void run() {
        sockaddr_in walker{};
        socklen_t walker_len = 0;
        char packet[65536];
        for (;;) {
            pollfd fds[3] = {{front_, POLLIN, 0}, {back_, POLLIN, 0}, {stop_, POLLIN, 0}};
            if (::poll(fds, 3, -1) < 0) continue;
            if (fds[2].revents != 0) return;
            if (fds[0].revents & POLLIN) {
                walker_len = sizeof walker;
                const ssize_t got = ::recvfrom(front_, packet, sizeof packet, 0,
                                               reinterpret_cast<sockaddr*>(&walker), &walker_len);
                std::lock_guard lock(mutex_);
                if (got > 0 && !cut_) ::send(back_, packet, static_cast<size_t>(got), 0);
            }
            if (fds[1].revents & POLLIN) {
                const ssize_t got = ::recv(back_, packet, sizeof packet, 0);
                std::function<void()> action;
                {
                    std::lock_guard lock(mutex_);
                    if (got <= 0 || cut_ || walker_len == 0) continue;
                    ::sendto(front_, packet, static_cast<size_t>(got), 0,
                             reinterpret_cast<sockaddr*>(&walker), walker_len);
                    if (++answers_ == limit_) {
                        cut_ = true;
                        action = std::move(action_);
                    }
                }
                if (action) action();
            }
        }
    }

    int front_ = -1;  // the walk's side
    int back_ = -1;   // the agent's side
    int stop_ = -1;
    uint16_t port_ = 0;
    std::mutex mutex_;
    std::size_t limit_ = std::numeric_limits<std::size_t>::max();
    std::function<void()> action_;
    bool cut_ = false;
    std::atomic<std::size_t> answers_{0};
    std::thread thread_;  // last: starts after everything it uses exists
};

}  // namespace tz::test
