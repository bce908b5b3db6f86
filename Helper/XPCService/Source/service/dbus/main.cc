// tzhelperd: the helper service on the user's D-Bus session bus, started on
// demand by the bus (or by systemd --user) and ending itself when idle.
//
// Lines to stderr reach the journal when systemd or the bus runs the service;
// each starts with sd-daemon's priority prefix ("<4>") so that the journal
// files it at that priority. Usage errors and --help/--version, written for
// whoever typed the command, carry none.
#include <getopt.h>
#include <malloc.h>
#include <pwd.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <sdbus-c++/sdbus-c++.h>
#include <systemd/sd-daemon.h>

#include "bus_names.h"
#include "front.h"
#include "tz_discovery.h"

namespace {

constexpr const char* kUsage =
    "Usage: tzhelperd [OPTION]...\n"
    "\n"
    "Serves tazorex.printers.T48Q.Helper on the user's D-Bus session bus.\n"
    "\n"
    "  --idle-exit SECONDS    end after SECONDS without a call (default 60, 0 never);\n"
    "                         the bus starts a fresh process on the next call\n"
    "  --preferences-dir DIR  folder of the profile plists a walk rewrites\n"
    "                         (default %s)\n"
    "  --address ADDRESS      use this bus instead of the session bus\n"
    "  --walk-window N        keep up to N requests of a walk in flight\n"
    "                         (a positive number; default: the walk's own)\n"
    "  --walk-timeout SECONDS stop a walk after SECONDS (default 600)\n"
    "  --walk-max-variables N stop a walk after N variables (default 1000000)\n"
    "                         (a walk stopped so, or by SIGTERM, or because its\n"
    "                         caller left, ends as after a timeout: iRet=1, and\n"
    "                         the profile file is rebuilt)\n"
    "  --debug                write the walk's diagnostics to stderr (the journal)\n"
    "  --version              print the version and exit\n"
    "  --help                 show this text\n";

struct Options {
    tz::dbus::FrontOptions front;
    std::string address;
    std::optional<int32_t> walk_window;
    int32_t walk_seconds = TZ_WALK_DEFAULT_SECONDS, walk_variables = TZ_WALK_DEFAULT_VARIABLES;
    bool debug = false;
};

int usage_error(const std::string& message) {
    std::fprintf(stderr, "tzhelperd: %s (see --help)\n", message.c_str());
    return 2;
}

std::string quoted(std::string_view text) { return "\"" + std::string(text) + "\""; }

// True when all of `text` is one number in [minimum, maximum].
template <typename Number>
bool whole_number(std::string_view text, Number minimum, Number maximum, Number& value) {
    const char* end = text.data() + text.size();
    const auto [stop, ec] = std::from_chars(text.data(), end, value);
    return ec == std::errc() && stop == end && value >= minimum && value <= maximum;
}

enum OptionId : int {
    kIdleExit = 1000,
    kPreferencesDir,
    kAddress,
    kWalkWindow,
    kWalkTimeout,
    kWalkMaxVariables,
    kDebug,
    kVersion,
    kHelp = 'h',
};

const option kOptions[] = {
    {"idle-exit", required_argument, nullptr, kIdleExit},
    {"preferences-dir", required_argument, nullptr, kPreferencesDir},
    {"address", required_argument, nullptr, kAddress},
    {"walk-window", required_argument, nullptr, kWalkWindow},
    {"walk-timeout", required_argument, nullptr, kWalkTimeout},
    {"walk-max-variables", required_argument, nullptr, kWalkMaxVariables},
    {"debug", no_argument, nullptr, kDebug},
    {"version", no_argument, nullptr, kVersion},
    {"help", no_argument, nullptr, kHelp},
    {nullptr, 0, nullptr, 0},
};

// Parses the command line into `options`. Returns -1 to go on, else the exit
// status to end with.
int parse(int argc, char** argv, Options& options) {
    opterr = 0;  // the messages below name the bad value instead
    for (;;) {
        const int id = getopt_long(argc, argv, ":h", kOptions, nullptr);
        if (id == -1) break;
        const std::string_view value = optarg != nullptr ? optarg : "";
        switch (id) {
            case kIdleExit: {
                unsigned seconds = 0;
                if (!whole_number(value, 0u, 86400u * 365, seconds))
                    return usage_error("--idle-exit takes a number of seconds, not " + quoted(value));
                options.front.idle_exit = std::chrono::seconds(seconds);
                break;
            }
            case kPreferencesDir: {
                if (value.empty()) return usage_error("--preferences-dir takes a folder, not \"\"");
                std::string dir(value);
                if (dir.back() != '/') dir += '/';
                options.front.preferences_dir = dir;
                break;
            }
            case kAddress:
                options.address = value;
                break;
            case kWalkWindow:
            case kWalkTimeout:
            case kWalkMaxVariables: {
                int32_t& number = id == kWalkWindow    ? options.walk_window.emplace()
                                  : id == kWalkTimeout ? options.walk_seconds
                                                       : options.walk_variables;
                if (!whole_number(value, int32_t{1}, INT32_MAX, number))  // kOptions is in OptionId's order
                    return usage_error("--" + std::string(kOptions[id - kIdleExit].name) +
                                       " takes a positive whole number, not " + quoted(value));
                break;
            }
            case kDebug:
                options.debug = true;
                break;
            case kVersion:
                std::printf("tzhelperd %s\n", std::string(tz::dbus::kVersion).c_str());
                return 0;
            case kHelp:
                std::printf(kUsage, std::string(tz::dbus::kSystemPreferencesDir).c_str());
                return 0;
            case ':':
                return usage_error(quoted(argv[optind - 1]) + " needs a value");
            default:  // '?'
                // optopt is the letter of a short option, or the id of a long
                // one given a value it does not take.
                if (optopt > 0 && optopt < kIdleExit)
                    return usage_error("unknown option " + quoted(std::string("-") + char(optopt)));
                return usage_error("unknown option or unexpected value " + quoted(argv[optind - 1]));
        }
    }
    if (optind < argc) return usage_error("unexpected argument " + quoted(argv[optind]));
    return -1;
}

// This user's name, or "uid 1001" when it has none.
std::string user_name() {
    const passwd* entry = ::getpwuid(::getuid());
    return entry != nullptr ? std::string(entry->pw_name) : "uid " + std::to_string(::getuid());
}

// "bob (uid 1001)".
std::string this_user() { return user_name() + " (uid " + std::to_string(::getuid()) + ")"; }

// What is wrong with the preferences folder for this user, or nothing. The
// service starts anyway: the file operations do not need the folder, and a
// walk then answers as it does for any folder it cannot write.
std::optional<std::string> preferences_problem(const std::string& dir) {
    std::string path = dir;
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    const std::string folder = "the preferences folder " + dir;
    const std::string consequence = ": walks cannot save profiles; ";
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) {
        if (errno == ENOENT)
            return folder + " does not exist" + consequence +
                   "ask an administrator to create it (group lpadmin, mode 2775)";
        return folder + " cannot be reached by user " + this_user() + " (" + std::strerror(errno) + ")" +
               consequence + "ask an administrator to check it";
    }
    if (!S_ISDIR(info.st_mode))
        return folder + " is not a folder" + consequence +
               "ask an administrator to make it one (group lpadmin, mode 2775)";
    if (::access(path.c_str(), W_OK | X_OK) != 0)
        return folder + " is not writable for user " + this_user() + consequence +
               "ask an administrator to add " + user_name() + " to the lpadmin group";
    return std::nullopt;
}

// The walk's debug hook under --debug: each line of a diagnostic becomes one
// line at debug priority. The number goes after the last line when it says
// something: it is not zero, or the text ends in ": " (a count of zero).
void debug_to_stderr(const char* text, int32_t number) {
    std::string_view rest = text != nullptr ? text : "";
    while (!rest.empty() && (rest.back() == '\n' || rest.back() == '\r')) rest.remove_suffix(1);
    const bool with_number = number != 0 || rest.ends_with(": ");
    if (rest.empty() && !with_number) return;
    do {
        const std::size_t end = rest.find('\n');
        std::string line = SD_DEBUG "tzhelperd: walk: " + std::string(rest.substr(0, end));
        if (end == std::string_view::npos) {
            if (with_number) line += std::to_string(number);
            rest = {};
        } else {
            rest.remove_prefix(end + 1);
        }
        line += '\n';
        std::fwrite(line.data(), 1, line.size(), stderr);  // one write per line
    } while (!rest.empty());
}

// The bus to serve on: the one named on the command line, else the one that
// activated us, else the session bus.
std::unique_ptr<sdbus::IConnection> connect(const std::string& address) {
    if (!address.empty()) return sdbus::createSessionBusConnectionWithAddress(address);
    if (const char* starter = std::getenv("DBUS_STARTER_ADDRESS"); starter && *starter)
        return sdbus::createSessionBusConnectionWithAddress(starter);
    return sdbus::createSessionBusConnection();
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (const int status = parse(argc, argv, options); status >= 0) return status;
    if (options.walk_window) TZSetWalkWindow(*options.walk_window);
    TZSetWalkLimits(options.walk_seconds, options.walk_variables);
    if (options.debug) TZSetWalkDebugHook(&debug_to_stderr);
    if (const auto problem = preferences_problem(options.front.preferences_dir))
        std::fprintf(stderr, SD_WARNING "tzhelperd: %s\n", problem->c_str());

    // A fixed threshold keeps every large buffer (a request of megabytes) in
    // its own mapping, returned when the call ends, instead of letting glibc
    // raise the threshold and park such buffers in its arenas.
    mallopt(M_MMAP_THRESHOLD, 256 * 1024);

    // Stop requests arrive on a signalfd; the walk thread, started later,
    // inherits the blocked mask, so only the loop thread's poll sees them.
    sigset_t stop_signals;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGTERM);
    sigaddset(&stop_signals, SIGINT);
    sigaddset(&stop_signals, SIGHUP);
    if (pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr) != 0) {
        std::fprintf(stderr, SD_ERR "tzhelperd: cannot block the stop signals\n");
        return 1;
    }
    const int stop_fd = ::signalfd(-1, &stop_signals, SFD_CLOEXEC | SFD_NONBLOCK);
    if (stop_fd < 0) {
        std::fprintf(stderr, SD_ERR "tzhelperd: cannot create a signalfd: %s\n", std::strerror(errno));
        return 1;
    }

    std::unique_ptr<sdbus::IConnection> bus;
    try {
        bus = connect(options.address);
    } catch (const sdbus::Error& e) {
        std::fprintf(stderr, SD_ERR "tzhelperd: cannot connect to the session bus: %s\n",
                     e.getMessage().c_str());
        return 1;
    }

    int status = 1;
    try {
        tz::dbus::Front front(*bus, options.front);
        try {
            bus->requestName(std::string(tz::bus::kBusName));
        } catch (const sdbus::Error& e) {
            std::fprintf(stderr, SD_ERR "tzhelperd: cannot own the bus name %s: %s\n",
                         std::string(tz::bus::kBusName).c_str(), e.getMessage().c_str());
            return 1;
        }
        status = front.run(stop_fd);
    } catch (const std::exception& e) {
        std::fprintf(stderr, SD_ERR "tzhelperd: %s\n", e.what());
        status = 1;
    }
    ::close(stop_fd);
    return status;
}
