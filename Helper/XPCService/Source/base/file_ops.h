// File-system primitives: the writability probe, the swap of a current and a
// previous file, the read check and remove of the profile file operations, and
// the whole-file read and write. Both the service operations (paths from the
// request) and the profile store (paths from the globals, the plist codec) are
// built on these. A null path
// stands for "no path": the file calls then fail as they would for a missing
// file. Nothing here prints, logs or throws.
#pragma once

#include <fcntl.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tz {

// Flags and mode of every file this service creates.
inline constexpr int kCreateFlags = O_RDWR | O_APPEND | O_CREAT;  // 0x20A on Apple systems
inline constexpr unsigned kCreateMode = 0664;

// Sets the process umask to 002 (for good), then opens `path` for appending,
// creating it if absent, and closes it at once. A file that did not exist
// before is unlinked again. Returns true if the open succeeded. An existing
// file is left untouched.
bool probe_writable(const char* path);

// Swap types: 0 previous becomes current (unlink current, rename previous onto
// it); 1 unlink previous; 2 copy current to a fresh previous. Other types do
// nothing. Results of the file calls are ignored.
void swap_profiles(int32_t swap_type, const char* current, const char* previous);

// Returns true if `path` opens read-only (a folder does).
bool opens_for_reading(const char* path);

// remove(3): a file or an empty folder. Returns true if it returned 0.
bool remove_path(const char* path);

// Writes all of `bytes` to `fd`, retrying short writes and interruptions.
// False when a write fails or writes nothing (a full disk).
bool write_all(int fd, std::string_view bytes);

// Replaces the content of `path` with `bytes` in one pass, as the platform's
// resource write does: opened with `flags` (by default created with 0666 less
// the umask, or truncated), written, closed. A failed close (a full disk can
// report there) is a failed write. No temporary file: a failure can leave the
// file cut.
bool write_whole_file(const char* path, std::string_view bytes,
                      int flags = O_WRONLY | O_CREAT | O_TRUNC);

// The whole content of the regular file at `path`, read to its end (it may
// grow while being read). Nothing when it cannot be opened or read, is not a
// regular file (a device such as /dev/zero would never end), or holds more
// than `max_bytes`.
std::optional<std::string> read_regular_file(const char* path, std::size_t max_bytes);

}  // namespace tz
