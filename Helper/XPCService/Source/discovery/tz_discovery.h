/*
 * Device profile discovery: the SNMP walk over the printer's profile table,
 * the spool that collects the table's rows, and the rebuild of the user's
 * profile plist from the spool. Plain C, includable from C, C++ and
 * Objective-C; no net-snmp header is needed to include it.
 *
 * Conventions
 *  - Results: mib_walk returns 0 (walk complete), 1 (failure: bad root, no
 *    session, timeout, transport error, an SNMPv3 report such as an unknown
 *    user, OID not increasing; or stopped: the stop hook, the deadline or the
 *    variable limit), 2 (the agent
 *    answered with an error status), -1 (the argument parser refused the
 *    arguments) or -2 (the parser stopped after its help or version output,
 *    or could make no key from a pass phrase). Nothing here throws or calls
 *    exit().
 *  - Diagnostics: the walk formats its last one into sDEBUGmsg and hands the
 *    argument parser's complaints and its statistics to MyDebugMessage, which
 *    drops them unless a front has set a debug hook. Only net-snmp's own printers (print_variable, snmp_perror,
 *    snmp_sess_perror) write to the standard streams.
 *  - Process-wide state, no locks: PlistForSpool, numprinted, sDEBUGmsg, the
 *    hooks, window and limits set below, the net-snmp default store and
 *    getopt's globals (walk.cc lists the rest). One walk at a time per
 *    process: the service's walk request (tz::Service::mibwalk_XPC) takes
 *    turns, so every front keeps to it.
 *  - The rebuild reads and writes the files named by the profile store's path
 *    globals (TZ_PLIST_PROFILE_PATH, ...).
 *    REQUIRES: they point at valid paths for the duration of the walk.
 *  - The walk stays one GETNEXT per variable (SNMPv1 agents know nothing
 *    else) but does not wait for each answer before asking the next: while
 *    the request for the next name is in flight it also asks for the names
 *    it expects next (names answers showed, the table's rows in later
 *    columns and in the next two, runs in the first column: walk_pipeline.h),
 *    and uses an answer only for the name the one-at-a-time walk would have
 *    asked for at that step. What it spools, counts, prints, reports and
 *    writes is what the one-at-a-time walk gives; a guess that is lost or
 *    late is not used, and only the requests for the walk's own next name
 *    time out or fail the walk, with the session's timeout and retries.
 *    It guesses only where the measured round trip is at least four times
 *    the walk's busy time per answer (not on a fast local link), then keeps
 *    up to round trip / busy time requests in flight; guesses along runs
 *    adapt like TCP's window (16 at first, more while they hit, fewer on
 *    misses, 2 on loss); all of it up to a cap: TZSetWalkWindow. The
 *    default cap, 128, is the smallest power of two that walks a 12-profile
 *    table (seven columns, 84 variables) over a 20 ms round trip in three
 *    round trips, 1.5 times snmpbulkwalk -Cr50's two (64 needs four, 2.0
 *    times); the 500-profile table takes 0.75 s against 1.49 s (window 1:
 *    74 s). A larger cap only helps slower links and sends a bigger burst to
 *    an agent that may be a small printer. See walk_pipeline.h.
 */
#ifndef TZ_DISCOVERY_H
#define TZ_DISCOVERY_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#include "tz_profile_store.h"

#ifdef __cplusplus
extern "C" {
#endif

/* One row of the device's profile table, laid out like a ProfileEntry so
 * that an accepted row is copied into a profile table whole. */
typedef struct SpoolRecord {
    int32_t IndexOnDevice;                 /* column 1; row counted by it */
    int32_t InMenu;                        /* never written by the spool */
    int32_t ProfileClass;                  /* column 5 */
    char FileName[TZ_PROFILE_TEXT];        /* column 4, possibly unterminated */
    char ProfileName[TZ_PROFILE_TEXT];     /* column 3, possibly unterminated */
    int32_t SourceType;                    /* column 2; becomes Location */
    int32_t DriverAvail;                   /* column 7 (availability) */
} SpoolRecord;

/* The spool: rows 0..499 for the device's rows 1..500, and the number of
 * IndexOnDevice cells stored since the last clear (not the highest row). */
typedef struct SpoolTable {
    SpoolRecord Entry[TZ_PROFILE_SLOTS];
    int32_t iNum;
} SpoolTable;

#ifdef __cplusplus
static_assert(sizeof(SpoolRecord) == sizeof(ProfileEntry), "a row is an entry");
static_assert(offsetof(SpoolRecord, IndexOnDevice) == offsetof(ProfileEntry, IndexOnDevice), "layout");
static_assert(offsetof(SpoolRecord, InMenu) == offsetof(ProfileEntry, InMenu), "layout");
static_assert(offsetof(SpoolRecord, ProfileClass) == offsetof(ProfileEntry, ProfileClass), "layout");
static_assert(offsetof(SpoolRecord, FileName) == offsetof(ProfileEntry, FileName), "layout");
static_assert(offsetof(SpoolRecord, ProfileName) == offsetof(ProfileEntry, ProfileName), "layout");
static_assert(offsetof(SpoolRecord, SourceType) == offsetof(ProfileEntry, Location), "layout");
static_assert(offsetof(SpoolRecord, DriverAvail) == offsetof(ProfileEntry, DriverAvail), "layout");
static_assert(sizeof(SpoolTable) == sizeof(ProfileTable), "the spool is a table");
#else
_Static_assert(sizeof(SpoolRecord) == sizeof(ProfileEntry), "a row is an entry");
_Static_assert(offsetof(SpoolRecord, SourceType) == offsetof(ProfileEntry, Location), "layout");
#endif

/* ---- Process-wide data ------------------------------------------------- */

/* Cleared at the start of every walk, filled while it runs, read by the
 * rebuild at its end and then left as it is until the next walk. */
extern SpoolTable PlistForSpool;

/* Variables accepted by all walks since the process started (walked ones and
 * those printed by snmp_get_and_print). Never reset. */
extern int32_t numprinted;

/* The walk's last diagnostic, formatted with a bound of 128 bytes. */
extern char sDEBUGmsg[128];

/* The debug hook: hands its arguments to the TZWalkDebugHook if one is set,
 * else does nothing. `text` may be null. */
void MyDebugMessage(const char *text, int32_t number);

/* ---- Observers of the walk (set by a front; null: none) ----------------- */

/* Receives what MyDebugMessage receives (the argument parser's complaints,
 * the statistics of -C p) and every diagnostic the walk formats into
 * sDEBUGmsg, with number 0, as it is written. Called on the walking thread. */
typedef void (*TZWalkDebugHook)(const char *text, int32_t number);
void TZSetWalkDebugHook(TZWalkDebugHook hook);

/* Receives the number of variables the running walk has accepted so far,
 * after each one. Called on the walking thread; must be quick. */
typedef void (*TZWalkProgressHook)(int32_t variables);
void TZSetWalkProgressHook(TZWalkProgressHook hook);

/* Asked by the running walk between its waits, which last at most 200 ms
 * each: true stops the walk as a timeout does (result 1, the rebuild told
 * 1). A front sets it to stop a walk whose caller has left or when the
 * service is asked to stop. Called on the walking thread; must be quick and
 * must not start a walk. Null: never stop. */
typedef bool (*TZWalkStopHook)(void);
void TZSetWalkStopHook(TZWalkStopHook hook);

/* The bounds of one walk: past `seconds` since it started, or once it has
 * accepted `variables` variables, it stops as a timeout does. Values below 1
 * are taken as 1. Defaults: 600 seconds and 1,000,000 variables (the
 * printer's table has 3,500; a whole MIB-2 tree of a large switch some
 * hundred thousand). Read at the start of each walk. */
enum { TZ_WALK_DEFAULT_SECONDS = 600, TZ_WALK_DEFAULT_VARIABLES = 1000000 };
void TZSetWalkLimits(int32_t seconds, int32_t variables);

/* The most GETNEXT requests a walk keeps in flight: the cap of its window
 * (default 64, see the top of this file). 1 turns the guessing off: one
 * request at a time, exactly the sequential walk's requests. A negative
 * value -N sets the cap N and skips the pace: the walk guesses up to N
 * requests even on a fast link (for tests and measurements; the congestion
 * window still falls back). 0 is taken as 1. Read at the start of each
 * walk; TZGetWalkWindow gives the value as set. */
void TZSetWalkWindow(int32_t window);
int32_t TZGetWalkWindow(void);

/* ---- The walk ---------------------------------------------------------- */

/* Walks the subtree named by the arguments (the SNMP command-line tools'
 * form: argv[0] is the program-name slot, then options, the agent and an
 * optional root; default root 1.3.6.1.2.1) with GETNEXT requests, spooling
 * every variable inside the subtree, and rebuilds the profile plist exactly
 * once before returning, with status 1 after the parser, root or session
 * failed and with the result otherwise. Returns as described at the top.
 * The option -C takes the letters i (GET the root first), p (hand the count
 * to MyDebugMessage) and c (no ordering check); each toggles a boolean that
 * persists in the default store between walks.
 * REQUIRES: argv[0..argc) are writable NUL-terminated strings (the parser
 * blanks pass phrases and communities in place) and argv[argc] may be read;
 * no other walk runs in the process. */
int32_t mib_walk(int32_t argc, char **argv);

/* The parser's callback for option letters it does not know: handles -C. An
 * unknown letter is noted in sDEBUGmsg and skipped. */
void optProc(int argc, char *const *argv, int opt);

/* Opaque to callers that do not include net-snmp; on Linux net-snmp's oid is
 * unsigned long (checked where the walk is built). */
struct snmp_session;
struct variable_list;

/* Sends one GET for `name` and prints every variable of an error-free answer
 * with print_variable, adding each to numprinted. Reports nothing. */
void snmp_get_and_print(struct snmp_session *session, const unsigned long *name,
                        size_t name_length);

/* ---- The spool --------------------------------------------------------- */

/* mode 1 clears the spool (`var` may then be null); any other mode files
 * `var` into the spool when the first 16 sub-identifiers of `name` name one of
 * the six device columns and the type matches the column's (INTEGER or OCTET
 * STRING); everything else is ignored, as are rows outside 1..500 and OIDs of
 * fewer than 18 sub-identifiers. `unused` is ignored. A string is copied up
 * to its first zero byte over what the field held, without a terminator; one
 * longer than 32 bytes is cut to 32.
 * REQUIRES: `name` holds var->name_length sub-identifiers (the walk passes
 * the variable's own OID). */
void vSpoolPlist(const unsigned long *name, uint64_t unused, const struct variable_list *var,
                 int32_t mode);

/* ---- The rebuild ------------------------------------------------------- */

/* Reads the current profile plist, takes the device marks off (status 0) or
 * drops the device-dependent entries (any other status), removes entries with
 * refused file names, merges the spool's rows, tidies each table and writes
 * the file. Returns the write's result (0, or -1); a failed read is ignored. */
int32_t vRestructPlistSpool2Current(int32_t status);

/* Changes every slot's InMenu: status 0 turns 2 into 1 and 4 into 3; any
 * other status turns 1 and 2 into 0 and 4 into 6. Count untouched. */
void vDeleteMIBprofilesTemporary(int32_t status, ProfileTable *table);

/* Merges spool row `row` (0..499) into `table`: an entry among the first iNum
 * with the same 32 FileName bytes and Location gets its device mark (1, 5 to
 * 2; 3, 6 to 4); otherwise the row goes whole into the first free slot, if
 * any, with InMenu 2, and iNum grows by 1. A row outside 0..499 is ignored. */
void vRestructDetail(int32_t row, ProfileTable *table);

/* True if `name` is an acceptable profile file name: 1 to 27 characters
 * before the first dot (or at most 27 without a dot), at most 3 after it,
 * every character passing FileNameFilter. Null and "" are refused. */
bool bJudgement8point3Format(const char *name);

/* True if the character (a char widened with its sign) may appear in a
 * profile file name: ASCII letters and digits and ! # $ % & ' ( ) - . ^ _ `
 * { } ~. */
bool FileNameFilter(int32_t c);

#ifdef __cplusplus
}
#endif

#endif /* TZ_DISCOVERY_H */
