#include "file_ops.h"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace tz {

namespace {

// Fills `st` from the descriptor `fd` holds; false when it holds none or fstat fails.
bool stat_of(const UniqueFd& fd, struct stat& st) { return fd && ::fstat(fd.get(), &st) == 0; }

bool is_regular(const UniqueFd& fd) {
    struct stat st;
    return stat_of(fd, st) && S_ISREG(st.st_mode);
}

// One pass: zero the buffer, read up to 65535 bytes, write exactly what the
// read gave; go on while both results are non-zero. A failed read (-1) writes
// nothing, so the write returns 0 and the loop ends instead of spinning on the
// error.
void copy_file(int from, int to) {
    std::array<char, 65535> buffer;
    ssize_t got = 0;
    ssize_t put = 0;
    do {
        buffer.fill(0);
        got = ::read(from, buffer.data(), buffer.size());
        put = ::write(to, buffer.data(), got > 0 ? static_cast<size_t>(got) : 0);
    } while (got != 0 && put != 0);
}

}  // namespace

UniqueFd open_file(const char* path, int flags, Opening opening, unsigned mode) {
    if (path == nullptr) return {};
    if (opening == Opening::own) flags |= O_NOFOLLOW;
    UniqueFd fd(::open(path, flags | O_NONBLOCK | O_CLOEXEC, mode));
    struct stat st;
    if (!stat_of(fd, st)) return {};
    const bool taken = opening == Opening::own ? S_ISREG(st.st_mode) && st.st_uid == ::geteuid()
                                               : !S_ISFIFO(st.st_mode) && !S_ISSOCK(st.st_mode);
    return taken ? std::move(fd) : UniqueFd();
}

bool probe_writable(const char* path, Opening opening) {
    struct stat st;
    const bool existed = path != nullptr && ::lstat(path, &st) == 0;
    ::umask(002);
    if (!open_file(path, kCreateFlags, opening)) return false;
    if (!existed) ::unlink(path);
    return true;
}

void swap_profiles(int32_t swap_type, const char* current, const char* previous, Opening opening) {
    switch (swap_type) {
        case 0:
            if (current != nullptr) ::unlink(current);
            if (current != nullptr && previous != nullptr) ::rename(previous, current);
            break;
        case 1:
            if (previous != nullptr) ::unlink(previous);
            break;
        case 2: {
            if (previous != nullptr) ::unlink(previous);
            const UniqueFd from = open_file(current, O_RDONLY | O_NOFOLLOW, opening);
            const UniqueFd to(previous != nullptr
                                  ? ::open(previous, kCreateFlags | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kCreateMode)
                                  : -1);
            if (to && is_regular(from)) copy_file(from.get(), to.get());
            break;
        }
        default:
            break;
    }
}

bool opens_for_reading(const char* path, Opening opening) {
    return static_cast<bool>(open_file(path, O_RDONLY, opening));
}

bool remove_path(const char* path) { return path != nullptr && std::remove(path) == 0; }

bool write_all(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t put = ::write(fd, bytes.data(), bytes.size());
        if (put < 0 && errno == EINTR) continue;
        if (put <= 0) return false;
        bytes.remove_prefix(static_cast<std::size_t>(put));
    }
    return true;
}

bool write_whole_file(const char* path, std::string_view bytes, Opening opening) {
    // Cut after the check, not by O_TRUNC at the open: a refused file keeps its content.
    UniqueFd fd = open_file(path, O_WRONLY | O_CREAT, opening, 0666);
    if (!fd || (is_regular(fd) && ::ftruncate(fd.get(), 0) != 0)) return false;
    const bool written = write_all(fd.get(), bytes);
    return fd.close() && written;
}

std::optional<std::string> read_regular_file(const char* path, std::size_t max_bytes, Opening opening) {
    const UniqueFd fd = open_file(path, O_RDONLY, opening);
    struct stat st;
    if (!stat_of(fd, st) || !S_ISREG(st.st_mode)) return std::nullopt;
    if (static_cast<std::uint64_t>(st.st_size) > max_bytes) return std::nullopt;
    std::string bytes(static_cast<std::size_t>(st.st_size), '\0');
    std::size_t filled = 0;
    for (;;) {
        if (filled == bytes.size()) {
            if (bytes.size() > max_bytes) return std::nullopt;
            bytes.resize(bytes.size() + 4096);  // grown since fstat: on to the end
        }
        const ssize_t got = ::read(fd.get(), bytes.data() + filled, bytes.size() - filled);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return std::nullopt;
        if (got == 0) break;
        filled += static_cast<std::size_t>(got);
    }
    bytes.resize(filled);
    if (bytes.size() > max_bytes) return std::nullopt;
    return bytes;
}

}  // namespace tz
