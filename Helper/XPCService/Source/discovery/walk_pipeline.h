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
// Guessing: inside a table column the successor of ...col.1.r is usually
// ...col.1.(r+1), so from the name N the pipeline asks ahead for N+1, N+2, ...
// (the last sub-identifier incremented). Names at or above the root itself
// are not guessed from: nothing follows the pattern there.
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
// moves as TCP's congestion window does: it starts at 2 (the chain's request
// and one guess), grows by one per used guess up to the threshold, then by
// one per window's worth; it is halved (not below 2) when the chain goes
// where no guess pointed, and back to 2 with the threshold halved when a
// request went unanswered for a whole timeout. It never exceeds the cap;
// with a cap of 1 nothing is guessed and the walk sends exactly the
// sequential walk's requests, one at a time.
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
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
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
    void hit();   // a guess was used
    void miss();  // the chain went where no guess pointed
    void loss();  // a request went unanswered for a whole timeout

private:
    int32_t cap_;
    double size_;
    double threshold_;
};

class GetNextPipeline {
public:
    // True once the walk must stop; asked before every wait, must be quick.
    using StopCheck = std::function<bool()>;

    // `settings` are the parsed arguments `chain` was opened from; both must
    // outlive the pipeline. `root_length` is the walked root's length.
    GetNextPipeline(const netsnmp_session& settings, netsnmp_session* chain,
                    std::size_t root_length, int32_t cap, StopCheck stop);
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
    using Name = std::vector<oid>;
    struct Guess {
        long reqid = 0;
        Pdu answer;  // set once a response came
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
    bool send_guess(const Name& name);
    bool open_guess_session();
    std::size_t in_flight() const { return pending_.size() + (chain_request_.waiting ? 1 : 0); }
    enum class Waited { kSome, kFailed, kStopped };
    Waited wait_once();
    void forget_unheld();

    const netsnmp_session& settings_;
    netsnmp_session* chain_;
    std::size_t root_length_;
    Window window_;
    StopCheck stop_;
    Session guesser_;
    bool guessing_off_ = false;             // end_guessing, or the guess session did not open
    std::map<Name, Guess> guesses_;         // guesses the chain may still reach
    std::unordered_map<long, Name> pending_;  // guess requests not yet called back
    Name frontier_;                         // the last name guessed
    ChainRequest chain_request_;
    netsnmp_large_fd_set fds_;
};

}  // namespace tz::discovery
