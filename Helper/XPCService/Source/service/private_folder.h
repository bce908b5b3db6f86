// The Linux service's own folder for a user's profile files: made when
// missing, and checked before every use, so that no other user's entry is
// ever taken for it.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

namespace tz {

// Makes `dir` (a folder path ending in '/') when it is missing (mkdir, mode
// 0700, its parent must exist), then checks it with lstat. Nothing when it is
// a real folder (not a link) owned by the effective user that neither its
// group nor others may write; else one sentence that starts with the path and
// says what is there and who owns it ("/x/bob/ is a symbolic link owned by
// alice (uid 1002)"), or why it cannot be made or checked.
std::optional<std::string> private_folder_problem(const std::string& dir);

// The account name of `uid` (the name its folder gets), or "uid 1001" when it
// has none.
std::string user_name(uid_t uid);

// What private_folder_problem finds, as a warning for the service's start
// that also says what to do about it ("the preferences folder ...; walks do
// not run until ..."); nothing when the folder is right.
std::optional<std::string> private_folder_warning(const std::string& dir);

}  // namespace tz
