// A folder as text, for tests that compare a whole folder before and after.
#pragma once

#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <map>
#include <sstream>
#include <string>

#include "temp_dir.h"

namespace tz::test {

// A folder as text, entries by name joined by ';': "name=content" (with
// "(444)" after the name when the mode is not 0664), "name/", "name->target".
inline void build(const TempDir& dir, const std::string& spec) {
    std::stringstream in(spec);
    for (std::string item; std::getline(in, item, ';');) {
        const std::size_t arrow = item.find("->"), eq = item.find('='), paren = item.find('(');
        if (arrow < eq) {
            std::filesystem::create_symlink(item.substr(arrow + 2), dir.file(item.substr(0, arrow)));
        } else if (eq == std::string::npos) {
            std::filesystem::create_directory(dir.file(item));
        } else {
            write_file(dir.file(item.substr(0, std::min(eq, paren))), item.substr(eq + 1));
            if (paren < eq) ::chmod(dir.file(item.substr(0, paren)).c_str(), std::stoi(item.substr(paren + 1), nullptr, 8));
        }
    }
}

inline std::string listing(const TempDir& dir) {
    std::map<std::string, std::string> items;
    for (const auto& e : std::filesystem::recursive_directory_iterator(dir.path())) {
        const std::string name = e.path().lexically_relative(dir.path()).string();
        struct stat st {};
        ::stat(e.path().c_str(), &st);
        char mode[8] = "";
        if ((st.st_mode & 0777) != 0664) std::snprintf(mode, sizeof mode, "(%o)", st.st_mode & 0777);
        items[name] = e.is_symlink() ? "->" + std::filesystem::read_symlink(e.path()).string()
                      : e.is_directory() ? "/" : mode + ("=" + read_file(e.path()));
    }
    std::string out;
    for (const auto& [name, rest] : items) out += (out.empty() ? "" : ";") + name + rest;
    return out;
}

// `text` with each '@' replaced by the folder's prefix.
inline std::string at_folder(std::string text, const TempDir& dir) {
    for (std::size_t at; (at = text.find('@')) != std::string::npos;) text.replace(at, 1, dir.prefix());
    return text;
}

}  // namespace tz::test
