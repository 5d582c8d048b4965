#include "temp_dir.h"

#include <stdlib.h>

#include <cstdio>
#include <stdexcept>
#include <system_error>

namespace tovrel::test {

namespace fs = std::filesystem;

TempDir::TempDir() {
    std::string pattern = (fs::temp_directory_path() / "tovrel-test-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    path_ = pattern;
}

TempDir::~TempDir() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
}

std::string TempDir::write(const std::string& name, const std::string& text) const {
    const fs::path file = path_ / name;
    fs::create_directories(file.parent_path());
    FILE* f = std::fopen(file.c_str(), "wb");
    if (f == nullptr) {
        throw std::runtime_error("cannot write " + file.string());
    }
    const bool written = std::fwrite(text.data(), 1, text.size(), f) == text.size();
    if (std::fclose(f) != 0 || !written) {
        throw std::runtime_error("cannot write " + file.string());
    }
    return file.string();
}

}  // namespace tovrel::test
