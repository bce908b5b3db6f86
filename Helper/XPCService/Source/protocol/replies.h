// The helper's replies, the one place that spells them: "TRUE" or "FALSE" for
// the file operations, "iRet=<result>" for the walk.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace tz::protocol {

inline constexpr std::string_view kReplyTrue = "TRUE";
inline constexpr std::string_view kReplyFalse = "FALSE";
inline constexpr std::string_view kWalkReplyPrefix = "iRet=";

inline std::string walk_reply(int32_t result) { return std::string(kWalkReplyPrefix) + std::to_string(result); }

}  // namespace tz::protocol
