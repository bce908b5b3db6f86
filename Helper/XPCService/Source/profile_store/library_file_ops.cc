// The library forms of the profile file operations: the same file-system rules
// as the service operations, on the paths of the globals, each copied first
// into a zeroed 255-byte buffer (a path that does not fit ends the process).
// Called while a global is unset (null), they do nothing and answer false.
#include <pwd.h>
#include <unistd.h>

#include <array>

#include "file_ops.h"
#include "profile_store.h"

namespace {

// The account entry of the calling user is looked up and not used. The
// reentrant form keeps concurrent callers off each other's static buffer.
void look_up_account() {
    struct passwd entry;
    struct passwd* found = nullptr;
    std::array<char, 4096> scratch;
    ::getpwuid_r(::getuid(), &entry, scratch.data(), scratch.size(), &found);
}

}  // namespace

namespace tz::store {

using PathBuffer = KeyBuffer;  // a path global, copied

bool is_admin_profile() {
    PathBuffer current;
    if (!copy_path(TZ_PLIST_PROFILE_PATH, current)) return false;
    look_up_account();
    return tz::probe_writable(current.data(), tz::Opening::own);
}

void swap_profile(int32_t swap_type) {
    PathBuffer current;
    PathBuffer previous;
    if (!copy_path(TZ_PLIST_PROFILE_PATH, current) ||
        !copy_path(TZ_PLIST_PROFILE_PREV_PATH, previous))
        return;
    if (!is_admin_profile()) return;
    tz::swap_profiles(swap_type, current.data(), previous.data(), tz::Opening::own);
}

bool exist_profile() {
    if (!is_admin_profile()) return false;
    PathBuffer current;
    if (!copy_path(TZ_PLIST_PROFILE_PATH, current)) return false;
    return tz::opens_for_reading(current.data(), tz::Opening::own);
}

bool remove_profile(int32_t selector) {
    if (!is_admin_profile()) return false;
    look_up_account();
    const char* chosen = selector == 3   ? TZ_PLIST_PROFILE_PATH
                         : selector == 2 ? TZ_PLIST_PROFILE_PREV_PATH
                                         : nullptr;
    PathBuffer path;
    if (!copy_path(chosen, path)) return false;
    return tz::remove_path(path.data());
}

}  // namespace tz::store
