#include "common/temporary_file.h"

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace tovrel::server {

TemporaryFile::TemporaryFile(const std::string& stem, const std::string& suffix) {
    const std::filesystem::path folder = std::filesystem::temp_directory_path();
    std::string name = (folder / (stem + "-XXXXXX" + suffix)).string();
    fd_ = ::mkstemps(name.data(), static_cast<int>(suffix.size()));
    if (fd_ < 0) {
        throw std::runtime_error("cannot create a file in " + folder.string());
    }
    path_ = std::move(name);
}

TemporaryFile::~TemporaryFile() {
    ::close(fd_);
    std::error_code ignored;
    std::filesystem::remove(path_, ignored);
}

void TemporaryFile::write(const std::string& bytes) const {
    std::ofstream out(path_, std::ios::binary | std::ios::trunc);
    out << bytes;
    if (!out.flush()) {
        throw std::runtime_error("cannot write " + path_);
    }
}

std::string TemporaryFile::read() const {
    std::ifstream in(path_, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return std::move(text).str();
}

}  // namespace tovrel::server
