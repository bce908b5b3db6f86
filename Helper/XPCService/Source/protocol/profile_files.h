// The names of a user's profile files for a printer model, the one place that
// spells them: "<folder><user>-<model>-profile" and a suffix, the folder
// taken as a prefix as it stands. The walk writes them and a dialog or
// tzhelperctl finds them by the same names.
#pragma once

#include <string>
#include <string_view>

namespace tz::protocol {

inline constexpr std::string_view kCurrentProfileSuffix = ".plist";
inline constexpr std::string_view kPreviousProfileSuffix = ".prev.plist";
inline constexpr std::string_view kSpoolProfileSuffix = ".spool.plist";

inline std::string profile_file_path(std::string_view folder, std::string_view user, std::string_view model,
                                     std::string_view suffix) {
    std::string path;
    path.reserve(folder.size() + user.size() + model.size() + suffix.size() + 10);
    path.append(folder).append(user).append("-").append(model).append("-profile").append(suffix);
    return path;
}

}  // namespace tz::protocol
