// Helpers for the discovery tests: variables as the walk receives them,
// walks with command-line arguments, and a profile plist in a temporary
// folder for the rebuild to read and write.
#pragma once

#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "temp_dir.h"
#include "tz_discovery.h"

namespace tz::test {

inline const std::string kTable = "1.3.6.1.4.1.99991.1.1.1.1.6.13.1.1";

// "<table>.<column>.1.<row>", the OID of one cell of the printer's table.
inline std::string cell(int column, int row) {
    return kTable + "." + std::to_string(column) + ".1." + std::to_string(row);
}

// One received variable, owning its value.
class Variable {
public:
    Variable(const std::string& dotted, u_char type, const void* value, size_t length) {
        std::memset(&var_, 0, sizeof var_);
        // Parsed here: the library's parser needs the library started.
        oid name[MAX_OID_LEN];
        size_t name_length = 0;
        for (size_t at = 0; at <= dotted.size() && name_length < MAX_OID_LEN;) {
            const size_t dot = std::min(dotted.find('.', at), dotted.size());
            name[name_length++] = std::stoul(dotted.substr(at, dot - at));
            at = dot + 1;
        }
        snmp_set_var_objid(&var_, name, name_length);
        snmp_set_var_typed_value(&var_, type, value, length);
    }
    static Variable integer(const std::string& dotted, long value) {
        return Variable(dotted, ASN_INTEGER, &value, sizeof value);
    }
    static Variable text(const std::string& dotted, const std::string& value) {
        return Variable(dotted, ASN_OCTET_STR, value.data(), value.size());
    }
    Variable(Variable&& other) noexcept : var_(other.var_) {
        // The name and a short value live inside the record: re-point them.
        if (other.var_.name == other.var_.name_loc) var_.name = var_.name_loc;
        if (other.var_.val.string == other.var_.buf) var_.val.string = var_.buf;
        std::memset(&other.var_, 0, sizeof other.var_);
    }
    ~Variable() { snmp_free_var_internals(&var_); }

    // Hands the variable to the spool as the walk does.
    void spool() const { vSpoolPlist(var_.name, 0, &var_, 0); }

private:
    netsnmp_variable_list var_;
};

// Runs mib_walk with argv[0] "snmpwalk" and `arguments`, from writable copies.
inline int32_t walk(const std::vector<std::string>& arguments) {
    std::vector<std::string> copies = {"snmpwalk"};
    copies.insert(copies.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (auto& a : copies) argv.push_back(a.data());
    argv.push_back(nullptr);
    return mib_walk(static_cast<int32_t>(copies.size()), argv.data());
}

// Fast failing v1 walk options for an agent on 127.0.0.1.
inline std::vector<std::string> v1(const std::string& peer, const std::string& root) {
    return {"-v1", "-c", "public", "-t", "0.2", "-r", "0", peer, root};
}

// A profile plist folder: points the store's path globals at its files for
// the lifetime of the object.
class ProfileFiles {
public:
    ProfileFiles()
        : current_(dir_.file("alice-ModelX-profile.plist")),
          previous_(dir_.file("alice-ModelX-profile.prev.plist")),
          spool_(dir_.file("alice-ModelX-profile.spool.plist")) {
        TZ_PLIST_PROFILE_PATH = current_.c_str();
        TZ_PLIST_PROFILE_PREV_PATH = previous_.c_str();
        TZ_PLIST_PROFILE_SPOOL_PATH = spool_.c_str();
    }
    ~ProfileFiles() {
        TZ_PLIST_PROFILE_PATH = TZ_PLIST_PROFILE_PREV_PATH = TZ_PLIST_PROFILE_SPOOL_PATH = nullptr;
    }
    const std::string& current() const { return current_; }

private:
    TempDir dir_;
    std::string current_, previous_, spool_;
};

// An entry with the given fields, the rest zero.
inline ProfileEntry entry(int in_menu, int index, int cls, const char* file, int location,
                          const char* profile = "") {
    ProfileEntry e;
    std::memset(&e, 0, sizeof e);
    e.IndexOnDevice = index;
    e.InMenu = in_menu;
    e.ProfileClass = cls;
    std::strncpy(e.FileName, file, sizeof e.FileName - 1);
    std::strncpy(e.ProfileName, profile, sizeof e.ProfileName - 1);
    e.Location = location;
    return e;
}

struct Tables {
    ProfileTable rgb, sim, dst;
    Tables() {
        std::memset(&rgb, 0, sizeof rgb);
        std::memset(&sim, 0, sizeof sim);
        std::memset(&dst, 0, sizeof dst);
    }
    ProfileTable& operator[](int category) { return category == 0 ? rgb : category == 1 ? sim : dst; }
    void add(int category, const ProfileEntry& e) {
        ProfileTable& t = (*this)[category];
        t.Entry[t.iNum++] = e;
    }
    int32_t write() const { return TZPListWriteProfile_All(&rgb, &sim, &dst); }
    int32_t read() { return TZPListReadProfile_All(&rgb, &sim, &dst); }
};

// Fills spool row `row` (from 1) as the walk would from the six columns.
inline void spool_row(int row, int index, int source, const std::string& file, int cls,
                      const std::string& profile = "P") {
    Variable::integer(cell(1, row), index).spool();
    Variable::integer(cell(2, row), source).spool();
    Variable::text(cell(3, row), profile).spool();
    Variable::text(cell(4, row), file).spool();
    Variable::integer(cell(5, row), cls).spool();
    Variable::integer(cell(7, row), 1).spool();
}

}  // namespace tz::test
