// Collects what the process writes to file descriptor 2 while it lives.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <string>

namespace tz::test {

class StderrCapture {
public:
    StderrCapture() : file_(std::tmpfile()), saved_(::dup(STDERR_FILENO)) {
        std::fflush(stderr);
        ::dup2(::fileno(file_), STDERR_FILENO);
    }
    ~StderrCapture() {
        restore();
        ::close(saved_);
        std::fclose(file_);
    }
    StderrCapture(const StderrCapture&) = delete;
    StderrCapture& operator=(const StderrCapture&) = delete;

    // Ends the capture and returns what was written.
    std::string finish() {
        restore();
        std::string text;
        std::rewind(file_);
        for (int c; (c = std::fgetc(file_)) != EOF;) text += static_cast<char>(c);
        return text;
    }

private:
    void restore() {
        std::fflush(stderr);
        ::dup2(saved_, STDERR_FILENO);
    }
    std::FILE* file_;
    int saved_;
};

}  // namespace tz::test
