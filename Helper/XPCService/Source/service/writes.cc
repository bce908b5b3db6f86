#include "writes.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <climits>
#include <cstdlib>
#include <limits>
#include <optional>
#include <string>

#include "file_ops.h"
#include "file_url.h"
#include "utf8.h"

namespace tz {
namespace {

constexpr std::string_view kTemporarySuffix = ".dummy";

// Replaces `path` with `bytes` through a scratch file in the same folder.
bool replace_atomically(const std::string& path, std::string_view bytes) {
    static std::atomic<unsigned> sequence{0};
    for (int attempt = 0; attempt < 100; ++attempt) {
        const std::string scratch = path + ".tz-" + std::to_string(::getpid()) + "-" +
                                    std::to_string(sequence.fetch_add(1));
        const int fd = ::open(scratch.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (fd < 0 && errno == EEXIST) continue;
        if (fd < 0) return false;
        const bool written = write_all(fd, bytes);
        const bool closed = ::close(fd) == 0;
        if (written && closed && ::rename(scratch.c_str(), path.c_str()) == 0) return true;
        ::unlink(scratch.c_str());
        return false;
    }
    return false;
}

// The file that `path` leads to: every link followed, hop by hop, to the
// first name that is not a link. A dangling link leads to a name that does
// not exist yet, which is where the content goes. A loop of links stops after
// as many hops as the kernel allows and leaves the open to fail.
std::string link_target(std::string path) {
    constexpr int kMaxHops = 40;  // the kernel's own limit on links in a path
    for (int hop = 0; hop < kMaxHops; ++hop) {
        struct stat st;
        if (::lstat(path.c_str(), &st) != 0 || !S_ISLNK(st.st_mode)) break;
        std::string link(static_cast<std::size_t>(PATH_MAX), '\0');
        const ssize_t length = ::readlink(path.c_str(), link.data(), link.size());
        if (length <= 0) break;
        link.resize(static_cast<std::size_t>(length));
        if (link.front() != '/') link = path.substr(0, path.rfind('/') + 1) + link;
        path = std::move(link);
    }
    return path;
}

// Stores `bytes` as the content of `path`. A link is followed, so the link
// stays and its target gets the content (created when the link dangles). A
// regular file (or none) is replaced atomically; anything else (a device, a
// pipe) cannot be replaced by a rename and is written in place, so that a
// full disk behind it is reported.
bool store(const std::string& path, std::string_view bytes) {
    const std::string target = link_target(path);
    struct stat st;
    if (::stat(target.c_str(), &st) == 0 && !S_ISREG(st.st_mode))
        return write_whole_file(target.c_str(), bytes, O_WRONLY | O_TRUNC);
    return replace_atomically(target, bytes);
}

}  // namespace

bool write_url_file(std::string_view file_url, std::string_view bytes) {
    const auto path = file_url_path(file_url);
    if (!path) return false;
    return write_whole_file(path->c_str(), bytes);
}

bool append_url_piece(std::string_view file_url, std::string_view piece) {
    const auto path = file_url_path(std::string(file_url) + std::string(kTemporarySuffix));
    if (!path || !is_valid_utf8(piece)) return false;
    std::string content;
    // Old content that is missing, not a regular file or not UTF-8 is started anew.
    auto old = read_regular_file(path->c_str(), std::numeric_limits<std::size_t>::max());
    if (old && is_valid_utf8(*old)) content = std::move(*old);
    content += piece;
    return store(*path, content);
}

bool finish_url_pieces(std::string_view file_url) {
    const auto path = file_url_path(file_url);
    if (!path) return false;
    const std::string temporary = *path + std::string(kTemporarySuffix);
    ::unlink(path->c_str());
    ::rename(temporary.c_str(), path->c_str());
    return true;
}

}  // namespace tz
