// tzhelperctl: the printer helper's operations from the command line, for
// people and for scripts. One subcommand per operation, `raw` to send a
// request string as it stands, and `show` to print a profile plist.
//
// The reply goes to stdout as the helper gave it (or as JSON with --json);
// what a "no" or an error means goes to stderr as one line of words, and the
// exit status says the same to a script (exit_status.h). After a walk the
// tool compares the user's profile plist before and after it and prints
// what changed (walk_summary.h).
#include <getopt.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "bus_names.h"
#include "exit_status.h"
#include "file_ops.h"
#include "helper_client.h"
#include "methods.h"
#include "profile_files.h"
#include "profile_store.h"
#include "tz_profile_store.h"
#include "walk_summary.h"

namespace {

// Keys in the order they are set: operation, method, request, reply, ok.
using json = nlohmann::ordered_json;
using tz::client::BusError;
using tz::client::HelperClient;
using tz::client::Outcome;
using tz::ctl::CategoryChanges;
using tz::ctl::Verdict;
using Summary = std::array<CategoryChanges, 3>;

// ---- commands -----------------------------------------------------------------

struct Global {
    std::string address;
    std::optional<std::chrono::microseconds> timeout;
    bool json = false;
};

struct Args {
    bool help = false, json = false, all = false;
    std::optional<std::string> model, user;
    std::vector<std::string> operands;
};

struct Command;
using Runner = int (*)(const Global&, const Command&, const Args&);

enum Takes : unsigned {
    kProfileOptions = 1,  // --model M --user U
    kAllOption = 2,       // --all
    kStopAtOperand = 4,   // options end at the first operand (the walk's SNMP arguments)
};

struct Command {
    std::string_view name;
    std::string_view synopsis;  // after the command's name
    std::string_view summary;   // one line for the global help
    std::string_view details;   // what it does, its arguments and options, an example
    std::string_view method;    // the helper's method; empty for show
    unsigned takes;
    size_t min_operands, max_operands;
    Runner run;
};

int run_call(const Global&, const Command&, const Args&);
int run_walk(const Global&, const Command&, const Args&);
int run_show(const Global&, const Command&, const Args&);

constexpr size_t kMany = static_cast<size_t>(-1);

const Command kCommands[] = {
    {"is-admin", "PATH", "can the helper write PATH?",
     "Replies TRUE when the helper can open PATH for writing (a file it had to\n"
     "create for the test is removed again), FALSE when it cannot or PATH is a\n"
     "FIFO or a socket.\n"
     "\n"
     "  PATH  a file path as the helper sees it\n"
     "\n"
     "Example:\n"
     "  tzhelperctl is-admin /var/lib/tzhelper/tazorex.printers.T48Q/alice/alice-T48Q-profile.plist\n",
     tz::protocol::kIsAdmin.name, 0, 1, 1, run_call},
    {"swap", "TYPE CURRENT PREVIOUS", "swap a profile file with its previous copy",
     "Swaps the profile file CURRENT with its previous copy PREVIOUS. The helper\n"
     "does not check CURRENT first, and the reply is always TRUE, whatever\n"
     "happened. Type 2 copies CURRENT only when it is a regular file (not a link)\n"
     "and creates PREVIOUS anew: a name that appears there meanwhile is left alone.\n"
     "\n"
     "  TYPE      0 the previous copy becomes the current file,\n"
     "            1 the previous copy is removed,\n"
     "            2 the current file is copied to the previous one\n"
     "  CURRENT   the current file; \"\" or NULL for none\n"
     "  PREVIOUS  the previous copy; \"\" or NULL for none\n"
     "\n"
     "Example:\n"
     "  tzhelperctl swap 2 \"$DIR/alice-T48Q-profile.plist\" \"$DIR/alice-T48Q-profile.prev.plist\"\n",
     tz::protocol::kSwap.name, 0, 3, 3, run_call},
    {"exist", "PATH", "does PATH exist for the helper?",
     "Replies TRUE when the helper can open PATH for reading (a folder too),\n"
     "FALSE otherwise or when PATH is a FIFO or a socket. Write access is not\n"
     "checked.\n"
     "\n"
     "  PATH  a file path as the helper sees it\n"
     "\n"
     "Example:\n"
     "  tzhelperctl exist \"$HOME/x.plist\"\n",
     tz::protocol::kExist.name, 0, 1, 1, run_call},
    {"remove", "PATH", "remove PATH",
     "Removes the file (or empty folder) PATH. Replies TRUE when it was removed.\n"
     "\n"
     "  PATH  a file path as the helper sees it\n"
     "\n"
     "Example:\n"
     "  tzhelperctl remove \"$HOME/x.plist\"\n",
     tz::protocol::kRemove.name, 0, 1, 1, run_call},
    {"write-plist", "URL FILE", "write the contents of FILE to URL",
     "Sends the contents of FILE to the helper, which writes them to URL,\n"
     "replacing the file. Replies TRUE when written.\n"
     "\n"
     "  URL   a file: URL, or an absolute path (turned into a file URL)\n"
     "  FILE  the file to send; - for standard input\n"
     "\n"
     "Example:\n"
     "  echo '<plist/>' | tzhelperctl write-plist \"$HOME/x.plist\" -\n",
     tz::protocol::kWriteDictionary.name, 0, 2, 2, run_call},
    {"write-piece", "URL TEXT", "append TEXT to URL's temporary .dummy file",
     "Appends TEXT to the temporary file URL.dummy; finish-piece then renames\n"
     "it onto URL. Replies TRUE when appended; FALSE when URL.dummy is not a\n"
     "regular file of the helper's user (a link is not followed) or would pass\n"
     "64 MiB.\n"
     "\n"
     "  URL   a file: URL, or an absolute path (turned into a file URL)\n"
     "  TEXT  the text to append\n"
     "\n"
     "Example:\n"
     "  tzhelperctl write-piece \"$HOME/x.txt\" 'first line'\n",
     tz::protocol::kWriteData.name, 0, 2, 2, run_call},
    {"finish-piece", "URL", "rename URL's .dummy file onto URL",
     "Removes URL and renames the temporary file URL.dummy onto it. Replies\n"
     "TRUE when renamed.\n"
     "\n"
     "  URL  a file: URL, or an absolute path (turned into a file URL)\n"
     "\n"
     "Example:\n"
     "  tzhelperctl finish-piece \"$HOME/x.txt\"\n",
     tz::protocol::kWriteDataRename.name, 0, 1, 1, run_call},
    {"walk", "--model M --user U -- SNMP-ARGS...", "walk the printer and rebuild U's profile plist",
     "Walks the printer's profile table with the SNMP arguments (as snmpwalk\n"
     "takes them: options, agent, root OID) and rebuilds U's profile plist for\n"
     "model M in the helper's preferences folder. Replies iRet=0 when the walk\n"
     "succeeded. Then prints, per category, the profiles the rebuild added,\n"
     "dropped and re-marked (InMenu old -> new). On a terminal, a progress\n"
     "line on stderr counts the variables walked.\n"
     "\n"
     "  --model M     the printer model\n"
     "  --user U      the user whose profile plist is rebuilt\n"
     "  SNMP-ARGS     after --: snmpwalk's arguments\n"
     "\n"
     "Example:\n"
     "  tzhelperctl walk --model T48Q --user \"$USER\" -- -v 1 -c public 192.0.2.10 \\\n"
     "      1.3.6.1.4.1.99991.1.1.1.1.6.13.1.1\n",
     tz::protocol::kMibWalk.name, kProfileOptions | kStopAtOperand, 0, kMany, run_walk},
    {"raw", "METHOD REQUEST", "send REQUEST to METHOD as it stands",
     "Sends REQUEST unchanged to one of the helper's eight methods.\n"
     "\n"
     "  METHOD   {methods}\n"
     "  REQUEST  the request string\n"
     "\n"
     "Example:\n"
     "  tzhelperctl raw tzPListExistProfile_XPC /etc/hostname\n",
     "", 0, 2, 2, run_call},
    {"show", "[--all] FILE | [--all] --user U --model M", "print a profile plist, one table per category",
     "Reads a profile plist and prints each category (RGB, SIM, DST) as a table:\n"
     "slot, InMenu, IndexOnDevice, class, location, file name, profile name.\n"
     "Reads the file itself; the helper is asked only for its preferences\n"
     "folder when the file is named by --user and --model.\n"
     "\n"
     "  FILE          the profile plist, read as a walk reads it: a regular file\n"
     "                of yours, not a link; - for standard input\n"
     "  --user U      with --model: U's profile plist in the helper's folder\n"
     "  --model M     the printer model\n"
     "  --all         print all 500 slots, free ones too\n"
     "\n"
     "Example:\n"
     "  tzhelperctl show --user \"$USER\" --model T48Q\n",
     "", kProfileOptions | kAllOption, 0, 1, run_show},
};

const Command* find_command(std::string_view name) {
    for (const Command& command : kCommands)
        if (command.name == name) return &command;
    return nullptr;
}

void print_help() {
    std::printf(
        "Usage: tzhelperctl [OPTIONS] COMMAND [COMMAND OPTIONS] ARGS...\n"
        "\n"
        "Asks the printer helper (%s on the session bus) and\n"
        "prints its reply: TRUE, FALSE or iRet=<n>.\n"
        "\n"
        "Commands:\n",
        std::string(tz::bus::kBusName).c_str());
    for (const Command& command : kCommands)
        std::printf("  %-13s %.*s\n", std::string(command.name).c_str(),
                    static_cast<int>(command.summary.size()), command.summary.data());
    std::fputs(
        "\n"
        "Options:\n"
        "  --address ADDRESS  use the bus at ADDRESS instead of the session bus\n"
        "  --timeout SECONDS  wait at most SECONDS for a reply (default 25, walk 600)\n"
        "  --json             print the outcome as JSON (also a command option)\n"
        "  --version          print the version and exit\n"
        "  --help             print this text and exit\n"
        "\n"
        "Exit status: 0 TRUE or iRet=0; 1 FALSE, another iRet or an error from the\n"
        "helper; 2 wrong usage; 3 the helper cannot be reached.\n"
        "\"tzhelperctl COMMAND --help\" describes a command.\n",
        stdout);
}

// The helper's methods as a list in words, two to a line, indented to stand
// under the first.
std::string method_list() {
    std::string list;
    const auto& methods = tz::protocol::kMethods;
    for (size_t i = 0; i < methods.size(); ++i) {
        if (i > 0) list += i + 1 == methods.size() ? " or " : i % 2 == 0 ? ",\n           " : ", ";
        list += methods[i].name;
    }
    return list;
}

void print_command_help(const Command& command) {
    std::printf("Usage: tzhelperctl [OPTIONS] %s [--json] %s\n\n%s\n",
                std::string(command.name).c_str(), std::string(command.synopsis).c_str(),
                std::string(command.summary).c_str());
    std::string details(command.details);
    constexpr std::string_view kMethodsField = "{methods}";
    if (const size_t at = details.find(kMethodsField); at != std::string::npos)
        details.replace(at, kMethodsField.size(), method_list());
    std::printf("\n%s", details.c_str());
    std::fputs(
        "\n"
        "  --json        print the outcome as JSON\n"
        "  --help        print this text and exit\n",
        stdout);
}

int usage_error(const std::string& message, std::string_view command = {}) {
    std::fprintf(stderr, "tzhelperctl: %s (see tzhelperctl %s%s--help)\n", message.c_str(),
                 std::string(command).c_str(), command.empty() ? "" : " ");
    return tz::ctl::kUsage;
}

// What getopt_long stopped at ('?' or ':'), as a message.
std::string option_problem(int c, char** argv) {
    const std::string_view arg = argv[optind - 1];
    const bool long_option = arg.substr(0, 2) == "--";
    const std::string name = long_option ? std::string(arg.substr(0, arg.find('=')))
                                         : std::string("-") + static_cast<char>(optopt);
    if (c == ':') return name + " needs a value";
    if (long_option && arg.find('=') != std::string_view::npos && optopt != 0)
        return name + " takes no value";
    return "unknown option " + name;
}

// Parses a command's options and operands (argv[0] is the command's name).
// Returns -1 to go on, else the exit status.
int parse_command(const Command& command, int argc, char** argv, Args& args) {
    std::vector<option> options = {{"json", no_argument, nullptr, 'j'},
                                   {"help", no_argument, nullptr, 'h'}};
    if (command.takes & kProfileOptions) {
        options.push_back({"model", required_argument, nullptr, 'm'});
        options.push_back({"user", required_argument, nullptr, 'u'});
    }
    if (command.takes & kAllOption) options.push_back({"all", no_argument, nullptr, 'a'});
    options.push_back({nullptr, 0, nullptr, 0});
    const char* short_options = (command.takes & kStopAtOperand) ? "+:h" : ":h";
    const std::string name(command.name);
    optind = 0;  // glibc starts afresh only at 0
    opterr = 0;
    for (int c; (c = getopt_long(argc, argv, short_options, options.data(), nullptr)) != -1;) {
        switch (c) {
            case 'h': args.help = true; break;
            case 'j': args.json = true; break;
            case 'a': args.all = true; break;
            case 'm': args.model = optarg; break;
            case 'u': args.user = optarg; break;
            default: return usage_error(option_problem(c, argv), name);
        }
    }
    if (args.help) {
        print_command_help(command);
        return tz::ctl::kYes;
    }
    args.operands.assign(argv + optind, argv + argc);
    const size_t count = args.operands.size();
    if (count < command.min_operands || count > command.max_operands)
        return usage_error(name + " takes " + std::string(command.synopsis), name);
    for (const auto* value : {&args.model, &args.user})
        if (value->has_value() && (*value)->empty())
            return usage_error(std::string(value == &args.model ? "--model" : "--user") +
                                   " needs a value",
                               name);
    return -1;
}

// ---- files --------------------------------------------------------------------

bool read_input(const std::string& file, std::string& content) {
    if (file == "-") {
        content.assign(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
        return !std::cin.bad();
    }
    std::ifstream in(file, std::ios::binary);
    if (!in) return false;
    content.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return !in.bad();
}

std::string not_a_profile_plist(const std::string& name) {
    return "cannot read " + name + " as a profile plist (a regular file of this user, not a link)";
}

struct Profiles {
    std::unique_ptr<ProfileTable[]> tables = std::make_unique<ProfileTable[]>(3);  // zeroed, 126 KB
};

// Reads the bytes of the profile plist `file` ("-": standard input) into
// `bytes`. A missing file leaves `bytes` empty when `missing_is_empty` (before
// a user's first walk). Returns an empty string, or what went wrong, naming
// the file `name`.
std::string read_profile_bytes(const std::string& file, std::optional<std::string>& bytes, bool missing_is_empty,
                               const std::string& name) {
    bytes.reset();
    if (file == "-") {
        std::string content;
        if (!read_input(file, content)) return "cannot read " + name;
        bytes = std::move(content);
        return {};
    }
    struct stat info {};
    if (::stat(file.c_str(), &info) != 0) {
        if (errno == ENOENT && missing_is_empty) return {};
        return "cannot read " + name + ": " + std::strerror(errno);
    }
    bytes = tz::read_regular_file(file.c_str(), tz::plist::kMaxFileBytes, tz::Opening::own);
    return bytes ? std::string() : not_a_profile_plist(name);
}

// The three tables `bytes` hold (none: empty tables).
std::string parse_profiles(std::optional<std::string> bytes, Profiles& profiles, const std::string& name) {
    if (!bytes) return {};
    const int32_t read = tz::store::read_all(tz::plist::parse(std::move(*bytes)), profiles.tables[0],
                                             profiles.tables[1], profiles.tables[2]);
    return read == 0 ? std::string() : not_a_profile_plist(name);
}

std::string profile_path(const std::string& folder, const std::string& user, const std::string& model) {
    return tz::protocol::profile_file_path(folder, user, model, tz::protocol::kCurrentProfileSuffix);
}

// ---- output -------------------------------------------------------------------

void print_json(const json& value) {
    // Texts that are not UTF-8 (a request or a field may hold any bytes) are
    // written with U+FFFD in place of the bad bytes instead of throwing.
    std::puts(value.dump(2, ' ', false, json::error_handler_t::replace).c_str());
}

std::string text_of(const char (&field)[TZ_PROFILE_TEXT]) {
    return {field, ::strnlen(field, TZ_PROFILE_TEXT)};  // a full field has no terminator
}

json changes_json(const std::vector<tz::ctl::ProfileChange>& changes, bool with_old, bool with_new) {
    json list = json::array();
    for (const auto& change : changes) {
        json item = {{"FileName", change.file_name},
                     {"Location", change.location},
                     {"ProfileName", change.profile_name}};
        if (with_old && with_new)
            item["InMenu"] = {{"old", change.old_in_menu}, {"new", change.new_in_menu}};
        else
            item["InMenu"] = with_new ? change.new_in_menu : change.old_in_menu;
        list.push_back(std::move(item));
    }
    return list;
}

json summary_json(const Summary& summary) {
    json result = json::object();
    for (size_t c = 0; c < summary.size(); ++c)
        result[tz::ctl::kCategoryNames[c]] = {
            {"added", changes_json(summary[c].added, false, true)},
            {"dropped", changes_json(summary[c].dropped, true, false)},
            {"remarked", changes_json(summary[c].remarked, true, true)}};
    return result;
}

void print_summary(const Summary& summary) {
    for (size_t c = 0; c < summary.size(); ++c) {
        const CategoryChanges& changes = summary[c];
        if (changes.empty()) {
            std::printf("%s: no change\n", tz::ctl::kCategoryNames[c]);
            continue;
        }
        std::printf("%s: %zu added, %zu dropped, %zu re-marked\n", tz::ctl::kCategoryNames[c],
                    changes.added.size(), changes.dropped.size(), changes.remarked.size());
        const auto line = [](const char* what, const tz::ctl::ProfileChange& change,
                             const std::string& in_menu) {
            std::printf("  %-9s  %-12s  location %-2d  %-20s  InMenu %s\n", what,
                        change.file_name.c_str(), change.location,
                        ("\"" + change.profile_name + "\"").c_str(), in_menu.c_str());
        };
        for (const auto& change : changes.added) line("added", change, std::to_string(change.new_in_menu));
        for (const auto& change : changes.dropped)
            line("dropped", change, std::to_string(change.old_in_menu));
        for (const auto& change : changes.remarked)
            line("re-marked", change,
                 std::to_string(change.old_in_menu) + " -> " + std::to_string(change.new_in_menu));
    }
}

struct Call {
    const Command& command;
    std::string_view method;
    const std::string& request;
    std::string subject;  // what the command is about, for the message
};

// Prints the outcome of a call (text or JSON) and its message; returns the
// exit status. `summary` and `summary_problem` only for a walk.
int report(const Global& global, const Call& call, const Outcome& outcome,
           const Summary* summary = nullptr, const std::string& summary_problem = {}) {
    const Verdict verdict = outcome.ok()
                                ? tz::ctl::judge_reply(call.command.name, call.subject, outcome.reply)
                                : tz::ctl::judge_error(*outcome.error);
    if (global.json) {
        json out = {{"operation", call.command.name},
                    {"method", call.method},
                    {"request", call.request},
                    {"reply", outcome.ok() ? json(outcome.reply) : json(nullptr)},
                    {"ok", verdict.status == tz::ctl::kYes}};
        if (!outcome.ok()) out["error"] = {{"name", outcome.error->name}, {"message", outcome.error->message}};
        if (call.command.method == tz::protocol::kMibWalk.name && outcome.ok()) {
            out["summary"] = summary != nullptr ? summary_json(*summary) : json(nullptr);
            if (summary == nullptr) out["summary_error"] = summary_problem;
        }
        print_json(out);
    } else if (outcome.ok()) {
        std::printf("%s\n", outcome.reply.c_str());
        if (summary != nullptr) print_summary(*summary);
    }
    if (outcome.ok() && summary == nullptr && !summary_problem.empty())
        std::fprintf(stderr, "tzhelperctl: no walk summary: %s\n", summary_problem.c_str());
    if (verdict.status != tz::ctl::kYes) std::fprintf(stderr, "tzhelperctl: %s\n", verdict.text.c_str());
    return verdict.status;
}

// A connection to the helper's bus, or null after reporting why not (as
// JSON too when `json_failure`).
std::unique_ptr<HelperClient> connect(const Global& global, const Call& call, bool json_failure = true) {
    BusError error;
    auto client = HelperClient::connect(global.address, &error);
    if (!client) {
        const char* session = std::getenv("DBUS_SESSION_BUS_ADDRESS");
        const Verdict verdict =
            tz::ctl::judge_connect_failure(global.address, session != nullptr && *session != '\0', error);
        if (global.json && json_failure)
            print_json({{"operation", call.command.name},
                        {"method", call.method},
                        {"request", call.request},
                        {"reply", nullptr},
                        {"ok", false},
                        {"error", {{"name", error.name}, {"message", error.message}}}});
        std::fprintf(stderr, "tzhelperctl: %s\n", verdict.text.c_str());
        return nullptr;
    }
    if (global.timeout) {
        client->set_timeout(*global.timeout);
        client->set_walk_timeout(*global.timeout);
    }
    return client;
}

// ---- runners --------------------------------------------------------------------

std::string as_url(const std::string& text) {
    return !text.empty() && text.front() == '/' ? tz::client::file_url(text) : text;
}

int run_call(const Global& global, const Command& command, const Args& args) {
    const std::vector<std::string>& op = args.operands;
    std::string_view method = command.method;
    std::string request;
    std::string subject = op[0];
    if (command.name == "swap") {
        char* end = nullptr;
        errno = 0;
        const long type = std::strtol(op[0].c_str(), &end, 10);
        if (op[0].empty() || *end != '\0' || errno != 0 || type < INT32_MIN || type > INT32_MAX)
            return usage_error("swap's TYPE is a number (0, 1 or 2)", command.name);
        const auto path = [](const std::string& text) { return text == "NULL" ? std::string() : text; };
        request = tz::client::swap_request(static_cast<int32_t>(type), path(op[1]), path(op[2]));
        subject = op[1];
    } else if (command.name == "write-plist") {
        std::string content;
        if (!read_input(op[1], content)) {
            std::fprintf(stderr, "tzhelperctl: cannot read %s: %s\n", op[1].c_str(), std::strerror(errno));
            return tz::ctl::kNo;
        }
        request = tz::client::write_request(as_url(op[0]), content);
    } else if (command.name == "write-piece") {
        request = tz::client::write_request(as_url(op[0]), op[1]);
    } else if (command.name == "finish-piece") {
        request = as_url(op[0]);
    } else if (command.name == "raw") {
        if (tz::protocol::find_method(op[0]) == nullptr)
            return usage_error("raw takes one of the helper's eight methods, not " + op[0], "raw");
        method = op[0];
        request = op[1];
        subject = op[1];
    } else {
        request = op[0];
    }
    const Call call{command, method, request, subject};
    auto client = connect(global, call);
    if (!client) return tz::ctl::kUnreachable;
    return report(global, call, client->call(method, request));
}

int run_walk(const Global& global, const Command& command, const Args& args) {
    if (!args.model || !args.user) return usage_error("walk needs --model and --user", command.name);
    std::vector<std::string> arguments{"snmpwalk"};  // the program-name slot
    arguments.insert(arguments.end(), args.operands.begin(), args.operands.end());
    const std::string request = tz::client::walk_request(*args.model, *args.user, arguments);
    const Call call{command, command.method, request, *args.user};
    auto client = connect(global, call);
    if (!client) return tz::ctl::kUnreachable;

    // The profile plist the walk rewrites, read before and after it.
    std::string problem, path;
    const Outcome folder = client->preferences_directory();
    if (!folder.ok()) {
        const Verdict verdict = tz::ctl::judge_error(*folder.error);
        if (verdict.status == tz::ctl::kUnreachable) return report(global, call, folder);
        problem = "the helper's preferences folder is unknown: " + verdict.text;
    } else {
        path = profile_path(folder.reply, *args.user, *args.model);
    }
    std::optional<std::string> before, after;  // the file's bytes
    if (problem.empty()) problem = read_profile_bytes(path, before, true, path);

    Outcome outcome;
    if (::isatty(STDERR_FILENO)) {
        bool shown = false;
        outcome = client->mib_walk(request, [&shown](uint32_t variables) {
            std::fprintf(stderr, "\rwalking: %u variables\033[K", variables);
            std::fflush(stderr);
            shown = true;
        });
        if (shown) std::fputs("\r\033[K", stderr);
    } else {
        outcome = client->mib_walk(request);
    }

    if (problem.empty()) problem = read_profile_bytes(path, after, false, path);
    // A walk that leaves the file's bytes as they were changed nothing: neither copy is parsed.
    Summary summary;
    if (problem.empty() && before != after) {
        Profiles old_tables, new_tables;
        problem = parse_profiles(std::move(before), old_tables, path);
        if (problem.empty()) problem = parse_profiles(std::move(after), new_tables, path);
        for (size_t c = 0; c < summary.size(); ++c)
            summary[c] = tz::ctl::compare_profiles(old_tables.tables[c], new_tables.tables[c]);
    }
    if (!problem.empty()) return report(global, call, outcome, nullptr, problem);
    return report(global, call, outcome, &summary);
}

void print_table(const char* category, const ProfileTable& table, bool all) {
    std::printf("%s (iNum %d)\n", category, table.iNum);
    std::printf("  %4s %6s %13s %5s %8s  %-31s  %s\n", "slot", "InMenu", "IndexOnDevice", "class",
                "location", "file name", "profile name");
    int shown = 0;
    for (int slot = 0; slot < TZ_PROFILE_SLOTS; ++slot) {
        const ProfileEntry& e = table.Entry[slot];
        if (!all && e.InMenu == 0) continue;
        std::printf("  %4d %6d %13d %5d %8d  %-31s  %s\n", slot, e.InMenu, e.IndexOnDevice,
                    e.ProfileClass, e.Location, text_of(e.FileName).c_str(), text_of(e.ProfileName).c_str());
        ++shown;
    }
    if (shown == 0) std::printf("  (no profile)\n");
}

json table_json(const ProfileTable& table, bool all) {
    json entries = json::array();
    for (int slot = 0; slot < TZ_PROFILE_SLOTS; ++slot) {
        const ProfileEntry& e = table.Entry[slot];
        if (!all && e.InMenu == 0) continue;
        entries.push_back({{"slot", slot},
                           {"IndexOnDevice", e.IndexOnDevice},
                           {"InMenu", e.InMenu},
                           {"ProfileClass", e.ProfileClass},
                           {"FileName", text_of(e.FileName)},
                           {"ProfileName", text_of(e.ProfileName)},
                           {"Location", e.Location}});
    }
    return {{"iNum", table.iNum}, {"entries", std::move(entries)}};
}

int run_show(const Global& global, const Command& command, const Args& args) {
    const bool by_user = args.user.has_value() || args.model.has_value();
    if (by_user && (!args.user || !args.model || !args.operands.empty()))
        return usage_error("show takes FILE, or --user and --model", command.name);
    if (!by_user && args.operands.empty()) return usage_error("show needs a FILE", command.name);

    std::string path;
    if (by_user) {
        const std::string none;
        const Call call{command, tz::bus::kPreferencesDirectoryProperty, none, none};
        // Like any failure of show, one reaching the helper is reported as text only.
        auto client = connect(global, call, false);
        if (!client) return tz::ctl::kUnreachable;
        const Outcome folder = client->preferences_directory();
        if (!folder.ok()) {
            const Verdict verdict = tz::ctl::judge_error(*folder.error);
            std::fprintf(stderr, "tzhelperctl: %s\n", verdict.text.c_str());
            return verdict.status;
        }
        path = profile_path(folder.reply, *args.user, *args.model);
    } else {
        path = args.operands[0];
    }

    std::optional<std::string> bytes;
    Profiles profiles;
    const std::string name = path == "-" ? "standard input" : path;
    std::string problem = read_profile_bytes(path, bytes, false, name);
    if (problem.empty()) problem = parse_profiles(std::move(bytes), profiles, name);
    if (!problem.empty()) {
        std::fprintf(stderr, "tzhelperctl: %s\n", problem.c_str());
        return tz::ctl::kNo;
    }
    if (global.json) {
        json categories = json::object();
        for (size_t c = 0; c < 3; ++c)
            categories[tz::ctl::kCategoryNames[c]] = table_json(profiles.tables[c], args.all);
        print_json({{"file", path}, {"categories", std::move(categories)}});
    } else {
        for (size_t c = 0; c < 3; ++c) print_table(tz::ctl::kCategoryNames[c], profiles.tables[c], args.all);
    }
    return tz::ctl::kYes;
}

int run(int argc, char** argv) {
    static const option kGlobalOptions[] = {{"address", required_argument, nullptr, 'A'},
                                            {"timeout", required_argument, nullptr, 't'},
                                            {"json", no_argument, nullptr, 'j'},
                                            {"version", no_argument, nullptr, 'V'},
                                            {"help", no_argument, nullptr, 'h'},
                                            {nullptr, 0, nullptr, 0}};
    Global global;
    opterr = 0;
    for (int c; (c = getopt_long(argc, argv, "+:h", kGlobalOptions, nullptr)) != -1;) {
        switch (c) {
            case 'A': global.address = optarg; break;
            case 'j': global.json = true; break;
            case 'V': std::printf("tzhelperctl %s\n", TZ_VERSION); return tz::ctl::kYes;
            case 'h': print_help(); return tz::ctl::kYes;
            case 't': {
                char* end = nullptr;
                const double seconds = std::strtod(optarg, &end);
                // At most a day: sd-bus takes the timeout in microseconds.
                if (end == optarg || *end != '\0' || !(seconds > 0) || seconds > 86400)
                    return usage_error("--timeout takes a number of seconds above 0, at most 86400");
                global.timeout = std::chrono::microseconds(static_cast<int64_t>(std::ceil(seconds * 1e6)));
                break;
            }
            default: return usage_error(option_problem(c, argv));
        }
    }
    if (optind >= argc) return usage_error("no command");
    const Command* command = find_command(argv[optind]);
    if (command == nullptr) return usage_error(std::string("unknown command ") + argv[optind]);

    Args args;
    if (const int status = parse_command(*command, argc - optind, argv + optind, args); status >= 0)
        return status;
    global.json = global.json || args.json;
    return command->run(global, *command, args);
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return run(argc, argv);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "tzhelperctl: %s\n", e.what());
        return tz::ctl::kNo;
    }
}
