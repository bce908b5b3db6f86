// Rebuilding the profile plist at the end of a walk: what the file held, less
// the device marks (or, after a failed walk, less what depended on the
// device), less entries with refused file names, plus what the printer
// reported, tidied and written back. The marks: 2 for a reported entry that
// was 1 or 5 and for every entry newly taken from the printer, 4 for a
// reported entry that was 3 or 6.
#include <algorithm>
#include <cstring>

#include "same_profile.h"
#include "tz_discovery.h"

namespace {

// A field may fill all 32 bytes without a terminator (a spool row does when
// the printer sends a 32-byte name): test a terminated copy.
bool name_accepted(const char (&field)[TZ_PROFILE_TEXT]) {
    char name[TZ_PROFILE_TEXT + 1] = {};
    std::memcpy(name, field, TZ_PROFILE_TEXT);
    return bJudgement8point3Format(name);
}

// Clears entries whose file name is refused and lowers the count for each.
// Returns true if any was removed.
bool remove_refused_names(ProfileTable* tables[3]) {
    bool removed = false;
    for (int slot = 0; slot < TZ_PROFILE_SLOTS; ++slot) {
        for (int t = 0; t < 3; ++t) {
            ProfileEntry& entry = tables[t]->Entry[slot];
            if (entry.FileName[0] == '\0' || name_accepted(entry.FileName)) continue;
            std::memset(&entry, 0, sizeof entry);
            --tables[t]->iNum;
            removed = true;
        }
    }
    return removed;
}

}  // namespace

extern "C" void vDeleteMIBprofilesTemporary(int32_t status, ProfileTable* table) {
    for (ProfileEntry& entry : table->Entry) {
        switch (entry.InMenu) {
            case 1: entry.InMenu = status == 0 ? 1 : 0; break;
            case 2: entry.InMenu = status == 0 ? 1 : 0; break;
            case 4: entry.InMenu = status == 0 ? 3 : 6; break;
            default: break;
        }
    }
}

extern "C" void vRestructDetail(int32_t row, ProfileTable* table) {
    if (row < 0 || row >= TZ_PROFILE_SLOTS) return;
    const SpoolRecord& source = PlistForSpool.Entry[row];

    const int32_t in_use = std::min<int32_t>(table->iNum, TZ_PROFILE_SLOTS);
    for (int32_t slot = 0; slot < in_use; ++slot) {
        ProfileEntry& entry = table->Entry[slot];
        if (!tz::store::same_profile_for_merge(entry.FileName, entry.Location, source.FileName,
                                               source.SourceType))
            continue;
        if (entry.InMenu == 1 || entry.InMenu == 5) entry.InMenu = 2;
        else if (entry.InMenu == 3 || entry.InMenu == 6) entry.InMenu = 4;
        return;
    }

    // Not known yet: the first free slot takes the whole row. A full table
    // drops it.
    for (ProfileEntry& entry : table->Entry) {
        if (entry.InMenu != 0) continue;
        std::memcpy(&entry, &source, sizeof entry);
        entry.InMenu = 2;
        ++table->iNum;
        return;
    }
}

extern "C" int32_t vRestructPlistSpool2Current(int32_t status) {
    ProfileTable rgb{};  // all zero: empty tables
    ProfileTable sim{};
    ProfileTable dst{};
    ProfileTable* tables[3] = {&rgb, &sim, &dst};

    // A file that cannot be read leaves the tables empty (or as far as the
    // reader got): the rebuild writes what it has.
    (void)TZPListReadProfile_All(&rgb, &sim, &dst);

    for (ProfileTable* table : tables) vDeleteMIBprofilesTemporary(status, table);

    // Only RGB is closed up here, wherever the refused names were: SIM and DST
    // are closed up by the tidy passes below, and the merge in between looks
    // for free slots anywhere in the table.
    if (remove_refused_names(tables)) TZPListPaddingProfile_Dict(&rgb);

    // After a failed walk the spool holds what arrived before the failure.
    const int32_t rows = std::min<int32_t>(PlistForSpool.iNum, TZ_PROFILE_SLOTS);
    for (int32_t row = 0; row < rows; ++row) {
        const SpoolRecord& record = PlistForSpool.Entry[row];
        if (record.SourceType != 4 && record.SourceType != 5) continue;
        if (!name_accepted(record.FileName)) continue;
        if (record.ProfileClass == 1 || record.ProfileClass == 2) {
            vRestructDetail(row, &rgb);
        } else if (record.ProfileClass == 3) {
            vRestructDetail(row, &sim);
            vRestructDetail(row, &dst);
        }
    }

    for (ProfileTable* table : tables) {
        TZPListCleanProfile_Dict(table);
        TZPListPaddingProfile_Dict(table);
        TZPListSalvage_Dict(table);
    }
    return TZPListWriteProfile_All(&rgb, &sim, &dst);
}
