// The walk request: the three profile paths from the user and model names,
// the argument vector from the ":arg:" list, the check of a private folder,
// the walk, its result as the reply and one system-log line. The walk's
// state is process-wide, so walk requests take turns here, whatever front
// and thread they come from.
#include <syslog.h>

#include <array>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "guarded_format.h"
#include "profile_files.h"
#include "replies.h"
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

// One walk at a time in the process, in arrival order: a ticket lock, as
// std::mutex alone lets a thread that has just released it take it again
// before one that has waited. The wait is bounded by the walks ahead of it,
// each bounded by the walk's deadline (TZSetWalkLimits).
class WalkTurn {
public:
    WalkTurn() {
        std::unique_lock lock(mutex_);
        const uint64_t ticket = next_++;
        turn_.wait(lock, [&] { return serving_ == ticket; });
    }
    ~WalkTurn() {
        {
            std::lock_guard lock(mutex_);
            ++serving_;
        }
        turn_.notify_all();
    }
    WalkTurn(const WalkTurn&) = delete;
    WalkTurn& operator=(const WalkTurn&) = delete;

private:
    static inline std::mutex mutex_;
    static inline std::condition_variable turn_;
    static inline uint64_t next_ = 0, serving_ = 0;
};

// Formats one profile file's path into `out` (a path of 256 bytes or more
// ends the process).
void format_profile_path(char (&out)[kPathBuffer], const std::string& folder, const std::string& user,
                         const std::string& model, std::string_view suffix) {
    // The path goes in as an argument: the folder may hold '%'.
    guarded_format(out, sizeof out, "%s", protocol::profile_file_path(folder, user, model, suffix).c_str());
}

}  // namespace

void Service::mibwalk_XPC(std::string_view request, const Reply& reply) const {
    const int32_t result = [&] {
        const WalkTurn turn;
        return walk(request);
    }();
    reply(protocol::walk_reply(result));
    ::syslog(LOG_ERR, "xpc - mibwalk_XPC - iRet=%d", result);
}

int32_t Service::walk(std::string_view request) const {
    char current[kPathBuffer] = {};
    char previous[kPathBuffer] = {};
    char spool[kPathBuffer] = {};

    // Names first, then the paths, then the argument list: a request whose
    // paths do not fit ends the process even when its argument marker is
    // missing.
    const protocol::WalkNames names = protocol::cut_walk_names(request);
    const std::string user = name_text(names.user);
    const std::string model = name_text(names.model);
    format_profile_path(current, preferences_dir(), user, model, protocol::kCurrentProfileSuffix);
    format_profile_path(previous, preferences_dir(), user, model, protocol::kPreviousProfileSuffix);
    format_profile_path(spool, preferences_dir(), user, model, protocol::kSpoolProfileSuffix);
    TZ_PLIST_PROFILE_PATH = current;
    TZ_PLIST_PROFILE_PREV_PATH = previous;
    TZ_PLIST_PROFILE_SPOOL_PATH = spool;

    const std::vector<std::string_view> pieces = protocol::cut_walk_arguments(request, kArgumentSlots);
    if (pieces.size() >= kArgumentSlots) return kTooManyArguments;
    if (folder_ == Folder::private_to_user) {
        if (const auto problem = private_folder_problem(preferences_dir())) {
            // A name held by anything else is never used.
            ::syslog(LOG_ERR, "xpc - mibwalk_XPC - the preferences folder %s: no walk", problem->c_str());
            return kWalkFailed;
        }
    }
    // Writable, NUL-terminated copies that outlive the walk: the parser
    // blanks communities and pass phrases in place.
    std::vector<std::string> arguments(pieces.begin(), pieces.end());
    std::array<char*, kArgumentSlots> argv{};
    for (std::size_t i = 0; i < arguments.size(); ++i) argv[i] = arguments[i].data();
    return mib_walk(static_cast<int32_t>(arguments.size()), argv.data());
}

}  // namespace tz
