// Helpers for the discovery tests: variables as the walk receives them,
// walks with command-line arguments, and a scripted agent (scripted_agent.py)
// for printers that misbehave in ways snmpd cannot be made to.
#pragma once

#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "profile_tables.h"
#include "snmp_agent.h"
#include "tz_discovery.h"

namespace tz::test {

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
inline std::vector<std::string> v1(const std::string& peer, const std::string& root = kProfileTable) {
    return {"-v1", "-c", "public", "-t", "0.2", "-r", "0", peer, root};
}

// The scripted agent in a child process: one answer per request, in order
// (`script` is the JSON list of answers), and a log of every request.
class ScriptedAgent {
public:
    explicit ScriptedAgent(const std::string& script)
        : out_(::popen(
              ("exec /usr/bin/python3 " TZ_SCRIPTED_AGENT " '" + log_path() + "' '" + script + "'").c_str(),
              "r")) {
        char port[16] = {};  // printed once the agent is bound
        if (out_ == nullptr || std::fgets(port, sizeof port, out_) == nullptr)
            throw std::runtime_error("the scripted agent did not start");
        port_ = std::atoi(port);
    }
    // Closing the pipe ends the agent; pclose waits for it.
    ~ScriptedAgent() { ::pclose(out_); }
    ScriptedAgent(const ScriptedAgent&) = delete;
    ScriptedAgent& operator=(const ScriptedAgent&) = delete;

    std::string peer() const { return "127.0.0.1:" + std::to_string(port_); }

    // The requests received so far, one "<get|getnext> <oid>" each.
    std::vector<std::string> requests() const {
        std::vector<std::string> lines;
        std::istringstream in(exists(log_path()) ? read_file(log_path()) : std::string());
        for (std::string line; std::getline(in, line);) lines.push_back(line);
        return lines;
    }

private:
    std::string log_path() const { return dir_.file("requests.log"); }

    TempDir dir_;
    std::FILE* out_;
    int port_ = 0;
};

}  // namespace tz::test
