#pragma once

#include <string>

namespace tovrel::server {

/// A file of our own in the temporary folder, open until this object goes, then removed. One thread at
/// a time.
class TemporaryFile {
  public:
    /// Creates stem-XXXXXX`suffix`; throws std::runtime_error when it cannot.
    TemporaryFile(const std::string& stem, const std::string& suffix);
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;
    ~TemporaryFile();

    /// Replaces the content; throws std::runtime_error when it cannot.
    void write(const std::string& bytes) const;
    /// The content as it is now (what a child process wrote to fd(), say).
    std::string read() const;
    const std::string& path() const { return path_; }
    int fd() const { return fd_; }

  private:
    int fd_ = -1;
    std::string path_;
};

}  // namespace tovrel::server
