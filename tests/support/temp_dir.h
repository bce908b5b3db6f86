// A temporary folder for one test, removed with everything in it at the end, whole-file reads and writes, child
// processes, and polling for a condition.
#pragma once

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace tz::test {

class TempDir {
public:
    TempDir() : path_(std::filesystem::temp_directory_path() / "tz-test-XXXXXX") {
        std::string pattern = path_.string();
        if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
        path_ = pattern;
    }
    ~TempDir() {  // a test may have taken the folder's permissions away
        std::error_code ignored;
        std::filesystem::permissions(path_, std::filesystem::perms::owner_all, std::filesystem::perm_options::add,
                                     ignored);
        std::filesystem::remove_all(path_, ignored);
    }
    TempDir(const TempDir&) = delete;
    const std::filesystem::path& path() const { return path_; }
    std::string file(const std::string& name) const { return (path_ / name).string(); }  // a path inside
    std::string prefix() const { return path_.string() + "/"; }                           // the folder and a '/'

private:
    std::filesystem::path path_;
};

// Throw std::runtime_error when the file cannot be written or read.
inline void write_file(const std::string& path, const std::string& content) {
    if (!(std::ofstream(path, std::ios::binary) << content)) throw std::runtime_error("cannot write " + path);
}
inline std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error("cannot read " + path);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}
// Whether anything, a dangling link included, is at `path`.
inline bool exists(const std::string& path) {
    std::error_code ignored;
    return std::filesystem::symlink_status(path, ignored).type() != std::filesystem::file_type::not_found;
}

// Polls `done` until it holds; false when it still does not after `limit`.
inline bool wait_until(const auto& done, std::chrono::milliseconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!done() && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    return done();
}

// Starts `argv` (PATH lookup) with `env` (none given: ours), stdin /dev/null, stdout/stderr to files `out`/`err`
// ("" keeps ours); the child's pid or -1.
inline pid_t spawn(const std::vector<std::string>& argv, const std::string& out, const std::string& err,
                   const std::vector<std::string>& env = {}) {
    std::vector<char*> args, vars;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    for (const auto& v : env) vars.push_back(const_cast<char*>(v.c_str()));
    args.push_back(nullptr), vars.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    if (!out.empty()) posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (!err.empty()) posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    pid_t pid = -1;
    if (posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), env.empty() ? environ : vars.data()) != 0) pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

// The exit status of child `pid`, -1 when it did not exit normally.
inline int wait_status(pid_t pid) {
    int status = 0;
    return pid > 0 && ::waitpid(pid, &status, 0) == pid && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace tz::test
