// The benchmarks' printer: rows 1..`rows` of the profile table, all seven
// columns (so 500 rows are 3,500 variables), as snmpd override lines.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "snmp_agent.h"

namespace tz::bench {

inline const std::string kTable = "1.3.6.1.4.1.99991.1.1.1.1.6.13.1.1";

inline std::vector<std::string> device_table(int rows) {
    std::vector<std::string> lines;
    for (int r = 1; r <= rows; ++r) {
        const std::string row = ".1." + std::to_string(r);
        char name[32];
        std::snprintf(name, sizeof name, "PRF%05d.ICC", r);
        lines.push_back(tz::test::override_integer(kTable + ".1" + row, r));
        lines.push_back(tz::test::override_integer(kTable + ".2" + row, 4 + r % 2));
        lines.push_back(tz::test::override_string(kTable + ".3" + row, "Profile " + std::to_string(r)));
        lines.push_back(tz::test::override_string(kTable + ".4" + row, name));
        lines.push_back(tz::test::override_integer(kTable + ".5" + row, (r - 1) % 3 + 1));
        lines.push_back(tz::test::override_integer(kTable + ".6" + row, 0));
        lines.push_back(tz::test::override_integer(kTable + ".7" + row, 1));
    }
    return lines;
}

}  // namespace tz::bench
