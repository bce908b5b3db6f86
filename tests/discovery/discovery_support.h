// Discovery test helpers: variables handed to the spool, walks with arguments.
#pragma once

#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>

#include <sstream>

#include "profile_tables.h"
#include "scripted_agent.h"
#include "snmp_agent.h"
#include "tz_discovery.h"

namespace tz::test {

// The sub-identifiers of `dotted` (parsed here: the library's parser needs the library started).
inline std::vector<oid> oid_of(const std::string& dotted) {
    std::vector<oid> name;
    for (std::istringstream in(dotted); name.size() < MAX_OID_LEN && in >> name.emplace_back(); in.ignore(1)) {}
    name.pop_back();  // the failed read past the end
    return name;
}

// Hands one variable named `dotted` to the spool as the walk does (its name cut to `cut` if given).
inline void spool(const std::string& dotted, u_char type, const void* value, size_t length, size_t cut = 0) {
    std::vector<oid> name = oid_of(dotted);
    netsnmp_variable_list* var = nullptr;
    snmp_varlist_add_variable(&var, name.data(), cut ? cut : name.size(), type, value, length);
    vSpoolPlist(name.data(), 0, var, 0);
    snmp_free_varbind(var);
}
inline void spool_int(const std::string& name, long value,
                      size_t cut = 0) { spool(name, ASN_INTEGER, &value, sizeof value, cut); }
inline void spool_text(const std::string& name,
                       const std::string& s) { spool(name, ASN_OCTET_STR, s.data(), s.size()); }

// Fills spool row `row` from the six columns; index < 0 leaves the index cell out.
inline void spool_row(int row, int index, int source, const std::string& file, int cls,
                      const std::string& profile = "P") {
    if (index >= 0) spool_int(cell(1, row), index);
    for (const auto& [column, value] : {std::pair{2, source}, {5, cls}, {7, 1}}) spool_int(cell(column, row), value);
    spool_text(cell(3, row), profile), spool_text(cell(4, row), file);
}

inline int32_t walk(std::vector<std::string> arguments) {  // argv[0] "snmpwalk", writable copies
    arguments.insert(arguments.begin(), "snmpwalk");
    std::vector<char*> argv(arguments.size() + 1, nullptr);
    for (std::size_t i = 0; i < arguments.size(); ++i) argv[i] = arguments[i].data();
    return mib_walk(static_cast<int32_t>(arguments.size()), argv.data());
}

inline std::vector<std::string> v1(const std::string& peer, const std::string& root = kProfileTable) {  // fast failing
    return {"-v1", "-c", "public", "-t", "0.2", "-r", "0", peer, root};
}

}  // namespace tz::test
