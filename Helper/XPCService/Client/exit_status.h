// What a reply or an error means to the caller of tzhelperctl: the exit
// status and one line in words. Every text lives in one table
// (exit_status.cc), so the manual page and the tool cannot drift apart.
//
//   0  the helper said yes: "TRUE", or "iRet=0" after a walk
//   1  the helper said no: "FALSE", any other "iRet=<n>", an answer the tool
//      does not know, or an error the helper (or the bus on its behalf)
//      gave instead of a reply
//   2  the command line was wrong (reported where it is parsed)
//   3  the helper could not be reached: no bus, or no service for its name
#pragma once

#include <string>
#include <string_view>

#include "helper_client.h"

namespace tz::ctl {

enum ExitStatus : int { kYes = 0, kNo = 1, kUsage = 2, kUnreachable = 3 };

struct Verdict {
    int status = kYes;
    std::string text;  // empty for kYes
};

// The meaning of `reply` to `command` ("exist", "walk", ...); `subject` is the
// path or URL the command was about.
Verdict judge_reply(std::string_view command, std::string_view subject, std::string_view reply);

// The meaning of an error that came instead of a reply.
Verdict judge_error(const tz::client::BusError& error);

// The meaning of a failed connection to `address` ("" for the session bus).
// `session_bus_set` tells whether DBUS_SESSION_BUS_ADDRESS was set.
Verdict judge_connect_failure(std::string_view address, bool session_bus_set,
                              const tz::client::BusError& error);

}  // namespace tz::ctl
