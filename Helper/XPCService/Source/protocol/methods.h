// The helper's eight methods, in the protocol's order: the one list of their
// names. The service pairs its operations with it, the bus front registers
// it, the client and tzhelperctl call by it, and the published interface XML
// and the macOS front's selectors are checked against it. Each method takes
// one request string and answers one reply string (request.h).
#pragma once

#include <array>
#include <string_view>

namespace tz::protocol {

struct Method {
    std::string_view name;
    // Waits for a device rather than the file system: a caller allows it
    // minutes where the other methods get seconds.
    bool long_running;
};

// Declared in the protocol's order, the order kMethods lists them in.
inline constexpr Method kIsAdmin{"tzPListIsAdminProfile_XPC", false};
inline constexpr Method kSwap{"tzPListSwapProfile_XPC", false};
inline constexpr Method kExist{"tzPListExistProfile_XPC", false};
inline constexpr Method kRemove{"tzPListRemove_XPC", false};
inline constexpr Method kWriteDictionary{"writeDictionaryToPlistFile_XPC", false};
inline constexpr Method kWriteData{"writeDataToPlistFile_XPC", false};
inline constexpr Method kWriteDataRename{"writeDataToPlistFileRename_XPC", false};
inline constexpr Method kMibWalk{"mibwalk_XPC", true};

inline constexpr std::array<Method, 8> kMethods{
    kIsAdmin, kSwap, kExist, kRemove, kWriteDictionary, kWriteData, kWriteDataRename, kMibWalk};

// The method called `name` (exact spelling), or null for a name the helper
// does not serve.
constexpr const Method* find_method(std::string_view name) {
    for (const Method& method : kMethods)
        if (method.name == name) return &method;
    return nullptr;
}

}  // namespace tz::protocol
