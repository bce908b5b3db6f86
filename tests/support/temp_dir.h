// A temporary folder for one test, removed with everything in it at the end, and whole-file reads and writes.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

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

}  // namespace tz::test
