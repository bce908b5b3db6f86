/*
 * The profile store: the user's profile property list, its in-memory tables,
 * the library file functions and the tidy passes. Plain C, includable from C,
 * C++ and Objective-C.
 *
 * Conventions
 *  - Results: operations that can fail return 0 on success and -1 on failure;
 *    the library file functions return 1 (yes / done) or 0. Nothing here
 *    prints, logs or throws.
 *  - Tables are plain fixed-size values owned by whoever declares them; no
 *    function allocates or frees a table. Pointers to tables must not be null
 *    unless a declaration says so.
 *  - Texts live in 32-byte fields: zero-terminated UTF-8, at most 31 bytes of
 *    text, the bytes after the terminator zero.
 *  - Every file operation works on the file named by TZ_PLIST_PROFILE_PATH
 *    (the previous copy: TZ_PLIST_PROFILE_PREV_PATH). The path is first copied
 *    into a zeroed 255-byte buffer: a path of 255 bytes or more ends the
 *    process (abort) instead of being cut.
 *    REQUIRES: the path globals point at valid paths (a walk request sets them
 *    for its own duration).
 *  - These files are the user's own: each is opened without waiting and
 *    without following a link at its last name, and used only when it is a
 *    regular file owned by the effective user; anything else is treated as a
 *    file that cannot be opened (not read, probed, copied or written).
 *  - Dictionaries handed out (TZDictionary) belong to the plist codec. A
 *    function that "hands out" a dictionary gives the caller one reference,
 *    which the caller drops with TZDictionaryRelease; a "borrowed" dictionary
 *    lives as long as the dictionary it was taken from.
 *  - Nothing takes a lock: callers serialise use of a file and of the globals.
 */
#ifndef TZ_PROFILE_STORE_H
#define TZ_PROFILE_STORE_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum {
    TZ_PROFILE_SLOTS = 500,   /* slots per category table, numbered 0 to 499 */
    TZ_PROFILE_TEXT = 32,     /* bytes of a FileName / ProfileName field */
    TZ_PATH_BUFFER = 255      /* the store's local path and key buffers */
};

/* Category numbers: 0 "RGB", 1 "SIM", 2 "DST". */
enum { TZ_CATEGORY_RGB = 0, TZ_CATEGORY_SIM = 1, TZ_CATEGORY_DST = 2 };

/* One colour profile. An all-zero entry is a free slot; InMenu 0 marks a free
 * slot too. DriverAvail lives only in memory: no file holds it. */
typedef struct ProfileEntry {
    int32_t IndexOnDevice;
    int32_t InMenu;
    int32_t ProfileClass;
    char FileName[TZ_PROFILE_TEXT];
    char ProfileName[TZ_PROFILE_TEXT];
    int32_t Location;
    int32_t DriverAvail;
} ProfileEntry;

/* One category: 500 slots and the count of slots in use. All-zero is empty. */
typedef struct ProfileTable {
    ProfileEntry Entry[TZ_PROFILE_SLOTS];
    int32_t iNum;
} ProfileTable;

#ifdef __cplusplus
static_assert(sizeof(ProfileEntry) == 84, "ProfileEntry is 84 bytes");
static_assert(offsetof(ProfileEntry, IndexOnDevice) == 0, "layout");
static_assert(offsetof(ProfileEntry, InMenu) == 4, "layout");
static_assert(offsetof(ProfileEntry, ProfileClass) == 8, "layout");
static_assert(offsetof(ProfileEntry, FileName) == 12, "layout");
static_assert(offsetof(ProfileEntry, ProfileName) == 44, "layout");
static_assert(offsetof(ProfileEntry, Location) == 76, "layout");
static_assert(offsetof(ProfileEntry, DriverAvail) == 80, "layout");
static_assert(sizeof(ProfileTable) == 500 * 84 + 4, "ProfileTable layout");
#else
_Static_assert(sizeof(ProfileEntry) == 84, "ProfileEntry is 84 bytes");
_Static_assert(offsetof(ProfileEntry, FileName) == 12, "layout");
_Static_assert(offsetof(ProfileEntry, ProfileName) == 44, "layout");
_Static_assert(offsetof(ProfileEntry, DriverAvail) == 80, "layout");
#endif

/* ---- Process-wide data ------------------------------------------------- */

/* Non-owning pointers to the current, previous and spool profile-plist paths.
 * Null until a walk request sets them; valid only while that request runs. */
extern const char *TZ_PLIST_PROFILE_PATH;
extern const char *TZ_PLIST_PROFILE_PREV_PATH;
extern const char *TZ_PLIST_PROFILE_SPOOL_PATH;

/* The key texts of the file, modifiable: "IndexOnDevice", "InMenu",
 * "ProfileClass", "FileName", "ProfileName", "Location", "DriverAvail"
 * (used nowhere) and "PlistVersion". Per-slot keys are "%s%04d" of the first
 * six and the slot number. */
extern char cIndexOnDeviceKey[32];
extern char cInMenuKey[32];
extern char cProfileClassKey[32];
extern char cFileNameKey[32];
extern char cProfileNameKey[32];
extern char cLocationKey[32];
extern char cDriverAvailKey[32];
extern char cPlistVersionKey[32];

/* Zero at start; declared for a data browser, used by no operation here. */
extern ProfileTable PlistCurrentForDataBrowser;

/* ---- Library file functions -------------------------------------------- */

/* Probes whether the current profile path can be opened for writing
 * (O_RDWR|O_APPEND|O_CREAT, 0664). Sets the process umask to 002 for good.
 * A file the probe created is unlinked again. Returns 1 if it could, else 0. */
int TZPListIsAdminProfile(void);

/* Swaps the current and previous profile files, only if the probe passes:
 * 0 previous becomes current, 1 previous removed, 2 current copied to
 * previous; any other type does nothing. Failures are not reported. */
void TZPListSwapProfile(int32_t swap_type);

/* Returns 1 if the probe passes and the current profile file opens for
 * reading, else 0. */
int TZPListExistProfile(void);

/* Removes the current (selector 3) or previous (selector 2) profile file if
 * the probe passes. Returns 1 if removed; 0 otherwise, and for any other
 * selector without removing anything. */
int TZPListRemove(int32_t selector);

/* ---- Codec dictionaries ------------------------------------------------- */

/* A property-list dictionary of the codec, reference counted. Keys are byte
 * strings; values are integers, strings, dictionaries or values the codec
 * does not model (booleans, reals, dates, data, arrays), which no reader here
 * takes for an integer or a string. */
typedef struct TZDictionary TZDictionary;

/* Adds one reference and returns `dict`; null is allowed and returned. */
TZDictionary *TZDictionaryRetain(TZDictionary *dict);

/* Drops one reference; null is allowed and ignored. */
void TZDictionaryRelease(TZDictionary *dict);

/* The number of keys in `dict`. */
size_t TZDictionaryGetCount(const TZDictionary *dict);

/* 1 if `dict` holds `key` (whatever the value's type), else 0. */
int TZDictionaryContainsKey(const TZDictionary *dict, const char *key);

/* Borrows the dictionary under `key`: it lives as long as `dict`. Null when
 * the key is missing or holds another type. */
TZDictionary *TZDictionaryGetDictionary(const TZDictionary *dict, const char *key);

/* Reads the integer under `key` into *value if the key is present and holds an
 * integer in the signed 32-bit range; otherwise *value is untouched. A value
 * of another type, or a wider integer, is skipped: never converted, never cut
 * to its low 32 bits. */
void ReadDictionaryIntEntry(const TZDictionary *dict, const char *key, int32_t *value);

/* Reads the string under `key` into the 32-byte `field` (at most 31 bytes,
 * cut even inside a multi-byte character, zero-filled after the text; the
 * text ends at a zero byte it may hold) if the key is present and holds a
 * string; otherwise, a value of another type included, the field is
 * untouched.
 * REQUIRES: field has room for 32 bytes. */
void ReadDictionaryStringEntry(const TZDictionary *dict, const char *key, char *field);

/* ---- Reading ------------------------------------------------------------ */

/* Reads the current profile plist (XML, or binary "bplist00") into the three
 * tables (RGB, SIM, DST). Returns 0 when read; -1 when the file cannot be read
 * or parsed or a category or field dictionary is missing (a value of another
 * type counts as missing), with the tables untouched. Missing slot keys and a
 * missing "iNum" leave the caller's values, and so does a slot value of the
 * wrong type or an integer outside the signed 32-bit range. The tables are
 * never cleared first. Files above 64 MiB and dictionaries nested more than
 * 64 deep are refused as unreadable. */
int32_t TZPListReadProfile_All(ProfileTable *rgb, ProfileTable *sim, ProfileTable *dst);

/* Makes iNum agree with the slots in use: when the number k of slots whose
 * InMenu is not 0 differs from iNum, clears slots k..499 and sets iNum to k.
 * It trusts the slots in use to come first: a slot in use behind a gap is
 * cleared with the rest (closing gaps is the padding pass's job). */
void TZPlistCheckWithInMenu_Dict(ProfileTable *table);

/* Reads one category (0 RGB, 1 SIM, 2 DST) into `table`. Returns 0, or -1
 * (table untouched) when the file, the category or one of its six field
 * dictionaries is missing, or the selector is not 0 to 2. */
int32_t TZPListReadProfile_Dict(ProfileTable *table, int32_t category);

/* As TZPListReadProfile_Dict, but file slots whose InMenu is 2 are left out
 * (later slots move up; the last table slots then keep their values) and
 * InMenu 4 is stored as 6. "iNum" is taken as the file has it, then checked
 * against the slots in use. */
int32_t TZPListReadProfile_Dict_Pap(ProfileTable *table, int32_t category);

/* ---- Writing ------------------------------------------------------------ */

/* Writes the three tables to the current profile plist, replacing it; all 500
 * slots of all six fields, whatever iNum says. Returns 0 when written; -1 when
 * the probe fails (file untouched) or the write fails. */
int32_t TZPListWriteProfile_All(const ProfileTable *rgb, const ProfileTable *sim,
                                const ProfileTable *dst);

/* Builds the category dictionary of one table. Hands out eight dictionaries:
 * the result (holding the category dictionary under "RGB", "SIM" or "DST";
 * empty for another category number) and, through the seven outputs, the
 * category dictionary and the field dictionaries. The caller releases each. */
TZDictionary *CreatePropsDictionary(uint32_t category, const ProfileTable *table,
                                    TZDictionary **category_dict,
                                    TZDictionary **index_on_device_dict,
                                    TZDictionary **in_menu_dict,
                                    TZDictionary **profile_class_dict,
                                    TZDictionary **location_dict,
                                    TZDictionary **file_name_dict,
                                    TZDictionary **profile_name_dict);

/* Replaces one category of the file with `table`, writing back the other two
 * as read (empty when the file cannot be read). The optional outputs (may be
 * null) receive what the file was meant to hold. Returns the result of
 * TZPListWriteProfile_All; -1 without writing for a category above 2. */
int32_t TZPListWriteProfile_Dict(const ProfileTable *table, uint32_t category,
                                 ProfileTable *rgb_out, ProfileTable *sim_out,
                                 ProfileTable *dst_out);

/* ---- Tidy passes (cannot fail) ------------------------------------------ */

/* All three visit the 500 slots whatever iNum says. */

/* A named slot without a device row (IndexOnDevice 0, FileName not empty) is
 * kept with IndexOnDevice 501 and InMenu 3 if its InMenu is 3 or 4; any other
 * such slot is cleared and iNum decreased, even for a slot that was free
 * already: the count may fall below the slots in use, and below zero. */
void TZPListCleanProfile_Dict(ProfileTable *table);

/* Moves the slots in use to the front, keeping their order. A moved-from slot
 * is cleared except for its ProfileClass. iNum is not touched. */
void TZPListPaddingProfile_Dict(ProfileTable *table);

/* A named slot with a device row and InMenu 3 gets InMenu 6. */
void TZPListSalvage_Dict(ProfileTable *table);

/* ---- Mapping ------------------------------------------------------------ */

/* Merges the current table's entries marked 2 or 4 that neither the new nor
 * the exclusion table holds (same FileName as strcmp, same Location), then the
 * whole new table, into `result` (at most 500 entries; the rest is dropped).
 * Only slots below each table's iNum are looked at; result slots from its new
 * iNum on are not written. `result` must not be one of the other three. */
void TZPListMapping_Pap(const ProfileTable *new_table, const ProfileTable *current,
                        ProfileTable *result, const ProfileTable *exclusion);

/* Reads the current file and maps each category. Always returns 0. */
int32_t TZPListMappingProfile_All_Pap(const ProfileTable *new_rgb, const ProfileTable *new_sim,
                                      const ProfileTable *new_dst, ProfileTable *result_rgb,
                                      ProfileTable *result_sim, ProfileTable *result_dst,
                                      const ProfileTable *exclusion_rgb,
                                      const ProfileTable *exclusion_sim,
                                      const ProfileTable *exclusion_dst);

/* Hands out copies of the three category dictionaries of the current file.
 * Returns 0, or -1 when the file cannot be read or a category is missing (the
 * copies made before the miss stay handed out). */
int32_t TZPListMappingGetMainDict_FromPlist(TZDictionary **rgb, TZDictionary **sim,
                                            TZDictionary **dst);

/* Borrows the six field dictionaries of a category dictionary and reads its
 * "iNum" into *count if present. Returns 0, or -1 at the first missing field
 * dictionary (the outputs before it written, the rest untouched). */
int32_t TZPListMappingGetSubDict(const TZDictionary *category_dict,
                                 TZDictionary **index_on_device_dict,
                                 TZDictionary **in_menu_dict,
                                 TZDictionary **profile_class_dict,
                                 TZDictionary **location_dict,
                                 TZDictionary **file_name_dict,
                                 TZDictionary **profile_name_dict, int32_t *count);

/* Writes the three new tables merged with the current file's device-marked
 * entries (less the exclusion tables). Returns 0, or -1 when the probe fails
 * (file neither read nor written) or the write fails. */
int32_t TZPListWriteProfile_All_Pap(const ProfileTable *new_rgb, const ProfileTable *new_sim,
                                    const ProfileTable *new_dst,
                                    const ProfileTable *exclusion_rgb,
                                    const ProfileTable *exclusion_sim,
                                    const ProfileTable *exclusion_dst);

#ifdef __cplusplus
}
#endif

#endif /* TZ_PROFILE_STORE_H */
