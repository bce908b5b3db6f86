// The walk's GETNEXT requests, with the waiting pipelined: while the request
// for the walk's next name is in flight, requests for the names that are
// likely to follow it are in flight too, so a slow link costs one round trip
// per window of variables instead of one per variable.
//
// The walk still sees exactly the sequential chain: exchange(name) gives the
// agent's answer to GETNEXT(name), as snmp_synch_response would, whether that
// answer came from a request sent for it now or from one sent earlier on a
// guess. An answer is used only for the name its request carried.
//
// Guessing (NamePredictor) uses what the walk has seen, never a fixed
// pattern alone:
//  - every name an answer reveals inside the subtree is one the walk will
//    reach, so asking for what follows it is never wasted;
//  - a table's columns share their rows: a step from one column to a later
//    one (same length, up in a sub-identifier before the last, to a row not
//    past the one it left: a step between two rows of one column goes past,
//    as from address 127.0.0.1 to 192.0.2.2) shows where a table's column
//    sits, anywhere under the root; from then on the walk
//    knows its rows (row indexes of any length) and predicts every later
//    column's names exactly, row after row, then the next known column;
//  - the last known row of the current column and of up to three columns
//    past the last one shown is asked early: each answer shows the column
//    after it, so columns are found without a round trip each; while that
//    answer is out, the next column's rows are guessed as a run is;
//  - when the chain asks for what follows its first name (no table is
//    known yet), where the window has room for them beside the first
//    column's guesses, the next seven subtrees under the root are asked
//    for: over a table their answers are its later columns' first names
//    and, past its last column, its end, a round trip before the first
//    column ends;
//  - an answer that leaves the root's subtree (endOfMibView, or SNMPv1's
//    noSuchName) shows where the walk ends: nothing past it is guessed;
//  - elsewhere (the first column of a table, or outside any) it guesses the
//    last sub-identifier plus one along runs (except in the walk's first
//    column, only while the chain's last step there was one up), but never
//    past a point an answer has shown to be the end of that column or of the
//    column before it;
//  - while the chain gets a name it has already passed, nothing is guessed.
// Each guess is the predicted successor of the previous one, so the window
// holds the next names of the walk in its own order.
//
// Two sessions to the same agent:
//  - the chain session (the walk's own, as opened from its arguments) carries
//    every request the walk has to send for its next name, with the session's
//    timeout and retries, and its callback gives the same status, error
//    number and response as snmp_synch_response; only its failures end the
//    walk;
//  - the guess session (opened from the same arguments on the first guess,
//    retries 0, the chain's timeout) carries the guesses. A guess that is
//    lost, late, or answered with anything but a response is simply not
//    used: when the walk reaches its name, the chain session asks again. So
//    a name is never given up sooner than the sequential walk would give it
//    up; a guess still in flight when its name comes up is an extra chance.
//
// The window (requests in flight on both sessions, stale guesses included)
// has two bounds. The pace: guessing pays only where a round trip is long
// against the time the walk itself spends per answer (decoding, spooling,
// its loop), both measured on one exchange in eight (its round trip on the
// chain, its time outside its waits) and decided after the first answer,
// then once per 32: below four times, 1 (on a link of sub-millisecond round
// trips nothing is guessed, and nothing is kept for guessing either); else
// round trip / time per answer. The congestion window, for guesses along
// runs: it starts at 16, grows by one per used guess up to the threshold,
// then by one per window's worth; it is halved, to 16 at most and 2 at
// least, when the chain goes where no guess pointed or passes a guess along
// a run that it never used (the run ended before it), and back to 2 with the
// threshold halved when a request went unanswered for a whole timeout.
// Neither exceeds the cap; with a cap of 1 nothing is guessed and the walk
// sends exactly the sequential walk's requests, one at a time; a negative
// cap -N skips the pace (tests).
// While guesses are out, every answer that has come is read before the
// chain goes on.
//
// Waiting: every wait lasts at most 200 ms, and the stop check the walk
// hands over is asked before each one; when it says stop, the request on the
// chain ends as timed out. When the library holds no request at all, nothing
// that is waited for can come: unanswered guesses are dropped and a request
// still waiting on the chain ends as failed.
#pragma once

#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>

#include <cstddef>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <unordered_map>
#include <vector>

namespace tz::discovery {

struct PduFree {
    void operator()(netsnmp_pdu* pdu) const { snmp_free_pdu(pdu); }
};
using Pdu = std::unique_ptr<netsnmp_pdu, PduFree>;

struct SessionClose {
    void operator()(netsnmp_session* session) const { snmp_close(session); }
};
using Session = std::unique_ptr<netsnmp_session, SessionClose>;

// A request for one null-valued variable `name`; null when out of memory.
Pdu request_for(int command, const oid* name, std::size_t name_length);

// How many requests may be in flight, adapted to how well guesses do.
class Window {
public:
    explicit Window(int32_t cap);
    int32_t size() const { return static_cast<int32_t>(size_); }
    int32_t cap() const { return cap_; }
    int32_t threshold() const { return static_cast<int32_t>(threshold_); }
    void hit();   // a guess was used
    void miss();  // the chain went where no guess pointed
    void loss();  // a request went unanswered for a whole timeout

private:
    int32_t cap_;
    double size_;
    double threshold_;
};

using Name = std::vector<oid>;

// What the walk has seen, and the name it will most likely reach next.
class NamePredictor {
public:
    // Every name the walk reaches is under `root`.
    explicit NamePredictor(Name root) : root_(std::move(root)) {}
    // The chain has asked for what follows `head`.
    void passed(const Name& head);
    // `answer` (null: none, or not a response) came for GETNEXT(asked).
    void learn(const Name& asked, const netsnmp_pdu* answer);
    // The name most likely to follow `name` in the walk, and whether it is
    // known or follows from the table (not a guess along a run); none when
    // no guess is worth a request, or only a run's and `runs` is false.
    struct Next {
        Name name;
        bool known;
    };
    std::optional<Next> after(const Name& name, bool runs) const;
    // The last known row of `name`'s table column and of the columns after
    // it, up to a few past the last one shown, where what follows is not yet
    // known: asked early, they show the columns that follow before the
    // guesses get there. At the walk's first name: the next subtrees under
    // the root, if `subtrees`. None elsewhere, and none
    // past the end.
    std::vector<Next> probes(const Name& name, bool subtrees) const;

private:
    // A table: the names at + 1 + row_length long that start with its
    // prefix (the map's key), their column at `at`, their row after it.
    struct Table {
        std::size_t at;
        std::size_t row_length;
        std::set<Name> rows;     // row indexes seen
        std::set<oid> columns;   // columns seen
        std::set<oid> closed;    // columns whose last known row has been answered
    };
    void find_table(const Name& asked, const Name& next);
    void learn_table(const Name& name);
    Table* table_of(const Name& name);
    const Table* table_of(const Name& name) const;
    // after() with guesses along runs allowed.
    std::optional<Next> nearest(const Name& name) const;
    static Name row_of(const Table& table, const Name& name);
    // The name in `name`'s table at `column` and `row`.
    static Name cell(const Name& name, const Table& table, oid column, const Name& row);
    oid end_of(const Name& column) const;
    bool past_end(const Name& name) const { return !last_.empty() && name > last_; }

    static constexpr std::size_t kMaxRemembered = 20000;  // names kept outside any known table
    Name root_;
    Name first_;                     // the first name under the root
    std::map<Name, Table> tables_;   // by prefix
    std::set<Name> revealed_;        // names answers showed, not yet passed by the chain
    std::vector<Name> remembered_;   // names seen in no known table, not yet passed
    std::map<Name, oid> ends_;       // per column (name less its last sub-identifier): no name past this
    std::map<Name, Name> gaps_;      // asked -> answered in the same column: no name between them
    std::set<Name> runs_;            // columns whose last step on the chain was one up
    Name previous_;                  // the chain's last name
    Name last_;                      // the least name asked that no name under the root follows; empty: none yet
};

class GetNextPipeline {
public:
    // True once the walk must stop; asked before every wait, must be quick.
    using StopCheck = std::function<bool()>;

    // `settings` are the parsed arguments `chain` was opened from; both must
    // outlive the pipeline. `cap` bounds the window; a negative cap -N is N
    // with the pace skipped.
    GetNextPipeline(const netsnmp_session& settings, netsnmp_session* chain, int32_t cap, StopCheck stop);
    ~GetNextPipeline();  // closes the guess session; its stale requests die
    GetNextPipeline(const GetNextPipeline&) = delete;
    GetNextPipeline& operator=(const GetNextPipeline&) = delete;

    // The agent's answer to GETNEXT(name): STAT_SUCCESS with `response`, or
    // STAT_TIMEOUT / STAT_ERROR with the chain session's error number set,
    // exactly as snmp_synch_response on the chain session reports it.
    // A stop ends it with STAT_TIMEOUT and the error number SNMPERR_TIMEOUT.
    int exchange(const oid* name, std::size_t name_length, Pdu& response);

    // The agent's answer to GET(name) on the chain, reported as exchange()
    // reports; nothing is guessed from it.
    int get(const oid* name, std::size_t name_length, Pdu& response);

    // Closes the guess session (its requests die) and guesses no more.
    void end_guessing();

private:
    using Clock = std::chrono::steady_clock;
    struct Guess {
        long reqid = 0;
        Pdu answer;  // set once a response came
        bool known = false;  // not a guess along a run
    };
    // The request on the chain, as snmp_synch_response keeps it.
    struct ChainRequest {
        bool active = false;
        long reqid = 0;
        bool waiting = false;
        int status = STAT_SUCCESS;
        Pdu response;
    };

    static int on_event(int op, netsnmp_session* session, int reqid, netsnmp_pdu* pdu,
                        void* magic);
    int on_chain_event(int op, netsnmp_session* session, netsnmp_pdu* pdu);
    void on_guess_event(int op, long reqid, netsnmp_pdu* pdu);

    bool wait_for_guess(const Name& name);
    int ask_on_chain(int command, const Name& name, Pdu& response);
    int stopped();
    void guess_after(const Name& name);
    std::size_t paced_window();
    void decide_pace();
    bool send_guess(const Name& name, bool known);
    bool open_guess_session();
    std::size_t in_flight() const { return pending_.size() + (chain_request_.waiting ? 1 : 0); }
    enum class Waited { kSome, kFailed, kStopped };
    Waited wait_once();
    void forget_unheld();

    const netsnmp_session& settings_;
    netsnmp_session* chain_;
    Window window_;
    StopCheck stop_;
    Session guesser_;
    bool guessing_off_ = false;             // end_guessing, or the guess session did not open
    const bool forced_;                     // the pace skipped
    std::map<Name, Guess> guesses_;         // guesses the chain may still reach
    std::unordered_map<long, Name> pending_;  // guess requests not yet called back
    Name frontier_;                         // the last name guessed
    Name head_;                             // the chain's last name
    bool advancing_ = true;                 // past the one before it
    std::optional<NamePredictor> predictor_;  // from the first GETNEXT, its name the root
    // The pace: the chain's round trip and the walk's busy time, in seconds.
    double round_trip_ = 0.0;
    std::size_t pace_ = 1;                  // as last decided
    long decided_at_ = 0;                   // answers_ then
    bool sampling_ = false;                 // the exchange in progress is timed
    Clock::time_point sample_start_{};      // its start
    Clock::duration sample_waited_{};       // its time blocked in select
    Clock::duration busy_{};                // timed exchanges less their waits, in all
    long busy_samples_ = 0;
    long answers_ = 0;                      // exchanges answered
    ChainRequest chain_request_;
    netsnmp_large_fd_set fds_;
};

}  // namespace tz::discovery
