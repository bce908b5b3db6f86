// The spool on arbitrary variables: any OID length, sub-identifiers, type and
// value length. Most inputs start with a device column's OID so that rows and
// values are reached. Nothing may be written outside the spool (the address
// sanitizer's red zones around globals catch it).
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "tz_discovery.h"

namespace {

constexpr oid kColumnPrefix[] = {1, 3, 6, 1, 4, 1, 99991, 1, 1, 1, 1, 6, 13, 1, 1};

struct Input {
    const uint8_t* data;
    size_t size;
    uint8_t byte() {
        if (size == 0) return 0;
        --size;
        return *data++;
    }
    uint32_t word() {
        uint32_t w = 0;
        for (int i = 0; i < 4; ++i) w = (w << 8) | byte();
        return w;
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input in{data, size};
    const uint8_t shape = in.byte();
    if (shape == 0xFF) {  // the clear mode, now and then
        vSpoolPlist(nullptr, 0, nullptr, 1);
        return 0;
    }
    std::vector<oid> name;
    if (shape & 1) name.assign(std::begin(kColumnPrefix), std::end(kColumnPrefix));
    const size_t extra = in.byte() % 24;
    for (size_t i = 0; i < extra; ++i) name.push_back((shape & 2) ? in.byte() % 12 : in.word());
    if (name.empty()) name.push_back(0);

    netsnmp_variable_list var{};
    var.name = name.data();
    var.name_length = name.size();
    var.type = (shape & 4) ? ((shape & 8) ? ASN_OCTET_STR : ASN_INTEGER) : in.byte();
    long integer = static_cast<long>(static_cast<int32_t>(in.word()));
    std::vector<u_char> bytes(in.data, in.data + in.size);  // the rest is the value
    if (var.type == ASN_OCTET_STR) {
        var.val.string = bytes.data();
        var.val_len = bytes.size();
    } else {
        var.val.integer = &integer;
        var.val_len = sizeof integer;
    }
    vSpoolPlist(name.data(), 0, &var, (shape & 16) ? 1 : 0);
    return 0;
}
