// The walk request: the three profile paths from the user and model names,
// the argument vector from the ":arg:" list, the check of a private folder,
// the walk, its result as the reply and one system-log line.
#include <pwd.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "guarded_format.h"
#include "request.h"
#include "service.h"
#include "tz_discovery.h"
#include "tz_profile_store.h"
#include "utf8.h"

namespace tz {
namespace {

constexpr std::size_t kPathBuffer = 256;
constexpr std::size_t kArgumentSlots = 512;
constexpr int32_t kTooManyArguments = -1;
constexpr int32_t kWalkFailed = 1;

// A name as the paths spell it: a missing one (or one without a UTF-8 form)
// prints as "(null)", as printf prints a null string.
std::string name_text(std::optional<std::string_view> field) {
    if (!field || !is_valid_utf8(*field)) return "(null)";
    return std::string(*field);
}

// "alice (uid 1002)", or "uid 1002" for a uid without a name.
std::string owner_text(uid_t uid) {
    passwd entry;
    passwd* found = nullptr;
    std::array<char, 4096> scratch;
    const std::string number = "uid " + std::to_string(uid);
    if (::getpwuid_r(uid, &entry, scratch.data(), scratch.size(), &found) != 0 || found == nullptr)
        return number;
    return std::string(found->pw_name) + " (" + number + ")";
}

const char* kind_text(mode_t mode) {
    if (S_ISLNK(mode)) return "a symbolic link";
    if (S_ISREG(mode)) return "a file";
    if (S_ISFIFO(mode)) return "a FIFO";
    if (S_ISSOCK(mode)) return "a socket";
    if (S_ISDIR(mode)) return "a folder";
    return "a device";
}

}  // namespace

std::optional<std::string> private_folder_problem(const std::string& dir) {
    std::string path = dir;  // without its trailing '/', which would make lstat follow a link
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    struct stat st;
    if (::lstat(path.c_str(), &st) != 0 && errno == ENOENT && ::mkdir(path.c_str(), 0700) != 0)
        return dir + " cannot be made: " + std::strerror(errno);
    if (::lstat(path.c_str(), &st) != 0) return dir + " cannot be checked: " + std::strerror(errno);
    const std::string what = dir + " is " + kind_text(st.st_mode) + " owned by " + owner_text(st.st_uid);
    if (!S_ISDIR(st.st_mode)) return what;
    if (st.st_uid != ::geteuid()) return what + ", not by " + owner_text(::geteuid());
    if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        char mode[8];
        std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(st.st_mode & 07777));
        return what + " that its group or others may write (mode " + mode + ")";
    }
    return std::nullopt;
}

void Service::mibwalk_XPC(std::string_view request, const Reply& reply) const {
    char current[kPathBuffer] = {};
    char previous[kPathBuffer] = {};
    char spool[kPathBuffer] = {};

    // Names first, then the paths, then the argument list: a request whose
    // paths do not fit ends the process even when its argument marker is
    // missing.
    const protocol::WalkNames names = protocol::cut_walk_names(request);
    const std::string user = name_text(names.user);
    const std::string model = name_text(names.model);
    // The folder goes in as an argument: it may hold '%'.
    const char* folder = preferences_dir().c_str();
    guarded_format(current, sizeof current, "%s%s-%s-profile.plist", folder, user.c_str(),
                   model.c_str());
    guarded_format(previous, sizeof previous, "%s%s-%s-profile.prev.plist", folder, user.c_str(),
                   model.c_str());
    guarded_format(spool, sizeof spool, "%s%s-%s-profile.spool.plist", folder, user.c_str(),
                   model.c_str());
    TZ_PLIST_PROFILE_PATH = current;
    TZ_PLIST_PROFILE_PREV_PATH = previous;
    TZ_PLIST_PROFILE_SPOOL_PATH = spool;

    const std::vector<std::string_view> pieces = protocol::cut_walk_arguments(request, kArgumentSlots);
    int32_t result = kTooManyArguments;
    const auto folder_problem = pieces.size() < kArgumentSlots && folder_ == Folder::private_to_user
                                    ? private_folder_problem(preferences_dir())
                                    : std::nullopt;
    if (folder_problem) {
        // A name held by anything else is never used.
        ::syslog(LOG_ERR, "xpc - mibwalk_XPC - the preferences folder %s: no walk", folder_problem->c_str());
        result = kWalkFailed;
    } else if (pieces.size() < kArgumentSlots) {
        // Writable, NUL-terminated copies that outlive the walk: the parser
        // blanks communities and pass phrases in place.
        std::vector<std::string> arguments(pieces.begin(), pieces.end());
        std::array<char*, kArgumentSlots> argv{};
        for (std::size_t i = 0; i < arguments.size(); ++i) argv[i] = arguments[i].data();
        result = mib_walk(static_cast<int32_t>(arguments.size()), argv.data());
    }

    reply("iRet=" + std::to_string(result));
    ::syslog(LOG_ERR, "xpc - mibwalk_XPC - iRet=%d", result);
}

}  // namespace tz
