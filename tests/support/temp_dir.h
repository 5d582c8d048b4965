#pragma once

#include <filesystem>
#include <string>

namespace tovrel::test {

/// A fresh folder under the system's temporary directory, removed with everything in it when
/// dropped. Not thread-safe.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::filesystem::path& path() const { return path_; }
    std::filesystem::path operator/(const std::string& name) const { return path_ / name; }
    /// Writes text to a file in the folder (making its folders) and returns its path.
    std::string write(const std::string& name, const std::string& text) const;

  private:
    std::filesystem::path path_;
};

}  // namespace tovrel::test
