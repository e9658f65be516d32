#pragma once
// TempDir: a fresh directory under /tmp, removed with its contents when the object dies.

#include <stdlib.h>

#include <filesystem>
#include <stdexcept>
#include <string>

class TempDir {
public:
    TempDir() {
        char pattern[] = "/tmp/qbtest.XXXXXX";
        if (::mkdtemp(pattern) == nullptr) throw std::runtime_error("mkdtemp failed");
        path_ = pattern;
    }
    ~TempDir() { std::error_code ignored; std::filesystem::remove_all(path_, ignored); }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};
