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
// Each address the walk sends from (a walk may use more than one socket) gets
// a socket of its own towards the agent, so answers go back to the socket
// that asked. The relay's thread runs from the constructor to the destructor.
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
#include <vector>

namespace tz::test {

class CountingRelay {
public:
    explicit CountingRelay(uint16_t agent_port) : agent_(loopback(agent_port)) {
        front_ = bound_socket();
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
        for (const Back& back : backs_) ::close(back.fd);
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

    struct Back {
        int fd;              // connected to the agent
        sockaddr_in walker;  // where its answers go
    };

    // The agent-side socket for `walker`, made on its first packet.
    int back_for(const sockaddr_in& walker) {
        for (const Back& back : backs_)
            if (back.walker.sin_port == walker.sin_port &&
                back.walker.sin_addr.s_addr == walker.sin_addr.s_addr)
                return back.fd;
        const int fd = bound_socket();
        if (::connect(fd, reinterpret_cast<const sockaddr*>(&agent_), sizeof agent_) != 0) {
            ::close(fd);
            return -1;
        }
        backs_.push_back({fd, walker});
        return fd;
    }

    void run() {
        char packet[65536];
        std::vector<pollfd> fds;
        for (;;) {
            fds.assign({{front_, POLLIN, 0}, {stop_, POLLIN, 0}});
            for (const Back& back : backs_) fds.push_back({back.fd, POLLIN, 0});
            if (::poll(fds.data(), fds.size(), -1) < 0) continue;
            if (fds[1].revents != 0) return;
            if (fds[0].revents & POLLIN) {
                sockaddr_in walker{};
                socklen_t walker_len = sizeof walker;
                const ssize_t got = ::recvfrom(front_, packet, sizeof packet, 0,
                                               reinterpret_cast<sockaddr*>(&walker), &walker_len);
                std::lock_guard lock(mutex_);
                const int back = got > 0 && !cut_ ? back_for(walker) : -1;
                if (back >= 0) ::send(back, packet, static_cast<size_t>(got), 0);
            }
            for (std::size_t i = 2; i < fds.size(); ++i) {
                if (!(fds[i].revents & POLLIN)) continue;
                const Back back = backs_[i - 2];
                const ssize_t got = ::recv(back.fd, packet, sizeof packet, 0);
                std::function<void()> action;
                {
                    std::lock_guard lock(mutex_);
                    if (got <= 0 || cut_) continue;
                    ::sendto(front_, packet, static_cast<size_t>(got), 0,
                             reinterpret_cast<const sockaddr*>(&back.walker), sizeof back.walker);
                    if (++answers_ == limit_) {
                        cut_ = true;
                        action = std::move(action_);
                    }
                }
                if (action) action();
            }
        }
    }

    sockaddr_in agent_;
    int front_ = -1;             // the walk's side
    std::vector<Back> backs_;    // the agent's side, one per walk socket (relay thread only)
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
