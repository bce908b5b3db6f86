// A folder as text: entries by name joined by ';', "name=content" ("name(444)=content" when the mode is not 0664),
// "name/", "name->target", "name|fifo" or "name|socket"; build() makes one, listing() reads one back.
#pragma once

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <map>
#include <sstream>

#include "temp_dir.h"

namespace tz::test {

inline void build(const TempDir& dir, const std::string& layout) {
    std::stringstream in(layout);
    for (std::string item; std::getline(in, item, ';');) {
        const std::size_t arrow = item.find("->"), eq = item.find('='), paren = item.find('('), bar = item.find('|');
        const std::string name = dir.file(item.substr(0, std::min({arrow, eq, paren, bar})));
        sockaddr_un address{AF_UNIX, {}};
        name.copy(address.sun_path, sizeof address.sun_path - 1);
        const int fd = bar < eq && item.substr(bar + 1) == "socket" ? ::socket(AF_UNIX, SOCK_STREAM, 0) : -1;
        if (fd >= 0) ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), ::close(fd);
        else if (bar < eq) ::mkfifo(name.c_str(), 0664);
        else if (arrow < eq) std::filesystem::create_symlink(item.substr(arrow + 2), name);
        else if (eq == std::string::npos) std::filesystem::create_directory(name);
        else write_file(name, item.substr(eq + 1));
        if (paren < eq) ::chmod(name.c_str(), std::stoi(item.substr(paren + 1), nullptr, 8));
    }
}

inline std::string listing(const TempDir& dir) {
    std::map<std::string, std::string> items;
    for (const auto& e : std::filesystem::recursive_directory_iterator(dir.path())) {
        const auto mode = static_cast<unsigned>(std::filesystem::status(e.path()).permissions()) & 0777;
        char shown[8] = "";
        if (mode != 0664) std::snprintf(shown, sizeof shown, "(%o)", mode);
        items[e.path().lexically_relative(dir.path()).string()] =
            e.is_symlink() ? "->" + std::filesystem::read_symlink(e.path()).string()
            : e.is_fifo() ? "|fifo" : e.is_socket() ? "|socket"
            : e.is_directory() ? "/" : shown + ("=" + read_file(e.path()));
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
