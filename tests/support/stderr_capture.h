// Collects what the process writes to file descriptor 2 (or the one given,
// such as 1 for what net-snmp's print_variable prints) while it lives.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <string>

namespace tz::test {

class StderrCapture {
public:
    explicit StderrCapture(int fd = STDERR_FILENO) : fd_(fd), file_(std::tmpfile()), saved_(::dup(fd)) {
        std::fflush(nullptr), ::dup2(::fileno(file_), fd_);
    }
    ~StderrCapture() { finish(), ::close(saved_), std::fclose(file_); }
    StderrCapture(const StderrCapture&) = delete;

    // Ends the capture; returns what was written.
    std::string finish() {
        std::fflush(nullptr), ::dup2(saved_, fd_), std::rewind(file_);
        std::string text;
        for (int c; (c = std::fgetc(file_)) != EOF;) text += static_cast<char>(c);
        return text;
    }

private:
    int fd_;
    std::FILE* file_;
    int saved_;
};

}  // namespace tz::test
