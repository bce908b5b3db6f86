// The walk: a GETNEXT loop over one subtree of the printer's MIB, shaped like
// the SNMP command-line walker so that a request carries the same arguments
// a user would type. Every way out goes through one place that rebuilds the
// profile plist, so the rebuild runs exactly once per walk whatever happened.
// The loop asks GetNextPipeline (walk_pipeline.h) for each answer: it keeps
// guessed requests in flight and hands the loop only the answers the
// one-request-at-a-time walk would get, so the loop itself is unchanged.
//
// Process-wide state, all of it (one walk at a time per process):
//  - the spool (PlistForSpool), numprinted and sDEBUGmsg, as the header says;
//  - flag_noted (an unknown -C letter seen by the parse in progress);
//  - the pipeline that may take the library's callbacks (walk_pipeline.cc);
//  - the hooks (debug, progress, stop), the window and the walk's limits;
//  - file descriptor 2, pointed at a temporary file while the argument
//    parser and the library's start-up run (StderrToDebug);
//  - net-snmp's default store (the -C booleans persist in it), getopt's
//    globals (reset before every parse) and the library's one-time start-up.
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>

#include "tz_discovery.h"
#include "walk_pipeline.h"

extern "C" {
int32_t numprinted = 0;
char sDEBUGmsg[128];

}

namespace {
// The default cap of GETNEXT requests in flight; tz_discovery.h says why.
constexpr int32_t kDefaultWalkWindow = 128;
std::atomic<TZWalkDebugHook> debug_hook{nullptr};
std::atomic<TZWalkProgressHook> progress_hook{nullptr};
std::atomic<int32_t> walk_window{kDefaultWalkWindow};
std::atomic<TZWalkStopHook> stop_hook{nullptr};
std::atomic<int32_t> limit_seconds{TZ_WALK_DEFAULT_SECONDS};
std::atomic<int32_t> limit_variables{TZ_WALK_DEFAULT_VARIABLES};
}  // namespace

extern "C" {
void MyDebugMessage(const char* text, int32_t number) {
    if (const TZWalkDebugHook hook = debug_hook.load(std::memory_order_acquire)) hook(text, number);
}
void TZSetWalkDebugHook(TZWalkDebugHook hook) { debug_hook.store(hook, std::memory_order_release); }
void TZSetWalkProgressHook(TZWalkProgressHook hook) {
    progress_hook.store(hook, std::memory_order_release);
}
void TZSetWalkWindow(int32_t window) {
    walk_window.store(window == 0 ? 1 : window, std::memory_order_relaxed);
}
int32_t TZGetWalkWindow(void) { return walk_window.load(std::memory_order_relaxed); }
void TZSetWalkStopHook(TZWalkStopHook hook) { stop_hook.store(hook, std::memory_order_release); }
void TZSetWalkLimits(int32_t seconds, int32_t variables) {
    limit_seconds.store(seconds < 1 ? 1 : seconds, std::memory_order_relaxed);
    limit_variables.store(variables < 1 ? 1 : variables, std::memory_order_relaxed);
}
}

namespace {

// The walker's application booleans in the default store.
constexpr int kStore = NETSNMP_DS_APPLICATION_ID;
constexpr int kIncludeRequested = 1;
constexpr int kPrintStatistics = 2;
constexpr int kDontCheckOrdering = 3;

const oid objid_mib[] = {1, 3, 6, 1, 2, 1};

using tz::discovery::GetNextPipeline;
using tz::discovery::Pdu;
using tz::discovery::request_for;
using tz::discovery::Session;

// Hands every line of `text` to the debug hook.
void forward_lines(std::string_view text) {
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        const std::string line(text.substr(0, end));
        MyDebugMessage(line.c_str(), 0);
        if (end == std::string_view::npos) break;
        text.remove_prefix(end + 1);
    }
}

// Routes what the library prints to stderr to the debug hook while it lives.
// The redirection is process-wide: a line another thread writes to stderr in
// that window goes to the hook too, so keep the scope to one library call.
// The text goes to an unnamed temporary file, not a pipe, so a long output
// (the parser's configuration help runs to many kilobytes) cannot block.
// When the redirection cannot be set up, nothing is redirected.
class StderrToDebug {
public:
    StderrToDebug() {
        std::fflush(stderr);
        file_ = std::tmpfile();
        if (file_ == nullptr) return;
        capture_ = ::fileno(file_);
        (void)::fcntl(capture_, F_SETFD, FD_CLOEXEC);  // a child started meanwhile must not keep it
        saved_ = ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0);
        if (saved_ < 0 || ::dup2(capture_, STDERR_FILENO) < 0) {
            close_all();
            return;
        }
    }
    ~StderrToDebug() {
        if (saved_ < 0) {
            close_all();
            return;
        }
        std::fflush(stderr);
        ::dup2(saved_, STDERR_FILENO);
        std::string text;
        char buffer[4096];
        ::lseek(capture_, 0, SEEK_SET);
        for (ssize_t got; (got = ::read(capture_, buffer, sizeof buffer)) > 0;)
            text.append(buffer, static_cast<std::size_t>(got));
        close_all();
        forward_lines(text);
    }
    StderrToDebug(const StderrToDebug&) = delete;
    StderrToDebug& operator=(const StderrToDebug&) = delete;

private:
    void close_all() {
        if (saved_ >= 0) ::close(saved_);
        if (file_ != nullptr) std::fclose(file_);  // closes capture_
        file_ = nullptr;
        saved_ = capture_ = -1;
    }
    std::FILE* file_ = nullptr;
    int capture_ = -1;
    int saved_ = -1;
};

// Once per process: the three booleans are registered as "snmpwalk"
// configuration tokens before the library reads its configuration, then the
// library starts. Registering again at every walk would only lengthen the
// library's token list: configuration files are read at start-up alone.
//
// MIB files are not loaded (MIBS is set to empty unless whoever started the
// service set it): the walk names every object by number, and loading the
// installed MIBs only slows start-up and makes print_variable use names.
void start_library_once() {
    static std::once_flag once;
    std::call_once(once, [] {
        netsnmp_ds_register_config(ASN_BOOLEAN, "snmpwalk", "includeRequested", kStore,
                                   kIncludeRequested);
        netsnmp_ds_register_config(ASN_BOOLEAN, "snmpwalk", "printStatistics", kStore,
                                   kPrintStatistics);
        netsnmp_ds_register_config(ASN_BOOLEAN, "snmpwalk", "dontCheckOrdering", kStore,
                                   kDontCheckOrdering);
        ::setenv("MIBS", "", 0);
        SOCK_STARTUP;
        const StderrToDebug quiet;  // "Created directory: ..." on a first run
        init_snmp("snmpwalk");
    });
}

// Sends `pdu` and returns the status; the response, if any, lands in
// `response`. The library frees the request whether or not it was sent.
int exchange(netsnmp_session* session, Pdu pdu, Pdu& response) {
    response.reset();
    if (!pdu) return STAT_ERROR;  // no memory for the request
    netsnmp_pdu* raw = nullptr;
    const int status = snmp_synch_response(session, pdu.release(), &raw);
    response.reset(raw);
    return status;
}

// Set by optProc when it noted an unknown -C letter during the parse.
bool flag_noted = false;

// Hands the diagnostic just formatted into sDEBUGmsg to the debug hook.
void note_diagnostic() {
    const std::string text(sDEBUGmsg, strnlen(sDEBUGmsg, sizeof sDEBUGmsg));
    MyDebugMessage(text.c_str(), 0);
}

// "OID not increasing" names the two OIDs by the raw bytes of their
// sub-identifier arrays: as many bytes as the OID has sub-identifiers, printed
// up to the first zero byte (on a little-endian machine an OID starting with
// 1 shows as the single byte 0x01). Diagnostics tools that read sDEBUGmsg
// expect exactly this form.
void note_not_increasing(const oid* previous, std::size_t previous_length, const oid* next,
                         std::size_t next_length) {
    char first[255] = {};
    char second[255] = {};
    std::memcpy(first, previous, std::min(previous_length, sizeof first - 1));
    std::memcpy(second, next, std::min(next_length, sizeof second - 1));
    const int written = std::snprintf(sDEBUGmsg, sizeof sDEBUGmsg,
                                      "[SNMP] Error: OID not increasing: %s >= %s", first, second);
    (void)written;  // cut at 128 bytes
    note_diagnostic();
}

// getopt keeps a pointer into the previous walk's arguments (the rest of the
// option cluster it was in), and the parser starts it with optind = 1, which
// does not clear that pointer: after a parse that stopped early (-V, -H) the
// next walk would read freed memory as its first option. glibc drops the
// pointer only when getopt itself runs with optind = 0, so run it once on an
// empty vector before every parse; the BSD getopt (macOS) starts afresh when
// optreset is set.
void forget_previous_parse() {
#if defined(__GLIBC__)
    static char program[] = "snmpwalk";
    char* const empty[] = {program, nullptr};
    optind = 0;
    (void)getopt(1, empty, "");
#else
    optreset = 1;
    optind = 1;
#endif
}

// For SNMPv1 and v2c the parser hands the session record a community of its
// own (snmp_open takes a copy); free it when the walk ends, or every walk
// would leak it.
class ParsedCommunity {
public:
    explicit ParsedCommunity(netsnmp_session& session) : session_(session) {}
    ~ParsedCommunity() {
        if (session_.version == SNMP_VERSION_1 || session_.version == SNMP_VERSION_2c) {
            std::free(session_.community);
            session_.community = nullptr;
        }
    }
    ParsedCommunity(const ParsedCommunity&) = delete;
    ParsedCommunity& operator=(const ParsedCommunity&) = delete;

private:
    netsnmp_session& session_;
};

// When a walk must stop: its stop hook says so or its deadline has passed.
// Once true, stays true.
class StopCheck {
public:
    StopCheck()
        : deadline_(std::chrono::steady_clock::now() +
                    std::chrono::seconds(limit_seconds.load(std::memory_order_relaxed))) {}
    bool operator()() {
        if (!stopped_) {
            const TZWalkStopHook hook = stop_hook.load(std::memory_order_acquire);
            stopped_ = (hook != nullptr && hook()) || std::chrono::steady_clock::now() >= deadline_;
        }
        return stopped_;
    }

private:
    std::chrono::steady_clock::time_point deadline_;
    bool stopped_ = false;
};

// Prints every variable of an error-free answer to a GET, adding each to
// numprinted; prints nothing for anything else (no response: a failed GET).
void print_answer(const Pdu& response) {
    if (response == nullptr || response->errstat != SNMP_ERR_NOERROR) return;
    for (netsnmp_variable_list* var = response->variables; var != nullptr;
         var = var->next_variable) {
        ++numprinted;
        print_variable(var->name, var->name_length, var);
    }
}

// GETs `name` through `pipeline` (so a stop ends the wait) and prints the answer.
void get_and_print(GetNextPipeline& pipeline, const oid* name, std::size_t name_length) {
    Pdu response;
    pipeline.get(name, name_length, response);
    print_answer(response);
}

// The GETNEXT loop from `root`, its requests going through `pipeline`, until
// the walk ends or `stop` or the variable limit stops it (as a timeout).
// Returns the walk's result and leaves the last request's status in `status`.
int32_t walk_subtree(GetNextPipeline& pipeline, StopCheck& stop, netsnmp_session* ss,
                     const oid* root, std::size_t rootlen, bool check, int& status) {
    oid name[MAX_OID_LEN];
    std::memcpy(name, root, rootlen * sizeof(oid));
    std::size_t name_length = rootlen;
    bool running = true;
    int32_t exitval = 0;
    int32_t accepted = 0;  // by this walk, for the progress hook and the limit
    const int32_t limit = limit_variables.load(std::memory_order_relaxed);
    while (running) {
        Pdu response;
        status = accepted >= limit || stop() ? STAT_TIMEOUT : pipeline.exchange(name, name_length, response);
        if (status == STAT_TIMEOUT) {
            exitval = 1;
            running = false;
        } else if (status != STAT_SUCCESS) {
            snmp_sess_perror("snmpwalk", ss);
            exitval = 1;
            running = false;
        } else if (response == nullptr) {
            // A success always carries a response; nothing to look at if not.
        } else if (response->errstat == SNMP_ERR_NOSUCHNAME) {
            running = false;  // the version-1 end of the MIB
        } else if (response->errstat != SNMP_ERR_NOERROR) {
            exitval = 2;
            running = false;
        } else {
            for (netsnmp_variable_list* var = response->variables; var != nullptr;
                 var = var->next_variable) {
                if (var->name_length < rootlen ||
                    std::memcmp(root, var->name, rootlen * sizeof(oid)) != 0) {
                    running = false;  // left the subtree
                    continue;
                }
                ++numprinted;
                ++accepted;
                if (const TZWalkProgressHook hook = progress_hook.load(std::memory_order_acquire))
                    hook(accepted);
                vSpoolPlist(var->name, 0, var, 0);
                if (static_cast<int8_t>(var->type) < -125) {
                    running = false;  // noSuchObject, noSuchInstance, endOfMibView
                } else {
                    if (check && snmp_oid_compare(name, name_length, var->name,
                                                  var->name_length) >= 0) {
                        note_not_increasing(name, name_length, var->name, var->name_length);
                        running = false;
                        exitval = 1;
                    }
                    if (var->name_length > MAX_OID_LEN) std::abort();
                    std::memcpy(name, var->name, var->name_length * sizeof(oid));
                    name_length = var->name_length;
                }
            }
        }
    }
    return exitval;
}

struct Outcome {
    int32_t result;          // what mib_walk returns
    int32_t rebuild_status;  // what the rebuild is told
};

Outcome walk(int32_t argc, char** argv) {
    StopCheck stop;  // the deadline counts from here
    netsnmp_session session;
    int arg = 0;
    {
        forget_previous_parse();
        const StderrToDebug quiet;
        arg = snmp_parse_args(argc, argv, &session, "C:", optProc);
    }
    if (std::exchange(flag_noted, false)) note_diagnostic();
    // The parser of net-snmp 5.9 reports a pass phrase that makes no key as
    // NETSNMP_PARSE_ARGS_ERROR (-3); the walk's results are 0, 1, 2, -1 and
    // -2, and that case has always been -2.
    if (arg == NETSNMP_PARSE_ARGS_ERROR) return {NETSNMP_PARSE_ARGS_SUCCESS_EXIT, 1};
    if (arg < 0) return {arg, 1};
    const ParsedCommunity community(session);

    oid root[MAX_OID_LEN];
    std::size_t rootlen = 0;
    if (arg < argc) {
        rootlen = MAX_OID_LEN;
        if (snmp_parse_oid(argv[arg], root, &rootlen) == nullptr) {
            snmp_perror(argv[arg]);
            return {1, 1};
        }
    } else {
        std::memcpy(root, objid_mib, sizeof objid_mib);
        rootlen = sizeof objid_mib / sizeof objid_mib[0];
    }

    Session ss(snmp_open(&session));
    if (!ss) {
        MyDebugMessage("[UTIL-MIB] SNMP Open Err\n", 0);
        snmp_sess_perror("snmpwalk", &session);
        return {1, 1};
    }

    const bool check = !netsnmp_ds_get_boolean(kStore, kDontCheckOrdering);
    int status = STAT_SUCCESS;
    int32_t exitval = 0;
    {
        GetNextPipeline pipeline(session, ss.get(), TZGetWalkWindow(), std::ref(stop));
        if (netsnmp_ds_get_boolean(kStore, kIncludeRequested))
            get_and_print(pipeline, root, rootlen);
        exitval = walk_subtree(pipeline, stop, ss.get(), root, rootlen, check, status);
        pipeline.end_guessing();  // the guesses die before the fallback GET
        // Only while no walk of this process has accepted anything yet.
        if (numprinted == 0 && status == STAT_SUCCESS) get_and_print(pipeline, root, rootlen);
    }
    ss.reset();

    if (netsnmp_ds_get_boolean(kStore, kPrintStatistics))
        MyDebugMessage("[UTIL-MIB] Variables found: ", numprinted);
    return {exitval, exitval};
}

}  // namespace

extern "C" void optProc(int /*argc*/, char* const* /*argv*/, int opt) {
    if (opt != 'C' || optarg == nullptr) return;
    while (*optarg != '\0') {
        const char letter = *optarg++;
        switch (letter) {
            case 'c': netsnmp_ds_toggle_boolean(kStore, kDontCheckOrdering); break;
            case 'p': netsnmp_ds_toggle_boolean(kStore, kPrintStatistics); break;
            case 'i': netsnmp_ds_toggle_boolean(kStore, kIncludeRequested); break;
            default: {
                std::memset(sDEBUGmsg, 0, sizeof sDEBUGmsg);
                const int written = std::snprintf(sDEBUGmsg, sizeof sDEBUGmsg,
                                                  "Unknown flag passed to -C: %c\n", letter);
                (void)written;
                flag_noted = true;  // handed on after the parse: stderr is captured now
                break;
            }
        }
    }
}

extern "C" void snmp_get_and_print(struct snmp_session* session, const unsigned long* name,
                                   size_t name_length) {
    Pdu response;
    exchange(session, request_for(SNMP_MSG_GET, name, name_length), response);
    print_answer(response);
}

extern "C" int32_t mib_walk(int32_t argc, char** argv) {
    start_library_once();
    vSpoolPlist(nullptr, 0, nullptr, 1);  // clears the spool
    const Outcome outcome = walk(argc, argv);
    (void)vRestructPlistSpool2Current(outcome.rebuild_status);
    return outcome.result;
}
