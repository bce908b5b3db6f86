// tzhelperd: the helper service on the user's D-Bus session bus, started on
// demand by the bus (or by systemd --user) and ending itself when idle.
#include <malloc.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include <sdbus-c++/sdbus-c++.h>

#include "bus_names.h"
#include "front.h"

namespace {

constexpr const char* kUsage =
    "Usage: tzhelperd [--idle-exit SECONDS] [--preferences-dir DIR] [--address ADDRESS]\n"
    "\n"
    "Serves tazorex.printers.T48Q.Helper on the user's D-Bus session bus.\n"
    "\n"
    "  --idle-exit SECONDS    end after SECONDS without a call (default 60, 0 never);\n"
    "                         the bus starts a fresh process on the next call\n"
    "  --preferences-dir DIR  folder of the profile plists a walk rewrites\n"
    "                         (default /Library/Printers/TAZOREX/Preferences/tazorex.printers.T48Q/)\n"
    "  --address ADDRESS      use this bus instead of the session bus\n"
    "  --help                 show this text\n";

struct Options {
    tz::dbus::FrontOptions front;
    std::string address;
};

int usage_error(const std::string& message) {
    std::fprintf(stderr, "tzhelperd: %s (see --help)\n", message.c_str());
    return 2;
}

// Parses the command line into `options`. Returns -1 to go on, else the exit
// status to end with.
int parse(int argc, char** argv, Options& options) {
    for (int i = 1; i < argc; ++i) {
        const std::string_view arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            std::fputs(kUsage, stdout);
            return 0;
        }
        const bool takes_value =
            arg == "--idle-exit" || arg == "--preferences-dir" || arg == "--address";
        if (!takes_value) return usage_error("unknown argument \"" + std::string(arg) + "\"");
        if (i + 1 >= argc) return usage_error(std::string(arg) + " needs a value");
        const std::string_view value = argv[++i];
        if (arg == "--idle-exit") {
            unsigned seconds = 0;
            const auto [end, ec] = std::from_chars(value.data(), value.data() + value.size(), seconds);
            if (ec != std::errc() || end != value.data() + value.size() || seconds > 86400 * 365)
                return usage_error("--idle-exit takes a number of seconds, not \"" +
                                   std::string(value) + "\"");
            options.front.idle_exit = std::chrono::seconds(seconds);
        } else if (arg == "--preferences-dir") {
            if (value.empty()) return usage_error("--preferences-dir needs a folder");
            std::string dir(value);
            if (dir.back() != '/') dir += '/';
            options.front.preferences_dir = dir;
        } else {
            options.address = value;
        }
    }
    return -1;
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

    // Calls run on whichever pool thread is free, each thread with its own
    // malloc arena. A fixed threshold keeps every large buffer (a request of
    // megabytes) in its own mapping, returned when the call ends, instead of
    // letting glibc raise the threshold and park such buffers in the arenas.
    mallopt(M_MMAP_THRESHOLD, 256 * 1024);

    // Stop requests arrive on a signalfd; every thread started later inherits
    // the blocked mask, so only the event loop's poll sees them.
    sigset_t stop_signals;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGTERM);
    sigaddset(&stop_signals, SIGINT);
    sigaddset(&stop_signals, SIGHUP);
    if (pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr) != 0) {
        std::fprintf(stderr, "tzhelperd: cannot block the stop signals\n");
        return 1;
    }
    const int stop_fd = ::signalfd(-1, &stop_signals, SFD_CLOEXEC | SFD_NONBLOCK);
    if (stop_fd < 0) {
        std::fprintf(stderr, "tzhelperd: cannot create a signalfd: %s\n", std::strerror(errno));
        return 1;
    }

    std::unique_ptr<sdbus::IConnection> bus;
    try {
        bus = connect(options.address);
    } catch (const sdbus::Error& e) {
        std::fprintf(stderr, "tzhelperd: cannot connect to the session bus: %s\n",
                     e.getMessage().c_str());
        return 1;
    }

    int status = 1;
    try {
        tz::dbus::Front front(*bus, options.front);
        try {
            bus->requestName(std::string(tz::bus::kBusName));
        } catch (const sdbus::Error& e) {
            std::fprintf(stderr, "tzhelperd: cannot own the bus name %s: %s\n",
                         std::string(tz::bus::kBusName).c_str(), e.getMessage().c_str());
            return 1;
        }
        status = front.run(stop_fd);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "tzhelperd: %s\n", e.what());
        status = 1;
    }
    ::close(stop_fd);
    return status;
}
