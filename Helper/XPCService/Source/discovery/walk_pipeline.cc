// The pipelined GETNEXT requests of the walk; see walk_pipeline.h.
#include "walk_pipeline.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <cstdlib>
#include <tuple>
#include <utility>
#include <net-snmp/library/large_fd_set.h>
#include <sys/select.h>

namespace tz::discovery {
namespace {

// The largest sub-identifier SNMP can carry: a guess never goes past it.
constexpr oid kMaxSubIdentifier = 0xFFFFFFFFUL;
// After a loss the window grows fast again up to half the size it had, but
// never starts the slow growth below this.
constexpr double kMinThreshold = 2.0;
// The longest single wait: the stop check is asked at least this often.
constexpr long kWaitSliceMicroseconds = 200'000;
// A guess costs the walk about what an answer costs (sending, reading,
// keeping it) and the agent a request: guessing starts only where a round
// trip is this many times the walk's busy time per answer.
constexpr double kPaysFactor = 4.0;
// Guesses along runs a window starts with: a short table's first column in
// one round trip, at the cost of a few requests past the end of a shorter one.
constexpr double kInitialWindow = 16.0;
// After a miss or a loss the window falls back to this, not below.
constexpr double kFloorWindow = 2.0;
// Columns past the last one shown whose rows are guessed while the answer
// for the last shown column's last row is still out: a short column costs no
// round trip of its own, at the cost of one column's rows wasted past the
// table's end.
constexpr oid kColumnsAhead = 1;
// Columns past the last one shown whose last known row is asked for early:
// each answer shows the column after it, so columns are found this many per
// round trip, at the cost of as many requests past the table's end.
constexpr oid kColumnsProbed = 3;
// Subtrees under the root, after the first name's, asked for while the
// walk's first column is still being guessed: over a table the answers are
// its next columns' first names, and past its last column where it ends,
// known a round trip before the first column ends, at the cost of this many
// requests once per walk. A printer's profile table has seven columns.
constexpr oid kSubtreesProbed = 7;
// Answers between two decisions on the pace, once it is known.
constexpr long kPaceEvery = 32;
// One exchange in this many is timed (its round trip on the chain, the
// walk's busy time up to the next exchange): clock reads cost as much as a
// little of the walk's own work.
constexpr long kSampleEvery = 8;
// Tables kept: a walk of a whole MIB finds some hundreds. Each one found
// files the names kept outside tables again, so this also bounds that work.
constexpr std::size_t kMaxTables = 1024;

// The pipeline that may take callbacks. A request can outlive its pipeline
// in the library (a chain request answered with a PDU of the wrong kind stays
// listed until it times out): its late call must find no pipeline, or a newer
// one that does not know its request id. One walk at a time per process.
std::atomic<GetNextPipeline*> live_pipeline{nullptr};

// Whether two names are of one column: of one length, alike but for the
// last sub-identifier.
bool in_one_column(const Name& a, const Name& b) {
    return !a.empty() && a.size() == b.size() && std::equal(a.begin(), a.end() - 1, b.begin());
}

}  // namespace

Pdu request_for(int command, const oid* name, std::size_t name_length) {
    Pdu pdu(snmp_pdu_create(command));
    if (pdu) snmp_add_null_var(pdu.get(), name, name_length);
    return pdu;
}

void NamePredictor::passed(const Name& head) {
    if (first_.empty() && head.size() > root_.size()) first_ = head;
    // A column runs while the chain's last step in it was one up.
    if (head.size() > root_.size() && in_one_column(head, previous_)) {
        Name column(head.begin(), head.end() - 1);
        if (head.back() == previous_.back() + 1) runs_.insert(std::move(column));
        else runs_.erase(column);
    }
    previous_ = head;
    revealed_.erase(revealed_.begin(), revealed_.upper_bound(head));
    learn_table(head);
}

void NamePredictor::learn(const Name& asked, const netsnmp_pdu* answer) {
    const netsnmp_variable_list* var = answer != nullptr && answer->errstat == SNMP_ERR_NOERROR
                                           ? answer->variables
                                           : nullptr;
    Name next;
    if (var != nullptr && (var->type & 0x80) == 0) next.assign(var->name, var->name + var->name_length);
    const bool inside = next.size() > root_.size() && std::equal(root_.begin(), root_.end(), next.begin());
    // An answer past the root's subtree, endOfMibView or (SNMPv1) noSuchName:
    // nothing under the root follows `asked`.
    const bool ended = var != nullptr ? !inside && ((var->type & 0x80) != 0 || next > asked)
                                      : answer != nullptr && answer->errstat == SNMP_ERR_NOSUCHNAME;
    if (ended && (last_.empty() || asked < last_)) last_ = asked;
    const Name column(asked.begin(), asked.end() - (asked.empty() ? 0 : 1));
    const bool same_column = inside && next > asked && in_one_column(asked, next);
    if (!same_column && asked.size() > root_.size()) {  // nothing in this column past `asked`
        const auto end = ends_.try_emplace(column, asked.back()).first;
        end->second = std::min(end->second, asked.back());
    }
    if (Table* table = table_of(asked); table != nullptr && !table->rows.empty() &&
                                        row_of(*table, asked) == *table->rows.rbegin())
        table->closed.insert(asked[table->at]);
    if (!inside || next <= asked) return;
    if (same_column && next.back() != asked.back() + 1) gaps_[asked] = next;
    revealed_.insert(next);
    find_table(asked, next);
    learn_table(next);
}

// A step from `asked` to `next` of the same length that goes up in a
// sub-identifier before the last, to a row not past the one it left, goes
// from one column of a table to a later one: the table is what comes before
// that sub-identifier. (A column's first row is at or before the last row of
// the column before it; a step between two rows of one column goes past.)
void NamePredictor::find_table(const Name& asked, const Name& next) {
    if (asked.size() != next.size() || asked.size() <= root_.size()) return;
    const auto differ = std::mismatch(asked.begin() + static_cast<std::ptrdiff_t>(root_.size()), asked.end(),
                                      next.begin() + static_cast<std::ptrdiff_t>(root_.size()));
    const auto at = static_cast<std::size_t>(differ.first - asked.begin());
    if (at + 1 >= next.size() || next[at] <= asked[at]) return;
    if (std::lexicographical_compare(asked.begin() + static_cast<std::ptrdiff_t>(at) + 1, asked.end(),
                                     next.begin() + static_cast<std::ptrdiff_t>(at) + 1, next.end()))
        return;
    Name prefix(next.begin(), next.begin() + static_cast<std::ptrdiff_t>(at));
    if (tables_.count(prefix) != 0 || tables_.size() >= kMaxTables) return;
    std::vector<Name> seen = std::exchange(remembered_, {});
    seen.push_back(asked);
    std::erase_if(seen, [&](const Name& name) { return name < prefix; });  // passed: no later table has them
    tables_.emplace(std::move(prefix), Table{at, next.size() - at - 1, {}, {}, {}});
    for (const Name& name : seen) learn_table(name);
}

// Files the row and column of a name in its table (rows of a table all have
// one length); a name in no table is kept until one is found.
void NamePredictor::learn_table(const Name& name) {
    Table* table = table_of(name);
    if (table == nullptr || name.size() != table->at + 1 + table->row_length) {
        if (name.size() > root_.size() && remembered_.size() < kMaxRemembered) remembered_.push_back(name);
        return;
    }
    table->columns.insert(name[table->at]);
    table->rows.insert(row_of(*table, name));
}

// The table `name` is in (the last one found before it whose prefix it
// starts with), or null.
NamePredictor::Table* NamePredictor::table_of(const Name& name) {
    auto table = tables_.upper_bound(name);
    if (table == tables_.begin()) return nullptr;
    --table;
    const Name& prefix = table->first;
    const bool in = name.size() > prefix.size() + 1 && std::equal(prefix.begin(), prefix.end(), name.begin());
    return in ? &table->second : nullptr;
}
const NamePredictor::Table* NamePredictor::table_of(const Name& name) const {
    return const_cast<NamePredictor*>(this)->table_of(name);
}

Name NamePredictor::row_of(const Table& table, const Name& name) {
    return Name(name.begin() + static_cast<std::ptrdiff_t>(table.at) + 1, name.end());
}

Name NamePredictor::cell(const Name& name, const Table& table, oid column, const Name& row) {
    Name cell(name.begin(), name.begin() + static_cast<std::ptrdiff_t>(table.at));
    cell.push_back(column);
    cell.insert(cell.end(), row.begin(), row.end());
    return cell;
}

std::vector<NamePredictor::Next> NamePredictor::probes(const Name& name, bool subtrees) const {
    std::vector<Next> found;
    const std::size_t at = root_.size();
    const Table* table = table_of(name);
    if (subtrees && first_.size() > at + 1 && name == first_) {
        // At the walk's first name (no table is known yet): the subtrees
        // under the root after its own, whose answers are their first names
        // (asked once: the guesses from the first name on carry them).
        Name subtree(first_.begin(), first_.begin() + static_cast<std::ptrdiff_t>(at) + 1);
        while (subtree[at] - first_[at] < kSubtreesProbed && subtree[at] < kMaxSubIdentifier)
            ++subtree[at], found.push_back({subtree, true});
    } else if (table != nullptr && table->rows.size() >= 2 && name.size() == table->at + 1 + table->row_length) {
        const oid last = *table->columns.rbegin();
        for (oid column = name[table->at]; column <= last + kColumnsProbed && column < kMaxSubIdentifier; ++column) {
            const bool shown = table->columns.count(column) != 0;
            if ((shown || column > last) && table->closed.count(column) == 0)
                found.push_back({cell(name, *table, column, *table->rows.rbegin()), shown});
        }
    }
    std::erase_if(found, [&](const Next& probe) { return past_end(probe.name); });
    return found;
}

// A guess along a run held back leaves none: one further on would take the
// guesses that follow it away from where the chain is.
std::optional<NamePredictor::Next> NamePredictor::after(const Name& name, bool runs) const {
    auto best = nearest(name);
    return best && (best->known || runs) ? best : std::nullopt;
}

std::optional<NamePredictor::Next> NamePredictor::nearest(const Name& name) const {
    std::optional<Next> best;
    const auto consider = [&](Name candidate, bool known) {
        if (candidate > name && !past_end(candidate) && (!best || candidate < best->name))
            best = Next{std::move(candidate), known};
    };
    if (const auto shown = revealed_.upper_bound(name); shown != revealed_.end()) consider(*shown, true);
    const Table* table = table_of(name);
    if (table != nullptr && !table->rows.empty() && name.size() == table->at + 1 + table->row_length) {
        // Past the last known column, the next kColumnsAhead columns' rows
        // are guesses along a run (held to the congestion window). A column
        // not shown before a shown one has no rows: the answers went past
        // it. Past a column whose last row has been answered, what follows
        // is known (revealed), so nothing is guessed there.
        const std::set<oid>& columns = table->columns;
        const std::set<Name>& rows = table->rows;
        const oid column = name[table->at];
        const bool shown = columns.count(column) != 0;
        const auto later = columns.upper_bound(column);
        const auto next = rows.upper_bound(row_of(*table, name));
        if (!shown && later != columns.end()) {
            consider(cell(name, *table, *later, *rows.begin()), true);
        } else if (next != rows.end()) {
            consider(cell(name, *table, column, *next), shown);
        } else if (later != columns.end()) {
            consider(cell(name, *table, *later, *rows.begin()), true);
        } else if (table->closed.count(column) == 0 && column < *columns.rbegin() + kColumnsAhead &&
                   column < kMaxSubIdentifier) {
            consider(cell(name, *table, column + 1, *rows.begin()), false);
        }
        return best;
    }
    if (name.size() <= root_.size() || name.back() >= kMaxSubIdentifier) return best;
    // Along a run: not past the column's known end, not into a known gap,
    // and only once the column has shown a run.
    const Name column(name.begin(), name.end() - 1);
    if (name.back() >= end_of(column)) return best;
    if (auto gap = gaps_.upper_bound(name); gap != gaps_.begin() && (--gap)->second > name &&
                                            gap->first.size() == name.size() && gap->first <= name)
        return best;
    if (!in_one_column(name, first_) && runs_.count(column) == 0) return best;
    Name next = name;
    ++next.back();
    consider(std::move(next), false);
    return best;
}

// Past which last sub-identifier `column` has no name: what an answer showed,
// or else where the column before it ended (columns of a table share their
// rows); none known: the largest.
oid NamePredictor::end_of(const Name& column) const {
    auto end = ends_.lower_bound(column);
    if (end != ends_.end() && end->first == column) return end->second;
    if (end == ends_.begin() || column.empty()) return kMaxSubIdentifier;
    --end;
    const Name& sibling = end->first;
    return in_one_column(column, sibling) ? end->second : kMaxSubIdentifier;
}

Window::Window(int32_t cap)
    : cap_(std::max<int32_t>(cap, 1)), size_(std::min<double>(kInitialWindow, cap_)), threshold_(cap_) {}

void Window::hit() {
    size_ += size_ < threshold_ ? 1.0 : 1.0 / size_;
    size_ = std::min(size_, static_cast<double>(cap_));
}

// A long run's window past a miss would be wasted past the next short run's
// end: the window starts again from the first one's size at most.
void Window::miss() { size_ = std::max(std::min<double>(kFloorWindow, cap_), std::min(size_ / 2, kInitialWindow)); }

void Window::loss() {
    threshold_ = std::max(kMinThreshold, size_ / 2);
    size_ = std::min<double>(kFloorWindow, cap_);
}

GetNextPipeline::GetNextPipeline(const netsnmp_session& settings, netsnmp_session* chain,
                                 int32_t cap, StopCheck stop)
    : settings_(settings), chain_(chain), window_(cap < 0 ? -std::max(cap, -INT32_MAX) : cap),
      stop_(std::move(stop)), forced_(cap < 0) {
    if (forced_) pace_ = static_cast<std::size_t>(window_.cap());
    netsnmp_large_fd_set_init(&fds_, FD_SETSIZE);
    live_pipeline.store(this, std::memory_order_release);
}

GetNextPipeline::~GetNextPipeline() {
    // Closing calls back for every guess still pending: the maps must live.
    guesser_.reset();
    live_pipeline.store(nullptr, std::memory_order_release);
    netsnmp_large_fd_set_cleanup(&fds_);
}

int GetNextPipeline::exchange(const oid* name, std::size_t name_length, Pdu& response) {
    response.reset();
    const Name head(name, name + name_length);
    if (!predictor_) predictor_.emplace(head);
    // One exchange in kSampleEvery is timed, from its start to the next one's,
    // less its waits: the walk's busy time per answer.
    if (sampling_ || answers_ % kSampleEvery == 0) {
        const Clock::time_point now = Clock::now();
        if (sampling_) busy_ += now - sample_start_ - sample_waited_, ++busy_samples_;
        sampling_ = answers_ % kSampleEvery == 0;
        sample_start_ = now, sample_waited_ = {};
    }
    if (pace_ > 1) predictor_->passed(head);  // at a pace of 1 nothing is guessed: no bookkeeping
    advancing_ = head_.empty() || head > head_;  // an agent that repeats itself: guesses cannot help
    head_ = head;
    // Guesses below the new name are ones the chain has passed: a guess
    // along a run among them, in a column the chain has left, went past the
    // column's end.
    const bool guessed = !guesses_.empty();
    const auto passed = guesses_.lower_bound(head);
    const bool overshot = std::any_of(guesses_.begin(), passed, [&](const auto& guess) {
        return !guess.second.known && !in_one_column(guess.first, head);
    });
    guesses_.erase(guesses_.begin(), passed);
    if (guesses_.count(head) != 0) {
        if (overshot) window_.miss();
        else window_.hit();
        if (wait_for_guess(head)) {
            const auto used = guesses_.find(head);
            response = std::move(used->second.answer);
            guesses_.erase(used);
            ++answers_;
            chain_->s_snmp_errno = SNMPERR_SUCCESS;  // as a response on the chain sets it
            return STAT_SUCCESS;
        }
    } else if (guessed) {
        window_.miss();
    }
    return ask_on_chain(SNMP_MSG_GETNEXT, head, response);
}

int GetNextPipeline::get(const oid* name, std::size_t name_length, Pdu& response) {
    response.reset();
    return ask_on_chain(SNMP_MSG_GET, Name(name, name + name_length), response);
}

void GetNextPipeline::end_guessing() {
    guesser_.reset();  // calls back for every guess still pending
    guessing_off_ = true;
    pending_.clear();
    guesses_.clear();
}

// Waits until the guess for `name` is answered (true) or has failed and is
// gone (false). Meanwhile the window fills with guesses beyond it.
bool GetNextPipeline::wait_for_guess(const Name& name) {
    guess_after(name);
    for (;;) {
        const auto guess = guesses_.find(name);
        if (guess == guesses_.end()) return false;
        if (guess->second.answer) return true;
        if (wait_once() != Waited::kSome) return false;
    }
}

// Sends `command`(name) on the chain session and waits for its outcome, as
// snmp_synch_response does (same timeout and retries), in slices.
int GetNextPipeline::ask_on_chain(int command, const Name& name, Pdu& response) {
    if (stop_ && stop_()) return stopped();
    Pdu pdu = request_for(command, name.data(), name.size());
    if (!pdu) return STAT_ERROR;  // no memory for the request
    const long reqid = pdu->reqid;
    // A failed send calls back before the request is known here: ignored.
    if (snmp_async_send(chain_, pdu.get(), &GetNextPipeline::on_event, this) == 0)
        return STAT_ERROR;  // the request is still ours to free
    (void)pdu.release();
    chain_request_ = ChainRequest{true, reqid, true, STAT_SUCCESS, nullptr};
    if (command == SNMP_MSG_GETNEXT) guess_after(name);
    const bool timed = command == SNMP_MSG_GETNEXT && sampling_;
    const Clock::time_point sent = timed ? Clock::now() : Clock::time_point{};
    // A stream's disconnect goes to the session's own callback, not the
    // request's: take it while waiting, as snmp_synch_response does.
    const auto saved = std::pair(chain_->callback, chain_->callback_magic);
    chain_->callback = &GetNextPipeline::on_event, chain_->callback_magic = this;
    while (chain_request_.waiting) {
        const Waited waited = wait_once();
        if (waited == Waited::kSome) continue;
        chain_request_.waiting = false;
        chain_request_.response.reset();
        if (waited == Waited::kStopped) {
            chain_request_.status = stopped();  // the request dies with the chain session
        } else if (chain_request_.status == STAT_SUCCESS) {
            chain_request_.status = STAT_ERROR;  // a report's error number stands
            chain_->s_snmp_errno = SNMPERR_GENERR;
        }
    }
    std::tie(chain_->callback, chain_->callback_magic) = saved;
    chain_request_.active = false;
    response = std::move(chain_request_.response);
    if (chain_request_.status == STAT_SUCCESS && command == SNMP_MSG_GETNEXT) {
        if (timed) {
            const double trip = std::chrono::duration<double>(Clock::now() - sent).count();
            round_trip_ = round_trip_ == 0.0 ? trip : 0.75 * round_trip_ + 0.25 * trip;
        }
        if (++answers_ == 1) decide_pace();
        if (pace_ > 1 && predictor_) predictor_->learn(name, response.get());
    }
    return chain_request_.status;
}

// What a stop reports: a timeout on the chain.
int GetNextPipeline::stopped() {
    chain_->s_snmp_errno = SNMPERR_TIMEOUT;
    SET_SNMP_ERROR(SNMPERR_TIMEOUT);
    return STAT_TIMEOUT;
}

// Keeps the window full with the predicted names after `name`, each the
// predicted successor of the one before, in the walk's own order, going on
// from the last guess while the chain is still on the guessed path. Guesses
// along runs are held to the congestion window; names the walk has seen or
// the table gives, only to the pace.
void GetNextPipeline::guess_after(const Name& name) {
    if (!predictor_ || !advancing_) return;
    const std::size_t window = paced_window();
    if (window <= 1) return;
    // The next subtrees only where the window has room for them beside a
    // first column's guesses: on a fast link they would delay the chain.
    const bool subtrees = static_cast<double>(window) >= kInitialWindow + kSubtreesProbed;
    const bool on_path = frontier_ > name && guesses_.count(frontier_) != 0;
    Name next = on_path ? frontier_ : name;
    std::size_t runs = 0;
    for (const auto& [guessed, guess] : guesses_) runs += guessed > name && !guess.known ? 1 : 0;
    for (std::size_t step = 0; in_flight() < window && step < 8 * window; ++step) {
        // The last known row of this column, asked early, shows which column
        // follows before the guesses get there.
        for (auto& ahead : predictor_->probes(next, subtrees))
            if (guesses_.count(ahead.name) == 0 && ahead.name > name && !send_guess(ahead.name, ahead.known)) return;
        auto guess = predictor_->after(next, runs < static_cast<std::size_t>(window_.size()));
        if (!guess) return;
        next = std::move(guess->name);
        if (guesses_.count(next) != 0) continue;
        if (!send_guess(next, guess->known)) return;
        frontier_ = next;
        runs += guess->known ? 0 : 1;
    }
}

// The pace, decided after the first answer and then once per kPaceEvery:
// 1 while a round trip is less than kPaysFactor times the walk's busy time
// per answer, else the round trip over that busy time (the requests the
// walk can handle while one goes and comes back), at most the cap.
void GetNextPipeline::decide_pace() {
    decided_at_ = answers_;
    if (forced_ || window_.cap() <= 1 || round_trip_ == 0.0) return;
    // Before a whole sample, the first exchange's time so far.
    const double busy = busy_samples_ > 0
                            ? std::chrono::duration<double>(busy_).count() / static_cast<double>(busy_samples_)
                            : std::chrono::duration<double>(Clock::now() - sample_start_ - sample_waited_).count();
    const double pace = busy > 0.0 ? round_trip_ / busy : static_cast<double>(window_.cap());
    pace_ = pace < kPaysFactor ? 1 : std::min(static_cast<std::size_t>(pace), static_cast<std::size_t>(window_.cap()));
}

// The pace, and no more than the threshold the losses have left.
std::size_t GetNextPipeline::paced_window() {
    if (answers_ - decided_at_ >= kPaceEvery) decide_pace();
    return std::min<std::size_t>(pace_, static_cast<std::size_t>(window_.threshold()));
}

bool GetNextPipeline::send_guess(const Name& name, bool known) {
    if (!guesser_ && !open_guess_session()) return false;
    Pdu pdu = request_for(SNMP_MSG_GETNEXT, name.data(), name.size());
    if (!pdu) return false;
    const long reqid = pdu->reqid;
    if (snmp_async_send(guesser_.get(), pdu.get(), &GetNextPipeline::on_event, this) == 0)
        return false;
    (void)pdu.release();
    pending_.emplace(reqid, name);
    guesses_[name] = Guess{reqid, nullptr, known};
    return true;
}

// The guess session: the walk's own settings, no retries, the chain's
// resolved timeout. For SNMPv3 it takes the engine the chain session has
// already found, so opening it sends nothing. When it cannot be opened the
// walk goes on without guesses.
bool GetNextPipeline::open_guess_session() {
    if (guessing_off_) return false;
    netsnmp_session settings = settings_;
    settings.retries = 0;
    settings.timeout = chain_->timeout;
    settings.callback = nullptr;
    settings.callback_magic = nullptr;
    if (settings.version == SNMP_VERSION_3 && chain_->securityEngineIDLen != 0) {
        settings.securityEngineID = chain_->securityEngineID;
        settings.securityEngineIDLen = chain_->securityEngineIDLen;
        if (settings.contextEngineIDLen == 0) {
            settings.contextEngineID = chain_->contextEngineID;
            settings.contextEngineIDLen = chain_->contextEngineIDLen;
        }
        settings.flags |= SNMP_FLAGS_DONT_PROBE;
    }
    guesser_.reset(snmp_open(&settings));
    guessing_off_ = !guesser_;
    return !guessing_off_;
}

int GetNextPipeline::on_event(int op, netsnmp_session* session, int reqid, netsnmp_pdu* pdu,
                              void* magic) {
    auto* self = static_cast<GetNextPipeline*>(magic);
    if (self != live_pipeline.load(std::memory_order_acquire)) return 1;
    // A retry sent: the request is still waiting (snmp_synch_response's own
    // callback never hears of it, the library tells only a request's own).
    if (op == NETSNMP_CALLBACK_OP_RESEND) return 1;
    // A report is the chain's whatever its request id, as snmp_synch_response
    // takes it: an agent that cannot decrypt a request cannot echo its id
    // (the library matched it to the request by its message id). So is a
    // disconnect, which comes with no request id.
    const bool report = pdu != nullptr && pdu->command == SNMP_MSG_REPORT;
    if (self->chain_request_.active && session == self->chain_ &&
        (reqid == self->chain_request_.reqid || report || op == NETSNMP_CALLBACK_OP_DISCONNECT))
        return self->on_chain_event(op, session, pdu);
    self->on_guess_event(op, reqid, pdu);
    return 1;
}

// What snmp_synch_response's own callback does with the chain's request.
int GetNextPipeline::on_chain_event(int op, netsnmp_session* session, netsnmp_pdu* pdu) {
    ChainRequest& request = chain_request_;
    request.waiting = false;
    if (op == NETSNMP_CALLBACK_OP_RECEIVED_MESSAGE && pdu != nullptr) {
        if (pdu->command == SNMP_MSG_REPORT) {
            // Ends the request: the library resends on "not in time window"
            // by itself and tells only once its resends are spent, after
            // which it holds the request no more (snmp_synch_response would
            // wait on for it, with nothing to wait for).
            const int report = snmpv3_get_report_type(pdu);
            request.response.reset();
            request.status = STAT_ERROR;
            session->s_snmp_errno = report;
            SET_SNMP_ERROR(report);
        } else if (pdu->command == SNMP_MSG_RESPONSE) {
            request.response.reset(snmp_clone_pdu(pdu));
            request.status = STAT_SUCCESS;
            session->s_snmp_errno = SNMPERR_SUCCESS;
        } else {
            char detail[50];
            request.status = STAT_ERROR;
            session->s_snmp_errno = SNMPERR_PROTOCOL;
            SET_SNMP_ERROR(SNMPERR_PROTOCOL);
            std::snprintf(detail, sizeof detail, "Expected RESPONSE-PDU but got %s-PDU",
                          snmp_pdu_type(pdu->command));
            snmp_set_detail(detail);
            return 0;
        }
    } else if (op == NETSNMP_CALLBACK_OP_TIMED_OUT) {
        request.response.reset();
        request.status = STAT_TIMEOUT;
        session->s_snmp_errno = SNMPERR_TIMEOUT;
        SET_SNMP_ERROR(SNMPERR_TIMEOUT);
    } else if (op == NETSNMP_CALLBACK_OP_SEC_ERROR) {
        request.response.reset();
        if (request.status == STAT_SUCCESS) {  // an earlier error stands
            request.status = STAT_ERROR;
            session->s_snmp_errno = SNMPERR_GENERR;
            SET_SNMP_ERROR(SNMPERR_GENERR);
        }
    } else if (op == NETSNMP_CALLBACK_OP_DISCONNECT) {
        request.response.reset();
        request.status = STAT_ERROR;
        session->s_snmp_errno = SNMPERR_ABORT;
        SET_SNMP_ERROR(SNMPERR_ABORT);
    } else if (op == NETSNMP_CALLBACK_OP_SEND_FAILED) {
        // A retry could not be sent and the library has dropped the request
        // (the error number says why). snmp_synch_response would have kept
        // it and timed out later; here the walk ends at once as failed.
        request.response.reset();
        request.status = STAT_ERROR;
    }
    return 1;
}

// A guess's answer is kept for its name; anything else drops the guess.
void GetNextPipeline::on_guess_event(int op, long reqid, netsnmp_pdu* pdu) {
    const auto sent = pending_.find(reqid);
    if (sent == pending_.end()) return;  // a stale chain request's late call
    const Name name = std::move(sent->second);
    pending_.erase(sent);
    const auto guess = guesses_.find(name);
    const bool wanted = guess != guesses_.end() && guess->second.reqid == reqid;
    if (op == NETSNMP_CALLBACK_OP_RECEIVED_MESSAGE && pdu != nullptr &&
        pdu->command == SNMP_MSG_RESPONSE) {
        if (predictor_) predictor_->learn(name, pdu);
        if (wanted) guess->second.answer.reset(snmp_clone_pdu(pdu));
        if (!wanted || guess->second.answer) return;  // kept (or not needed)
    }
    if (op == NETSNMP_CALLBACK_OP_TIMED_OUT && guesser_) window_.loss();
    if (wanted) guesses_.erase(guess);
}

// One round of snmp_synch_response's loop, cut to at most 200 ms: wait for a
// packet or the next timeout on every open session and let the library
// handle it. kStopped when the stop check said so (nothing waited for),
// kFailed when select failed or nothing waited for on the chain can come.
GetNextPipeline::Waited GetNextPipeline::wait_once() {
    if (stop_ && stop_()) return Waited::kStopped;
    int fds = 0;
    int block = NETSNMP_SNMPBLOCK;
    timeval timeout{};
    NETSNMP_LARGE_FD_ZERO(&fds_);
    snmp_sess_select_info2_flags(nullptr, &fds, &fds_, &timeout, &block, NETSNMP_SELECT_NOALARMS);
    if (block == 1) {  // the library holds no request, so no answer can come
        forget_unheld();
        return chain_request_.waiting ? Waited::kFailed : Waited::kSome;
    }
    const bool sliced = timeout.tv_sec > 0 || timeout.tv_usec > kWaitSliceMicroseconds;
    if (sliced) timeout = timeval{0, kWaitSliceMicroseconds};
    const Clock::time_point before = sampling_ ? Clock::now() : Clock::time_point{};
    const int count = netsnmp_large_fd_set_select(fds, &fds_, nullptr, nullptr, &timeout);
    if (sampling_) sample_waited_ += Clock::now() - before;
    if (count > 0) {
        snmp_read2(&fds_);
        // While guesses are out, read whatever else has come before the
        // chain goes on, so that what it shows is known to the next guesses.
        for (timeval now{}; !pending_.empty(); now = timeval{}) {
            NETSNMP_LARGE_FD_ZERO(&fds_);
            fds = 0, block = 0;
            snmp_sess_select_info2_flags(nullptr, &fds, &fds_, &now, &block, NETSNMP_SELECT_NOALARMS);
            now = timeval{};
            if (netsnmp_large_fd_set_select(fds, &fds_, nullptr, nullptr, &now) <= 0) break;
            snmp_read2(&fds_);
        }
    } else if (count == 0) {
        if (!sliced) snmp_timeout();
    } else if (errno != EINTR) {
        snmp_errno = SNMPERR_GENERR;
        snmp_set_detail(std::strerror(errno));
        return Waited::kFailed;
    }
    return Waited::kSome;
}

// Drops the guesses whose requests the library no longer holds (it ended
// them without a call this pipeline could match, such as a report).
void GetNextPipeline::forget_unheld() {
    pending_.clear();
    std::erase_if(guesses_, [](const auto& guess) { return !guess.second.answer; });
}

}  // namespace tz::discovery
