// The walk request: the three profile paths from the user and model names,
// the argument vector from the ":arg:" list, the walk, its result as the
// reply and one system-log line. The walk's state is process-wide, so walk
// requests take turns here, whatever front and thread they come from.
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

}  // namespace

void Service::mibwalk_XPC(std::string_view request, const Reply& reply) const {
    const int32_t result = [&] {
        const WalkTurn turn;
        return walk(request);
    }();
    reply("iRet=" + std::to_string(result));
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
    if (pieces.size() < kArgumentSlots) {
        // Writable, NUL-terminated copies that outlive the walk: the parser
        // blanks communities and pass phrases in place.
        std::vector<std::string> arguments(pieces.begin(), pieces.end());
        std::array<char*, kArgumentSlots> argv{};
        for (std::size_t i = 0; i < arguments.size(); ++i) argv[i] = arguments[i].data();
        result = mib_walk(static_cast<int32_t>(arguments.size()), argv.data());
    }
    return result;
}

}  // namespace tz
