// File-system primitives: the writability probe, the swap of a current and a
// previous file, the read check and remove of the profile file operations, and
// the whole-file read and write. Both the service operations (paths from the
// request) and the profile store (paths from the globals, the plist codec) are
// built on these. A null path
// stands for "no path": the file calls then fail as they would for a missing
// file. Nothing here prints, logs or throws.
//
// No open here waits: every open is non-blocking (a FIFO with no writer cannot
// hold the caller) and closes on exec, and what it opened is looked at with
// fstat before it is used (see Opening).
#pragma once

#include <fcntl.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "unique_fd.h"

namespace tz {

// Flags and mode of every file this service creates.
inline constexpr int kCreateFlags = O_RDWR | O_APPEND | O_CREAT;  // 0x20A on Apple systems
inline constexpr unsigned kCreateMode = 0664;

// Which files an open takes:
//  - named: a path the user's request names, as the user named it: links are
//    followed (the user's own choice), a device is used, a FIFO or a socket is
//    refused (it could hang or talk back);
//  - own: the service's own files (the profile files of a walk, the piecewise
//    write's temporary file): never through a link at the last name, and only
//    a regular file owned by the effective user.
enum class Opening { named, own };

// Opens `path` with `flags` (plus O_NONBLOCK, O_CLOEXEC, and O_NOFOLLOW for
// own files) and `mode`, and keeps it only when `opening` takes what was
// opened. An empty UniqueFd when the open fails or the file is refused.
UniqueFd open_file(const char* path, int flags, Opening opening, unsigned mode = kCreateMode);

// Sets the process umask to 002 (for good), then opens `path` for appending,
// creating it if absent, and closes it at once. A file that did not exist
// before is unlinked again. Returns true if the open succeeded and `opening`
// took the file. An existing file is left untouched.
bool probe_writable(const char* path, Opening opening);

// Swap types: 0 previous becomes current (unlink current, rename previous onto
// it); 1 unlink previous; 2 copy current to a fresh previous. Other types do
// nothing. Results of the file calls are ignored. Type 2 copies the current
// file only when it is a regular file reached without a link (and, for own
// files, owned by the effective user); the fresh previous file is created
// anew (O_EXCL, no link followed), so a name planted between the unlink and
// the create is left alone and nothing is copied.
void swap_profiles(int32_t swap_type, const char* current, const char* previous, Opening opening);

// Returns true if `path` opens read-only and `opening` takes it (a folder is
// taken as named, not as own).
bool opens_for_reading(const char* path, Opening opening);

// remove(3): a file or an empty folder. Returns true if it returned 0.
bool remove_path(const char* path);

// Writes all of `bytes` to `fd`, retrying short writes and interruptions.
// False when a write fails or writes nothing (a full disk).
bool write_all(int fd, std::string_view bytes);

// Replaces the content of `path` with `bytes` in one pass, as the platform's
// resource write does: opened (created with 0666 less the umask), checked as
// `opening` says, cut to nothing when it is a regular file (a device is
// written in place), written, closed. A failed close (a full disk can report
// there) is a failed write. No temporary file: a failure can leave the file
// cut. A refused file is not touched.
bool write_whole_file(const char* path, std::string_view bytes, Opening opening);

// The whole content of the regular file at `path` (opened as `opening` says),
// read to its end (it may grow while being read). Nothing when it cannot be
// opened or read, is not a regular file (a device such as /dev/zero would
// never end), or holds more than `max_bytes` (a file larger than that by
// fstat is not read at all).
std::optional<std::string> read_regular_file(const char* path, std::size_t max_bytes, Opening opening);

}  // namespace tz
