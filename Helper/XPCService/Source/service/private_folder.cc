#include "private_folder.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace tz {
std::string user_name(uid_t uid) {
    passwd entry;
    passwd* found = nullptr;
    std::array<char, 4096> scratch;
    if (::getpwuid_r(uid, &entry, scratch.data(), scratch.size(), &found) != 0 || found == nullptr)
        return "uid " + std::to_string(uid);
    return found->pw_name;
}

namespace {

// "alice (uid 1002)", or "uid 1002" for a uid without a name.
std::string owner_text(uid_t uid) {
    const std::string name = user_name(uid), number = "uid " + std::to_string(uid);
    return name == number ? number : name + " (" + number + ")";
}

// `dir` without its trailing '/', which would make lstat follow a link.
std::string without_trailing_slash(std::string dir) {
    while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
    return dir;
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
    const std::string path = without_trailing_slash(dir);
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

std::optional<std::string> private_folder_warning(const std::string& dir) {
    const auto problem = private_folder_problem(dir);
    if (!problem) return std::nullopt;
    const std::string path = without_trailing_slash(dir);
    struct stat st;
    if (::lstat(path.c_str(), &st) != 0)  // it could not be made
        return "the preferences folder " + *problem + "; walks do not run until it can: ask an administrator " +
               "to add this user to the lpadmin group";
    return "the preferences folder " + *problem + "; walks do not run until it is a folder of user " +
           owner_text(::geteuid()) + " that only this user may write: move it aside (or ask an administrator to)";
}

}  // namespace tz
