#include "support/TempDir.h"

#include <stdlib.h>

#include <filesystem>
#include <stdexcept>

TempDir::TempDir() {
    char pattern[] = "/tmp/qbtest.XXXXXX";
    if (mkdtemp(pattern) == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}
