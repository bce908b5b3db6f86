// scripted_agent.py (the members of its JSON script given) in a child process: its requests, and holding its answers.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <sstream>

#include "temp_dir.h"

namespace tz::test {

class ScriptedAgent {
public:
    explicit ScriptedAgent(const std::string& script)
        : out_(::popen(("exec /usr/bin/python3 " TZ_SCRIPTED_AGENT " " + log_ + " '{\"hold\": \"" + hold_ + "\"" +
                        (script.empty() ? "" : ", ") + script + "}'").c_str(), "r")) {
        char port[16] = {};
        if (out_ == nullptr || std::fgets(port, sizeof port, out_) == nullptr) throw std::runtime_error("no agent");
        peer_ = "127.0.0.1:" + std::to_string(std::atoi(port));
    }
    ~ScriptedAgent() { ::pclose(out_); }  // closing the pipe ends the agent
    ScriptedAgent(const ScriptedAgent&) = delete;
    const std::string& peer() const { return peer_; }
    std::vector<std::string> requests() const {  // "<get|getnext> <oid>" each
        std::vector<std::string> lines;
        std::istringstream in(exists(log_) ? read_file(log_) : std::string());
        for (std::string line; std::getline(in, line);) lines.push_back(line);
        return lines;
    }
    // The most answers it has had waiting at once: the requests in flight, as the agent saw them.
    int most_waiting() const { return exists(log_ + ".most") ? std::stoi(read_file(log_ + ".most")) : 0; }
    // Whether `count` requests came within a minute.
    bool wait_for_requests(std::size_t count) const {
        return wait_until([&] { return requests().size() >= count; }, std::chrono::minutes(1));
    }
    // Held, answers wait; let go, the agent sends them in order.
    void hold(bool on) const {
        if (on) write_file(hold_, "");
        else std::filesystem::remove(hold_);
    }

private:
    TempDir dir_;
    const std::string log_ = dir_.file("log"), hold_ = dir_.file("hold");
    std::FILE* out_;
    std::string peer_;
};

}  // namespace tz::test
