// The spool on arbitrary variables (OID, type, value), most under a device column so that rows and values
// are reached; the address sanitizer catches a write outside the spool.
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include "tz_discovery.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    auto byte = [&]() -> uint32_t { return size == 0 ? 0 : (--size, *data++); };
    auto word = [&] { return byte() << 24 | byte() << 16 | byte() << 8 | byte(); };  // any order will do
    const uint32_t shape = byte();
    if (shape == 0xFF) return vSpoolPlist(nullptr, 0, nullptr, 1), 0;  // the clear mode, now and then
    std::vector<oid> name = (shape & 1) ? std::vector<oid>{1, 3, 6, 1, 4, 1, 99991, 1, 1, 1, 1, 6, 13, 1, 1}
                                        : std::vector<oid>{};
    for (size_t i = 0, extra = byte() % 24; i < extra; ++i) name.push_back((shape & 2) ? byte() % 12 : word());
    if (name.empty()) name.push_back(0);
    netsnmp_variable_list var{};
    var.name = name.data(), var.name_length = name.size(),
        var.type = (shape & 4) ? ((shape & 8) ? ASN_OCTET_STR : ASN_INTEGER) : byte();
    long integer = static_cast<int32_t>(word());
    std::vector<u_char> bytes(data, data + size);  // the rest is the value
    if (var.type == ASN_OCTET_STR) var.val.string = bytes.data(), var.val_len = bytes.size();
    else var.val.integer = &integer, var.val_len = sizeof integer;
    vSpoolPlist(name.data(), 0, &var, (shape & 16) ? 1 : 0);
    return 0;
}
