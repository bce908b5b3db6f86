// The service object: the eight operations of the helper's protocol, free of
// any transport. A front (D-Bus on Linux, XPC on macOS) makes one per client
// connection and hands it each request string with a reply callable.
//
// Every operation calls `reply` exactly once, after all its work, with "TRUE",
// "FALSE" or "iRet=%d". A request whose markers are missing or out of order
// throws std::out_of_range (its message names the marker) before any reply
// and before any file is touched; the front turns that into "no reply" (XPC)
// or a named error (D-Bus).
//
// The object holds only its configuration and never changes it: any number
// of threads may use one object, or several, at the same time. Walks take
// turns: the walk's state is process-wide, so mibwalk_XPC waits, in arrival
// order, until no other walk runs in the process.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "methods.h"
#include "private_folder.h"

namespace tz {

inline constexpr std::string_view kDefaultPreferencesDir =
    "/Library/Printers/TAZOREX/Preferences/tazorex.printers.T48Q/";

class Service {
public:
    using Reply = std::function<void(const std::string&)>;
    // Any one of the eight operations below, as the fronts dispatch them.
    using Operation = void (Service::*)(std::string_view request, const Reply& reply) const;

    // How a walk takes its folder: as it stands (the macOS front's folder), or
    // as the user's private folder, checked by private_folder_problem before
    // every walk (the Linux front's).
    enum class Folder { as_given, private_to_user };

    // `preferences_dir` is the folder of the profile plists that a walk
    // rewrites; it is used as a prefix as it stands, so it ends with '/'.
    explicit Service(std::string preferences_dir = std::string(kDefaultPreferencesDir),
                     Folder folder = Folder::as_given);

    const std::string& preferences_dir() const { return preferences_dir_; }

    // Request: a path. "TRUE" if the path could be opened for writing; "FALSE"
    // for a FIFO or a socket (Opening::named in file_ops.h).
    void tzPListIsAdminProfile_XPC(std::string_view request, const Reply& reply) const;
    // Request: "<type>:ARG_iSwapType<current>:ARG_cFooCurrentString<previous>:ARG_cFooPrevString".
    // Checks nothing first; always "TRUE" (swap_profiles in file_ops.h).
    void tzPListSwapProfile_XPC(std::string_view request, const Reply& reply) const;
    // Request: a path. "TRUE" if it opens for reading (a folder does); "FALSE"
    // for a FIFO or a socket. Write access is not checked.
    void tzPListExistProfile_XPC(std::string_view request, const Reply& reply) const;
    // Request: a path. "TRUE" if it was removed (a file or an empty folder).
    void tzPListRemove_XPC(std::string_view request, const Reply& reply) const;
    // Request: "<file URL>:AddURL:END<text>". Writes the text, replacing the file.
    void writeDictionaryToPlistFile_XPC(std::string_view request, const Reply& reply) const;
    // Request: "<file URL>:AddURL:END<piece>". Appends the piece to "<URL>.dummy".
    void writeDataToPlistFile_XPC(std::string_view request, const Reply& reply) const;
    // Request: a file URL. Unlinks the target and renames "<path>.dummy" onto it.
    void writeDataToPlistFileRename_XPC(std::string_view request, const Reply& reply) const;
    // Request: "<model>:ModelName:END<user>:USErName:END<arg0>:arg:<arg1>:arg:...".
    // Points the profile path globals at "<folder><user>-<model>-profile.plist"
    // (and ".prev.plist", ".spool.plist"), walks with arguments arg0..argN-1
    // (the piece after the last ":arg:" is dropped; arg0 is the program-name
    // slot) and replies "iRet=<walk result>", then logs
    // "xpc - mibwalk_XPC - iRet=<result>" at LOG_ERR. A missing name is
    // "(null)" in the paths. A path of 256 bytes or more ends the process.
    // More than 511 arguments: no walk; replies and logs "iRet=-1", the
    // parser's "refused" code. A private folder that private_folder_problem
    // refuses: no walk; logs the problem at LOG_ERR, replies and logs "iRet=1"
    // (the walk's failure). Waits for the walks that asked before it.
    void mibwalk_XPC(std::string_view request, const Reply& reply) const;

private:
    // mibwalk_XPC's work once it has its turn; returns the walk's result.
    int32_t walk(std::string_view request) const;
    std::string preferences_dir_;
    Folder folder_;
};

// The operations in the protocol's order, each under the name its member is
// spelled with. The check below holds those names to the protocol's table,
// so a front that pairs kMethods[i] with kOperations[i] cannot serve one
// method under another's name.
struct NamedOperation {
    std::string_view name;
    Service::Operation operation;
};

#define TZ_OPERATION(member) NamedOperation{#member, &Service::member}
inline constexpr std::array<NamedOperation, protocol::kMethods.size()> kOperations{
    TZ_OPERATION(tzPListIsAdminProfile_XPC),      TZ_OPERATION(tzPListSwapProfile_XPC),
    TZ_OPERATION(tzPListExistProfile_XPC),        TZ_OPERATION(tzPListRemove_XPC),
    TZ_OPERATION(writeDictionaryToPlistFile_XPC), TZ_OPERATION(writeDataToPlistFile_XPC),
    TZ_OPERATION(writeDataToPlistFileRename_XPC), TZ_OPERATION(mibwalk_XPC),
};
#undef TZ_OPERATION

static_assert(
    [] {
        for (std::size_t i = 0; i < kOperations.size(); ++i)
            if (kOperations[i].name != protocol::kMethods[i].name) return false;
        return true;
    }(),
    "kOperations must list the protocol's methods by their names, in its order");

}  // namespace tz
