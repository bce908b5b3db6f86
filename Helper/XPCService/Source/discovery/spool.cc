// The spool: the printer's private profile table as the walk receives it,
// one cell at a time. Each variable names its column with the first 16
// sub-identifiers of its OID and its row with the 18th; the 17th is the
// table's fixed instance prefix and is not looked at.
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <type_traits>

#include "tz_discovery.h"

static_assert(std::is_same_v<oid, unsigned long>, "the C header spells oid as unsigned long");

extern "C" {
SpoolTable PlistForSpool;
}

namespace {

constexpr std::size_t kColumnLength = 16;
constexpr std::size_t kRowIndex = 17;  // sub-identifier 18
using ColumnOid = std::array<oid, kColumnLength>;

constexpr ColumnOid column(oid n) { return {1, 3, 6, 1, 4, 1, 99991, 1, 1, 1, 1, 6, 13, 1, 1, n}; }

const ColumnOid iOidIndexOnDevice = column(1);
const ColumnOid iOidSourceType = column(2);
const ColumnOid iOidProfileName = column(3);
const ColumnOid iOidFileName = column(4);
const ColumnOid iOidProfileClass = column(5);
const ColumnOid iOidProfileAvailability = column(7);

enum class Field { IndexOnDevice, SourceType, ProfileName, FileName, ProfileClass, DriverAvail };

struct Column {
    const ColumnOid* oid;
    u_char type;
    Field field;
};

// In the order they are compared; the first column whose OID matches decides,
// and only if the type matches too.
const Column kColumns[] = {
    {&iOidIndexOnDevice, ASN_INTEGER, Field::IndexOnDevice},
    {&iOidSourceType, ASN_INTEGER, Field::SourceType},
    {&iOidProfileName, ASN_OCTET_STR, Field::ProfileName},
    {&iOidFileName, ASN_OCTET_STR, Field::FileName},
    {&iOidProfileClass, ASN_INTEGER, Field::ProfileClass},
    {&iOidProfileAvailability, ASN_INTEGER, Field::DriverAvail},
};

// Copies the value's bytes up to its first zero byte into the field, without
// a terminator, over what the field held: a shorter name relies on the zero
// bytes already there. A value of 33 bytes or more is cut to 32 rather than
// ending the walk: a device name that long cannot pass the file-name test
// anyway, and the field can hold no more.
void copy_text(char (&field)[TZ_PROFILE_TEXT], const netsnmp_variable_list& var) {
    if (var.val.string == nullptr) return;
    char scratch[TZ_PROFILE_TEXT + 1] = {};
    std::memcpy(scratch, var.val.string, std::min<std::size_t>(var.val_len, TZ_PROFILE_TEXT));
    std::memcpy(field, scratch, std::strlen(scratch));
}

int32_t low_32_bits(const netsnmp_variable_list& var) {
    if (var.val.integer == nullptr) return 0;
    return static_cast<int32_t>(static_cast<uint32_t>(*var.val.integer));
}

}  // namespace

extern "C" void vSpoolPlist(const unsigned long* name, uint64_t /*unused*/,
                            const struct variable_list* var, int32_t mode) {
    if (mode == 1) {
        std::memset(&PlistForSpool, 0, sizeof PlistForSpool);
        return;
    }
    if (name == nullptr || var == nullptr || var->name_length <= kRowIndex) return;

    const Column* match = nullptr;
    for (const Column& c : kColumns) {
        if (std::memcmp(name, c.oid->data(), sizeof(ColumnOid)) == 0 && var->type == c.type) {
            match = &c;
            break;
        }
    }
    if (match == nullptr) return;

    const oid row_number = name[kRowIndex];
    if (row_number < 1 || row_number > TZ_PROFILE_SLOTS) return;
    SpoolRecord& row = PlistForSpool.Entry[row_number - 1];

    switch (match->field) {
        case Field::IndexOnDevice:
            row.IndexOnDevice = low_32_bits(*var);
            ++PlistForSpool.iNum;
            break;
        case Field::SourceType: row.SourceType = low_32_bits(*var); break;
        case Field::ProfileClass: row.ProfileClass = low_32_bits(*var); break;
        case Field::DriverAvail: row.DriverAvail = low_32_bits(*var); break;
        case Field::ProfileName: copy_text(row.ProfileName, *var); break;
        case Field::FileName: copy_text(row.FileName, *var); break;
    }
}
