#pragma once

#include <filesystem>
#include <string>

namespace tovrel::sim {

/// GET `adminUrl`/admin/v1/`path` with the bearer token: the answer's body (at most 128 MiB). Throws
/// std::runtime_error saying what failed (the connection, the status and the server's error). Caller's
/// thread.
std::string adminGet(const std::string& adminUrl, const std::string& token, const std::string& path);

/// `text` percent-encoded for one segment of a path. Pure.
std::string pathSegment(const std::string& text);

/// Reads the admin token from the first line of `file` (trailing blanks dropped). Throws
/// std::runtime_error when there is none. Caller's thread.
std::string readTokenFile(const std::string& file);

/// A file of our own in the temporary folder, removed with this object. One thread at a time.
class TemporaryFile {
  public:
    /// Creates stem-XXXXXX`suffix`; throws std::runtime_error when it cannot.
    TemporaryFile(const std::string& stem, const std::string& suffix);
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;
    ~TemporaryFile();

    /// Replaces the file's content; throws std::runtime_error when it cannot.
    void write(const std::string& bytes) const;
    const std::filesystem::path& path() const { return path_; }

  private:
    std::filesystem::path path_;
};

}  // namespace tovrel::sim
