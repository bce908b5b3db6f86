#include "exit_status.h"

#include <array>

#include "bus_names.h"
#include "replies.h"

namespace tz::ctl {
namespace {

enum class When {
    kFalse,    // reply "FALSE"; key: the command
    kIRet,     // reply "iRet=<n>" other than 0; key: n
    kOther,    // any other reply
    kError,    // a bus error; key: its name, or a prefix of it ending in '.'
    kConnect,  // no connection; key: "unset" when the session bus address is unset
};

struct Meaning {
    When when;
    std::string_view key;  // "" matches any key: the last row of its kind
    int status;
    // {subject}: the command's path or URL; {reply}: the reply; {name} and
    // {message}: the error's.
    std::string_view text;
};

constexpr std::string_view kNotProvided =
    "the name tazorex.printers.T48Q.Helper is not provided by any service: is the tzhelper "
    "package installed?";

constexpr std::array kMeanings = {
    Meaning{When::kFalse, "is-admin", kNo, "the helper cannot write {subject}"},
    Meaning{When::kFalse, "exist", kNo, "{subject} does not exist for the helper"},
    Meaning{When::kFalse, "remove", kNo, "the helper could not remove {subject}"},
    Meaning{When::kFalse, "write-plist", kNo, "the helper could not write {subject}"},
    Meaning{When::kFalse, "write-piece", kNo,
            "the helper could not append to the temporary .dummy file of {subject}"},
    Meaning{When::kFalse, "finish-piece", kNo,
            "the helper could not rename the .dummy file onto {subject}"},
    Meaning{When::kFalse, "", kNo, "the helper answered FALSE"},

    Meaning{When::kIRet, "1", kNo, "the printer did not answer or the walk stopped ({reply})"},
    Meaning{When::kIRet, "2", kNo, "the agent answered with an error status ({reply})"},
    Meaning{When::kIRet, "-1", kNo, "the SNMP arguments were refused ({reply})"},
    Meaning{When::kIRet, "-2", kNo,
            "the SNMP argument parser stopped after its help or version output, or the pass "
            "phrase gave no key ({reply})"},
    Meaning{When::kIRet, "", kNo, "the walk failed ({reply})"},

    Meaning{When::kOther, "", kNo, "the helper gave an answer this tool does not know: {reply}"},

    Meaning{When::kError, "org.freedesktop.DBus.Error.ServiceUnknown", kUnreachable, kNotProvided},
    Meaning{When::kError, "org.freedesktop.DBus.Error.NameHasNoOwner", kUnreachable, kNotProvided},
    Meaning{When::kError, "org.freedesktop.DBus.Error.Spawn.", kUnreachable,
            "the bus could not start the helper: {message}"},
    Meaning{When::kError, "org.freedesktop.DBus.Error.NoServer", kUnreachable,
            "the bus is gone: {message}"},
    Meaning{When::kError, "org.freedesktop.DBus.Error.Disconnected", kUnreachable,
            "the bus is gone: {message}"},
    Meaning{When::kError, bus::kRangeError, kNo, "the helper refused the request: {message}"},
    Meaning{When::kError, bus::kAccessDenied, kNo,
            "the helper runs as another user and refused the call: {message}"},
    Meaning{When::kError, "org.freedesktop.DBus.Error.NoReply", kNo,
            "the helper did not answer in time, or ended during the call: {message}"},
    Meaning{When::kError, "org.freedesktop.DBus.Error.Timeout", kNo,
            "the helper did not answer in time: {message}"},
    Meaning{When::kError, "org.freedesktop.DBus.Error.UnknownInterface", kNo,
            "the helper is too old for this command: {message}"},
    Meaning{When::kError, "org.freedesktop.DBus.Error.UnknownProperty", kNo,
            "the helper is too old for this command: {message}"},
    Meaning{When::kError, "org.freedesktop.DBus.Error.UnknownMethod", kNo,
            "the helper has no such method: {message}"},
    Meaning{When::kError, "", kNo, "the call failed: {name}: {message}"},

    Meaning{When::kConnect, "unset", kUnreachable,
            "no session bus: DBUS_SESSION_BUS_ADDRESS is not set"},
    Meaning{When::kConnect, "", kUnreachable, "cannot connect to {subject}: {message}"},
};

bool matches(std::string_view pattern, std::string_view key) {
    if (pattern.empty()) return true;
    if (pattern.back() == '.') return key.substr(0, pattern.size()) == pattern;
    return key == pattern;
}

struct Fill {
    std::string_view subject, reply, name, message;
};

Verdict verdict(When when, std::string_view key, const Fill& fill) {
    for (const Meaning& meaning : kMeanings) {
        if (meaning.when != when || !matches(meaning.key, key)) continue;
        std::string text;
        const std::string_view source = meaning.text;
        for (size_t i = 0; i < source.size();) {
            const size_t close = source[i] == '{' ? source.find('}', i) : std::string_view::npos;
            if (close == std::string_view::npos) {
                text += source[i++];
                continue;
            }
            const std::string_view field = source.substr(i + 1, close - i - 1);
            text += field == "subject" ? fill.subject
                    : field == "reply" ? fill.reply
                    : field == "name"  ? fill.name
                                       : fill.message;
            i = close + 1;
        }
        return {meaning.status, text};
    }
    return {kNo, std::string(key)};  // not reached: every kind ends with a catch-all row
}

}  // namespace

Verdict judge_reply(std::string_view command, std::string_view subject, std::string_view reply) {
    using namespace tz::protocol;
    if (reply == kReplyTrue || reply == walk_reply(0)) return {};
    const Fill fill{subject, reply, {}, {}};
    if (reply == kReplyFalse) return verdict(When::kFalse, command, fill);
    if (reply.starts_with(kWalkReplyPrefix))
        return verdict(When::kIRet, reply.substr(kWalkReplyPrefix.size()), fill);
    return verdict(When::kOther, reply, fill);
}

Verdict judge_error(const tz::client::BusError& error) {
    return verdict(When::kError, error.name, Fill{{}, {}, error.name, error.message});
}

Verdict judge_connect_failure(std::string_view address, bool session_bus_set,
                              const tz::client::BusError& error) {
    const bool unset = address.empty() && !session_bus_set;
    const std::string subject = address.empty() ? "the session bus" : "the bus " + std::string(address);
    return verdict(When::kConnect, unset ? "unset" : "", Fill{subject, {}, error.name, error.message});
}

}  // namespace tz::ctl
