// The tidy passes run over a table after the device merge: clean (keep named
// entries without a device row only in states 3 and 4), padding (close the
// gaps, keeping order) and salvage (state 3 becomes 6). All visit the 500
// slots whatever iNum says, and none can fail.
#include <cstring>

#include "profile_store.h"

namespace tz::store {

void clean(ProfileTable& table) {
    for (ProfileEntry& slot : table.Entry) {
        if (slot.IndexOnDevice != 0 || slot.FileName[0] == '\0') continue;
        if (slot.InMenu == 3 || slot.InMenu == 4) {
            slot.IndexOnDevice = TZ_PROFILE_SLOTS + 1;  // kept without a device row
            slot.InMenu = 3;
            continue;
        }
        std::memset(&slot, 0, sizeof slot);
        // Decreased even for a slot that was free already: the count may fall
        // below the slots in use, and below zero. The pass does not recount.
        --table.iNum;
    }
}

void pad(ProfileTable& table) {
    ProfileEntry* const slots = table.Entry;
    for (int i = 0; i < TZ_PROFILE_SLOTS; ++i) {
        if (slots[i].InMenu != 0) continue;
        int j = i + 1;
        while (j < TZ_PROFILE_SLOTS && slots[j].InMenu == 0) ++j;
        if (j == TZ_PROFILE_SLOTS) continue;
        slots[i] = slots[j];
        // The moved-from slot keeps its ProfileClass; everything else is cleared.
        const int32_t profile_class = slots[j].ProfileClass;
        std::memset(&slots[j], 0, sizeof(ProfileEntry));
        slots[j].ProfileClass = profile_class;
    }
}

void salvage(ProfileTable& table) {
    for (ProfileEntry& slot : table.Entry)
        if (slot.IndexOnDevice != 0 && slot.FileName[0] != '\0' && slot.InMenu == 3)
            slot.InMenu = 6;
}

}  // namespace tz::store
