// tzhelperctl: the printer helper's operations from the command line, one
// subcommand per operation, plus `raw` to send a request string as it stands
// and `show` to print a profile plist as tables.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "helper_client.h"
#include "tz_profile_store.h"

namespace {

using tz::client::HelperClient;
using tz::client::Outcome;

constexpr const char* kUsage =
    "Usage: tzhelperctl [--address ADDRESS] [--timeout SECONDS] COMMAND ARGS...\n"
    "\n"
    "Asks the printer helper (tazorex.printers.T48Q.Helper on the session bus) and\n"
    "prints its reply: TRUE, FALSE or iRet=<n>.\n"
    "\n"
    "Commands:\n"
    "  is-admin PATH                 can the helper write PATH?\n"
    "  swap TYPE CURRENT PREVIOUS    swap a profile file with its previous copy\n"
    "                                (0 previous->current, 1 remove previous,\n"
    "                                2 current->previous; NULL for no path)\n"
    "  exist PATH                    does PATH exist for the helper?\n"
    "  remove PATH                   remove PATH\n"
    "  write-plist URL FILE          write the contents of FILE to URL\n"
    "  write-piece URL TEXT          append TEXT to URL's temporary .dummy file\n"
    "  finish-piece URL              rename URL's .dummy file onto URL\n"
    "  walk --model M --user U -- SNMP-ARGS...\n"
    "                                walk the printer and rebuild U's profile plist\n"
    "                                for model M, e.g.\n"
    "                                walk --model T48Q --user alice -- -v 1 -c public 192.0.2.10\n"
    "  raw METHOD REQUEST            send REQUEST to METHOD as it stands\n"
    "  show [--all] FILE             print a profile plist, one table per category\n"
    "                                (in-use slots only unless --all)\n"
    "\n"
    "A URL may be given as an absolute path; it is turned into a file URL.\n"
    "Options:\n"
    "  --address ADDRESS   use this bus instead of the session bus\n"
    "  --timeout SECONDS   how long to wait for a reply (default 25, walk 600)\n"
    "  --help              show this text (also after a command)\n"
    "\n"
    "Exit status: 0 with the reply on stdout; 1 for a bus error; 2 for bad usage.\n";

int usage_error(const std::string& message) {
    std::fprintf(stderr, "tzhelperctl: %s (see tzhelperctl --help)\n", message.c_str());
    return 2;
}

std::string as_url(const std::string& text) {
    return !text.empty() && text.front() == '/' ? tz::client::file_url(text) : text;
}

bool read_whole_file(const std::string& path, std::string& content) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    content.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return !in.bad();
}

// ---- show ------------------------------------------------------------------

void print_table(const char* category, const ProfileTable& table, bool all) {
    std::printf("%s (iNum %d)\n", category, table.iNum);
    std::printf("  %4s %6s %13s %5s %8s  %-31s  %s\n", "slot", "InMenu", "IndexOnDevice", "class",
                "location", "file name", "profile name");
    int shown = 0;
    for (int slot = 0; slot < TZ_PROFILE_SLOTS; ++slot) {
        const ProfileEntry& e = table.Entry[slot];
        if (!all && e.InMenu == 0) continue;
        // Fields are read as up to 32 bytes: a full field has no terminator.
        std::printf("  %4d %6d %13d %5d %8d  %-31.32s  %.32s\n", slot, e.InMenu, e.IndexOnDevice,
                    e.ProfileClass, e.Location, e.FileName, e.ProfileName);
        ++shown;
    }
    if (shown == 0) std::printf("  (no profile)\n");
}

int show(const std::vector<std::string>& args) {
    bool all = false;
    std::string file;
    for (const std::string& arg : args) {
        if (arg == "--all") {
            all = true;
        } else if (file.empty()) {
            file = arg;
        } else {
            return usage_error("show takes one FILE");
        }
    }
    if (file.empty()) return usage_error("show needs a FILE");
    // The store copies the path into a 255-byte buffer and stops the process
    // when it does not fit: refuse such a path here instead.
    if (file.size() >= TZ_PATH_BUFFER) {
        std::fprintf(stderr, "tzhelperctl: the path \"%s\" is too long (at most %d bytes)\n",
                     file.c_str(), TZ_PATH_BUFFER - 1);
        return 1;
    }
    auto tables = std::make_unique<ProfileTable[]>(3);  // zeroed: 126 KB, not on the stack
    TZ_PLIST_PROFILE_PATH = file.c_str();
    const int32_t read = TZPListReadProfile_All(&tables[0], &tables[1], &tables[2]);
    TZ_PLIST_PROFILE_PATH = nullptr;
    if (read != 0) {
        std::fprintf(stderr, "tzhelperctl: cannot read \"%s\" as a profile plist\n", file.c_str());
        return 1;
    }
    print_table("RGB", tables[0], all);
    print_table("SIM", tables[1], all);
    print_table("DST", tables[2], all);
    return 0;
}

// ---- bus commands ------------------------------------------------------------

struct Request {
    std::string method;
    std::string text;
};

// Builds the request of a bus command. Returns -1 when `request` is ready,
// else the exit status of a usage error.
int build_request(const std::string& command, const std::vector<std::string>& args,
                  Request& request) {
    const auto need = [&](size_t count, const char* shape) {
        return args.size() == count ? -1 : usage_error(command + " takes " + shape);
    };
    if (command == "is-admin" || command == "exist" || command == "remove") {
        if (const int status = need(1, "PATH"); status >= 0) return status;
        request.method = command == "is-admin" ? "tzPListIsAdminProfile_XPC"
                         : command == "exist"  ? "tzPListExistProfile_XPC"
                                               : "tzPListRemove_XPC";
        request.text = args[0];
    } else if (command == "swap") {
        if (const int status = need(3, "TYPE CURRENT PREVIOUS"); status >= 0) return status;
        request.method = "tzPListSwapProfile_XPC";
        request.text = args[0] + ":ARG_iSwapType" + args[1] + ":ARG_cFooCurrentString" + args[2] +
                       ":ARG_cFooPrevString";
    } else if (command == "write-plist") {
        if (const int status = need(2, "URL FILE"); status >= 0) return status;
        std::string content;
        if (!read_whole_file(args[1], content)) {
            std::fprintf(stderr, "tzhelperctl: cannot read \"%s\": %s\n", args[1].c_str(),
                         std::strerror(errno));
            return 1;
        }
        request.method = "writeDictionaryToPlistFile_XPC";
        request.text = tz::client::write_request(as_url(args[0]), content);
    } else if (command == "write-piece") {
        if (const int status = need(2, "URL TEXT"); status >= 0) return status;
        request.method = "writeDataToPlistFile_XPC";
        request.text = tz::client::write_request(as_url(args[0]), args[1]);
    } else if (command == "finish-piece") {
        if (const int status = need(1, "URL"); status >= 0) return status;
        request.method = "writeDataToPlistFileRename_XPC";
        request.text = as_url(args[0]);
    } else if (command == "walk") {
        std::string model, user;
        bool have_model = false, have_user = false;
        size_t i = 0;
        for (; i < args.size() && args[i] != "--"; ++i) {
            if ((args[i] == "--model" || args[i] == "--user") && i + 1 < args.size()) {
                (args[i] == "--model" ? model : user) = args[i + 1];
                (args[i] == "--model" ? have_model : have_user) = true;
                ++i;
            } else {
                return usage_error("walk takes --model M --user U -- SNMP-ARGS...");
            }
        }
        if (!have_model || !have_user) return usage_error("walk needs --model and --user");
        std::vector<std::string> arguments{"snmpwalk"};
        if (i < args.size()) arguments.insert(arguments.end(), args.begin() + i + 1, args.end());
        request.method = "mibwalk_XPC";
        request.text = tz::client::walk_request(model, user, arguments);
    } else if (command == "raw") {
        if (const int status = need(2, "METHOD REQUEST"); status >= 0) return status;
        request.method = args[0];
        request.text = args[1];
    } else {
        return usage_error("unknown command \"" + command + "\"");
    }
    return -1;
}

}  // namespace

int main(int argc, char** argv) {
    std::string address;
    long timeout_seconds = -1;
    int i = 1;
    for (; i < argc; ++i) {
        const std::string_view arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            std::fputs(kUsage, stdout);
            return 0;
        }
        if (arg == "--address" || arg == "--timeout") {
            if (i + 1 >= argc) return usage_error(std::string(arg) + " needs a value");
            const char* value = argv[++i];
            if (arg == "--address") {
                address = value;
            } else {
                char* end = nullptr;
                timeout_seconds = std::strtol(value, &end, 10);
                if (end == value || *end != '\0' || timeout_seconds <= 0)
                    return usage_error("--timeout takes a positive number of seconds");
            }
            continue;
        }
        break;
    }
    if (i >= argc) return usage_error("no command");
    const std::string command = argv[i];
    std::vector<std::string> args(argv + i + 1, argv + argc);
    // "--help" anywhere before a walk's "--" asks for help.
    for (const std::string& arg : args) {
        if (arg == "--") break;
        if (arg == "--help" || arg == "-h") {
            std::fputs(kUsage, stdout);
            return 0;
        }
    }

    if (command == "show") return show(args);

    Request request;
    if (const int status = build_request(command, args, request); status >= 0) return status;

    tz::client::BusError error;
    auto client = HelperClient::connect(address, &error);
    if (!client) {
        std::fprintf(stderr, "tzhelperctl: cannot connect to the bus: %s: %s\n", error.name.c_str(),
                     error.message.c_str());
        return 1;
    }
    if (timeout_seconds > 0) {
        client->set_timeout(std::chrono::seconds(timeout_seconds));
        client->set_walk_timeout(std::chrono::seconds(timeout_seconds));
    }
    const Outcome outcome = client->call(request.method, request.text);
    if (!outcome.ok()) {
        std::fprintf(stderr, "tzhelperctl: %s failed: %s: %s\n", request.method.c_str(),
                     outcome.error->name.c_str(), outcome.error->message.c_str());
        return 1;
    }
    std::printf("%s\n", outcome.reply.c_str());
    return 0;
}
