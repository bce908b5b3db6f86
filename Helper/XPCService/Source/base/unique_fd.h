// A file descriptor owned by one object: closed when the object ends, unless
// released. The base of every open-use-close in the service.
#pragma once

#include <unistd.h>

#include <utility>

namespace tz {

class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        reset(std::exchange(other.fd_, -1));
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    ~UniqueFd() { reset(); }

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    // Closes the descriptor held (if any) and holds `fd` instead.
    void reset(int fd = -1) {
        if (fd_ >= 0) ::close(fd_);
        fd_ = fd;
    }
    // Closes now and reports whether close() succeeded (a full disk can
    // report there); false when nothing was held.
    bool close() {
        const int fd = std::exchange(fd_, -1);
        return fd >= 0 && ::close(fd) == 0;
    }

private:
    int fd_ = -1;
};

}  // namespace tz
