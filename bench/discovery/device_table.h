// The benchmarks' printer: the tests' sample printer (snmp_agent.h) with its
// sixth column too, so 500 rows are 3,500 variables, as snmpd override lines.
#pragma once

#include <string>
#include <vector>

#include "snmp_agent.h"

namespace tz::bench {

inline const std::string& kTable = tz::test::kProfileTable;

inline std::vector<std::string> device_table(int rows) {
    std::vector<std::string> lines = tz::test::printer_table(rows);
    for (int r = 1; r <= rows; ++r)
        lines.push_back(tz::test::override_integer(tz::test::cell(6, r), 0));
    return lines;
}

}  // namespace tz::bench
