#include "file_ops.h"

#include "unique_fd.h"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace tz {

bool probe_writable(const char* path) {
    struct stat st;
    const bool existed = path != nullptr && ::stat(path, &st) == 0;
    ::umask(002);
    const int fd = path != nullptr ? ::open(path, kCreateFlags, kCreateMode) : -1;
    if (fd < 0) return false;
    ::close(fd);
    if (!existed) ::unlink(path);
    return true;
}

namespace {

// One pass: zero the buffer, read up to 65535 bytes, write exactly what the
// read gave; go on while both results are non-zero. A failed read (-1, as for
// a folder) writes nothing, so the write returns 0 and the loop ends instead
// of spinning on the error.
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

void swap_profiles(int32_t swap_type, const char* current, const char* previous) {
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
            const int from = current != nullptr ? ::open(current, O_RDONLY, kCreateMode) : -1;
            const int to = previous != nullptr ? ::open(previous, kCreateFlags, kCreateMode) : -1;
            if (from >= 0 && to >= 0) {
                copy_file(from, to);
                ::close(to);
                ::close(from);
            } else {
                // Only one open succeeded: the copy is skipped. Close what was
                // opened rather than leak a descriptor in a long-running service.
                if (from >= 0) ::close(from);
                if (to >= 0) ::close(to);
            }
            break;
        }
        default:
            break;
    }
}

bool opens_for_reading(const char* path) {
    if (path == nullptr) return false;
    const int fd = ::open(path, O_RDONLY, kCreateMode);
    if (fd < 0) return false;
    ::close(fd);
    return true;
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

bool write_whole_file(const char* path, std::string_view bytes, int flags) {
    UniqueFd fd(::open(path, flags | O_CLOEXEC, 0666));
    if (!fd) return false;
    const bool written = write_all(fd.get(), bytes);
    return fd.close() && written;
}

std::optional<std::string> read_regular_file(const char* path, std::size_t max_bytes) {
    if (path == nullptr) return std::nullopt;
    const UniqueFd fd(::open(path, O_RDONLY | O_CLOEXEC));
    struct stat st;
    if (!fd || ::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) return std::nullopt;
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
