// A scripted SNMP agent (scripted_agent.py) in a child process: one answer
// per request, in order, and a log of every request received. It stands in
// for printers that misbehave in ways snmpd cannot be made to.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "temp_dir.h"

namespace tz::test {

class ScriptedAgent {
public:
    // `script`: the JSON list of answers (see scripted_agent.py). Returns once
    // the agent has bound its port and said which.
    explicit ScriptedAgent(const std::string& script) {
        int out[2];
        if (::pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
        const std::string log = log_path();
        std::vector<std::string> args = {"/usr/bin/python3", TZ_SCRIPTED_AGENT, log, script};
        std::vector<char*> argv;
        for (auto& a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        char* envp[] = {nullptr};
        const int rc = posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), envp);
        posix_spawn_file_actions_destroy(&actions);
        ::close(out[1]);
        std::string line;
        char c = 0;
        while (rc == 0 && ::read(out[0], &c, 1) == 1 && c != '\n') line += c;
        ::close(out[0]);
        if (rc != 0 || line.empty()) {
            stop();
            throw std::runtime_error("the scripted agent did not start");
        }
        port_ = std::stoi(line);
    }
    ~ScriptedAgent() { stop(); }
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
    void stop() {
        if (pid_ <= 0) return;
        ::kill(pid_, SIGKILL);
        int status = 0;
        ::waitpid(pid_, &status, 0);
        pid_ = -1;
    }

    TempDir dir_;
    pid_t pid_ = -1;
    int port_ = 0;
};

}  // namespace tz::test
