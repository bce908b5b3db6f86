// Runs a check in a child process that, when the tests run as root, first drops to an unprivileged user (nobody),
// so that permission bits really stop open(). The child's result comes back as its exit status.
#pragma once

#include <grp.h>
#include <pwd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>

namespace tz::test {

// The user a check runs as: nobody under root, else the caller.
inline uid_t unprivileged_uid() {
    const passwd* nobody = ::geteuid() == 0 ? ::getpwnam("nobody") : nullptr;
    return ::geteuid() != 0 ? ::geteuid() : nobody != nullptr ? nobody->pw_uid : 65534;
}

// Returns what `check` returned (125 if the child could not drop to nobody), or -1 if it could not run or died.
// Files the check must reach need to be open to that user.
inline int run_unprivileged(const std::function<int()>& check) {
    const pid_t child = ::fork();
    if (child == 0) {
        const uid_t uid = unprivileged_uid();
        if (::geteuid() == 0 && (::setgroups(0, nullptr) != 0 || ::setgid(uid) != 0 || ::setuid(uid) != 0))
            ::_exit(125);
        ::_exit(check());
    }
    int status = 0;
    return child > 0 && ::waitpid(child, &status, 0) == child && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace tz::test
