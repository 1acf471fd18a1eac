#pragma once

// Owns one FILE*: closes it when the scope ends, or earlier through close(), which tells
// whether every buffered byte reached the file. Non-copyable; never throws.

#include <cstdio>

class FileCloser {
public:
    explicit FileCloser(FILE* f) : f_(f) {}
    ~FileCloser() {
        if (f_ != nullptr) fclose(f_);
    }
    FileCloser(const FileCloser&) = delete;
    FileCloser& operator=(const FileCloser&) = delete;

    FILE* get() const { return f_; }
    bool close() {
        FILE* f = f_;
        f_ = nullptr;
        return f == nullptr || fclose(f) == 0;
    }

private:
    FILE* f_;
};
