// When two profile entries are "the same profile". The file's history gives
// the word two meanings, and this is the one place that spells either:
//  - the device merge (the rebuild, and the walk summary that reports what the
//    rebuild did): all 32 FileName bytes equal, bytes after the terminator
//    included, and the same Location;
//  - the mapping: FileName equal as zero-terminated strings (bytes after the
//    terminator do not count), and the same Location.
// The two agree on every table read from a file: the reader zero-fills each
// field after its text.
#pragma once

#include <cstdint>
#include <cstring>

#include "tz_profile_store.h"

namespace tz::store {

using ProfileText = char[TZ_PROFILE_TEXT];

inline bool same_profile_for_merge(const ProfileText& a_file, int32_t a_location, const ProfileText& b_file,
                                   int32_t b_location) {
    return a_location == b_location && std::memcmp(a_file, b_file, TZ_PROFILE_TEXT) == 0;
}
inline bool same_profile_for_merge(const ProfileEntry& a, const ProfileEntry& b) {
    return same_profile_for_merge(a.FileName, a.Location, b.FileName, b.Location);
}

inline bool same_profile_for_mapping(const ProfileEntry& a, const ProfileEntry& b) {
    return a.Location == b.Location && std::strncmp(a.FileName, b.FileName, TZ_PROFILE_TEXT) == 0;
}

}  // namespace tz::store
