// Runs a check in a child process that, when the tests run as root, first drops to an unprivileged user (nobody),
// so that permission bits really stop open(). The child's result comes back as its exit status.
#pragma once

#include <grp.h>
#include <pwd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>

namespace tz::test {

// The uid the child runs as: nobody's when running as root, else our own.
inline uid_t unprivileged_uid() {
    if (::geteuid() != 0) return ::geteuid();
    const passwd* nobody = ::getpwnam("nobody");
    return nobody != nullptr ? nobody->pw_uid : 65534;
}

// Runs `check` in a forked child as the unprivileged user and returns what it returned, or -1 if the child could
// not run or died. Files the check must be able to reach need to be accessible to that user (see TempDir permissions).
inline int run_unprivileged(const std::function<int()>& check) {
    const pid_t child = ::fork();
    if (child < 0) return -1;
    if (child == 0) {
        if (::geteuid() == 0) {
            const uid_t uid = unprivileged_uid();
            if (::setgroups(0, nullptr) != 0 || ::setgid(uid) != 0 || ::setuid(uid) != 0)
                ::_exit(125);
        }
        ::_exit(check());
    }
    int status = 0;
    if (::waitpid(child, &status, 0) != child || !WIFEXITED(status)) return -1;
    return WEXITSTATUS(status);
}

}  // namespace tz::test
