// tzhelperd: the helper service on the user's D-Bus session bus, started on
// demand by the bus (or systemd --user), ending itself when idle. Its lines to
// stderr reach the journal, each with sd-daemon's priority prefix ("<4>");
// usage errors and --help/--version, written for whoever typed them, have none.
#include <getopt.h>
#include <malloc.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>

#include <systemd/sd-daemon.h>

#include "bus_names.h"
#include "front.h"
#include "private_folder.h"
#include "tz_discovery.h"

namespace {

constexpr const char* kUsage =
    "Usage: tzhelperd [OPTION]...\n\n"
    "Serves tazorex.printers.T48Q.Helper on the user's D-Bus session bus.\n\n"
    "  --idle-exit SECONDS    end after SECONDS without a call (default 60, 0 never);\n"
    "                         the bus starts a fresh process on the next call\n"
    "  --walk-window N        keep up to N requests of a walk in flight (default 128)\n"
    "  --walk-timeout SECONDS stop a walk after SECONDS (default 600)\n"
    "  --walk-max-variables N stop a walk after N variables (default 1000000); so\n"
    "                         stopped, as by SIGTERM or its caller leaving, a walk\n"
    "                         ends as a timeout does: iRet=1, the file rebuilt\n"
    "  --preferences-dir DIR  this user's own folder of the profile plists\n"
    "                         (default %s)\n"
    "  --address ADDRESS      use this bus instead of the session bus\n"
    "  --debug                write the walk's diagnostics to stderr (the journal)\n"
    "  --version              print the version and exit\n"
    "  --help                 show this text\n";

struct Options {
    tz::dbus::FrontOptions front;
    std::string address;
    int64_t idle_exit = 60, walk_window = 0;
    int64_t walk_seconds = TZ_WALK_DEFAULT_SECONDS, walk_variables = TZ_WALK_DEFAULT_VARIABLES;
    bool debug = false;
};

enum OptionId : int { kNumber = 1000, kPreferencesDir = 2000, kAddress, kDebug, kVersion, kHelp = 'h' };

// The options that take a whole number: kNumber + i is the i-th, with kBounds[i].
const option kOptions[] = {
    {"idle-exit", required_argument, nullptr, kNumber}, {"walk-window", required_argument, nullptr, kNumber + 1},
    {"walk-timeout", required_argument, nullptr, kNumber + 2},
    {"walk-max-variables", required_argument, nullptr, kNumber + 3},
    {"preferences-dir", required_argument, nullptr, kPreferencesDir}, {"address", required_argument, nullptr, kAddress},
    {"debug", no_argument, nullptr, kDebug}, {"version", no_argument, nullptr, kVersion},
    {"help", no_argument, nullptr, kHelp}, {nullptr, 0, nullptr, 0},
};
const struct { int64_t minimum, maximum, Options::*value; } kBounds[] = {
    {0, 86400 * 365, &Options::idle_exit}, {1, INT32_MAX, &Options::walk_window},
    {1, INT32_MAX, &Options::walk_seconds}, {1, INT32_MAX, &Options::walk_variables},
};

int usage_error(const std::string& message) {
    std::fprintf(stderr, "tzhelperd: %s (see --help)\n", message.c_str());
    return 2;
}
std::string quoted(std::string_view text) { return "\"" + std::string(text) + "\""; }

std::string own_preferences_dir();  // the default folder, below

// Parses the command line into `options`. Returns -1 to go on, else the exit
// status to end with.
int parse(int argc, char** argv, Options& options) {
    opterr = 0;  // the messages below name the bad value instead
    for (int id; (id = getopt_long(argc, argv, ":h", kOptions, nullptr)) != -1;) {
        const std::string_view value = optarg != nullptr ? optarg : "";
        if (id >= kNumber && id < kPreferencesDir) {
            const auto& bounds = kBounds[id - kNumber];
            int64_t& number = options.*bounds.value;
            const auto [stop, ec] = std::from_chars(value.data(), value.data() + value.size(), number);
            const bool whole = ec == std::errc() && stop == value.data() + value.size();
            if (!whole || number < bounds.minimum || number > bounds.maximum)
                return usage_error("--" + std::string(kOptions[id - kNumber].name) + " takes a whole number from " +
                                   std::to_string(bounds.minimum) + " to " + std::to_string(bounds.maximum) +
                                   ", not " + quoted(value));
            continue;
        }
        switch (id) {
            case kPreferencesDir:
                if (value.empty()) return usage_error("--preferences-dir takes a folder, not \"\"");
                options.front.preferences_dir = std::string(value) + (value.back() == '/' ? "" : "/");
                break;
            case kAddress: options.address = value; break;
            case kDebug: options.debug = true; break;
            case kVersion: return std::printf("tzhelperd %s\n", std::string(tz::dbus::kVersion).c_str()), 0;
            case kHelp: return std::printf(kUsage, own_preferences_dir().c_str()), 0;
            case ':': return usage_error(quoted(argv[optind - 1]) + " needs a value");
            default:  // '?': optopt is a short option's letter, or the id of a long one given a value
                if (optopt > 0 && optopt < kNumber)
                    return usage_error("unknown option " + quoted(std::string("-") + char(optopt)));
                return usage_error("unknown option or unexpected value " + quoted(argv[optind - 1]));
        }
    }
    if (optind < argc) return usage_error("unexpected argument " + quoted(argv[optind]));
    options.front.idle_exit = std::chrono::seconds(options.idle_exit);
    return -1;
}

// This user's folder inside the package's shared one: the default of
// --preferences-dir.
std::string own_preferences_dir() { return std::string(tz::dbus::kSystemPreferencesDir) + tz::user_name(::getuid()) + "/"; }

// The walk's debug hook under --debug: each line of a diagnostic becomes one
// line at debug priority. The number goes after the last line when it says
// something: it is not zero, or the text ends in ": " (a count of zero).
void debug_to_stderr(const char* text, int32_t number) {
    std::string rest = text != nullptr ? text : "";
    while (!rest.empty() && (rest.back() == '\n' || rest.back() == '\r')) rest.pop_back();
    if (number != 0 || rest.ends_with(": ")) rest += std::to_string(number);
    for (std::size_t at = 0, end = 0; at < rest.size(); at = end + 1) {
        end = std::min(rest.find('\n', at), rest.size());
        const std::string line = SD_DEBUG "tzhelperd: walk: " + rest.substr(at, end - at) + "\n";
        std::fwrite(line.data(), 1, line.size(), stderr);  // one write per line
    }
}

// The bus to serve on: the one named on the command line, else the one that
// activated us, else the session bus.
std::unique_ptr<sdbus::IConnection> connect(std::string address) {
    if (const char* starter = std::getenv("DBUS_STARTER_ADDRESS"); address.empty() && starter) address = starter;
    return address.empty() ? sdbus::createSessionBusConnection()
                           : sdbus::createSessionBusConnectionWithAddress(address);
}

int fail(const std::string& what) {
    std::fprintf(stderr, SD_ERR "tzhelperd: %s\n", what.c_str());
    return 1;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    options.front.preferences_dir = own_preferences_dir();
    if (const int status = parse(argc, argv, options); status >= 0) return status;
    if (options.walk_window > 0) TZSetWalkWindow(static_cast<int32_t>(options.walk_window));
    TZSetWalkLimits(static_cast<int32_t>(options.walk_seconds), static_cast<int32_t>(options.walk_variables));
    if (options.debug) TZSetWalkDebugHook(&debug_to_stderr);
    if (const auto problem = tz::private_folder_warning(options.front.preferences_dir))
        std::fprintf(stderr, SD_WARNING "tzhelperd: %s\n", problem->c_str());
    // A fixed threshold keeps each large buffer (a request of megabytes) in its own mapping, returned when the call
    // ends, instead of letting glibc raise the threshold and park such buffers in its arenas.
    mallopt(M_MMAP_THRESHOLD, 256 * 1024);
    // Stop requests arrive on a signalfd; the lanes, started later, inherit the blocked mask.
    sigset_t stop_signals;
    ::sigemptyset(&stop_signals);
    for (const int signal : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&stop_signals, signal);
    if (pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr) != 0) return fail("cannot block the stop signals");
    const int stop_fd = ::signalfd(-1, &stop_signals, SFD_CLOEXEC | SFD_NONBLOCK);
    if (stop_fd < 0) return fail(std::string("cannot create a signalfd: ") + std::strerror(errno));
    std::string step = "cannot connect to the session bus";
    try {
        const std::unique_ptr<sdbus::IConnection> bus = connect(options.address);
        step = "cannot serve";
        tz::dbus::Front front(*bus, options.front);
        step = "cannot own the bus name " + std::string(tz::bus::kBusName);
        bus->requestName(std::string(tz::bus::kBusName));
        return front.run(stop_fd);
    } catch (const std::exception& e) {
        return fail(step + ": " + e.what());
    }
}
