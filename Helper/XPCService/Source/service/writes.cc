#include "writes.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <optional>
#include <string>

#include "file_ops.h"
#include "file_url.h"
#include "plist_codec.h"
#include "utf8.h"

namespace tz {
namespace {

constexpr std::string_view kTemporarySuffix = ".dummy";

// Replaces `path` with `head` followed by `tail` through a scratch file in the
// same folder, created anew (O_EXCL: never through a name already there, a
// link included).
bool replace_atomically(const std::string& path, std::string_view head, std::string_view tail) {
    static std::atomic<unsigned> sequence{0};
    for (int attempt = 0; attempt < 100; ++attempt) {
        const std::string scratch = path + ".tz-" + std::to_string(::getpid()) + "-" +
                                    std::to_string(sequence.fetch_add(1));
        const int fd = ::open(scratch.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
        if (fd < 0 && errno == EEXIST) continue;
        if (fd < 0) return false;
        const bool written = write_all(fd, head) && write_all(fd, tail);
        const bool closed = ::close(fd) == 0;
        if (written && closed && ::rename(scratch.c_str(), path.c_str()) == 0) return true;
        ::unlink(scratch.c_str());
        return false;
    }
    return false;
}

}  // namespace

bool write_url_file(std::string_view file_url, std::string_view bytes) {
    const auto path = file_url_path(file_url);
    if (!path) return false;
    return write_whole_file(path->c_str(), bytes, Opening::named);
}

bool append_url_piece(std::string_view file_url, std::string_view piece) {
    const auto path = file_url_path(std::string(file_url) + std::string(kTemporarySuffix));
    if (!path || !is_valid_utf8(piece)) return false;
    std::optional<std::string> old;
    struct stat st;
    if (::lstat(path->c_str(), &st) == 0) {
        // Read only as the service's own file, and only up to the limit (fstat first).
        old = read_regular_file(path->c_str(), plist::kMaxFileBytes, Opening::own);
        if (!old) return false;
        if (!is_valid_utf8(*old)) old->clear();  // started anew
    }
    const std::string_view kept = old ? std::string_view(*old) : std::string_view();
    if (kept.size() + piece.size() > plist::kMaxFileBytes) return false;
    return replace_atomically(*path, kept, piece);
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
