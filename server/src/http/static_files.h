#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace tovrel::server {

/// Where a GET for a path leads: a file to send, or an error status with its reason.
struct StaticTarget {
    unsigned status = 404;
    std::filesystem::path file;  ///< set when status is 200
    std::string contentType;
    std::string error;  ///< set otherwise
};

/// Maps request targets to files under one folder. Only regular files inside the folder (after
/// resolving symbolic links) are served; ".." and hidden segments are refused. Thread-safe.
class StaticFiles {
  public:
    /// root may be empty: every page is then missing.
    explicit StaticFiles(const std::string& root);

    StaticTarget resolve(std::string_view target) const;

  private:
    std::filesystem::path root_;  ///< canonical, or empty
};

/// "%41" → "A"; nullopt for a malformed escape.
std::optional<std::string> percentDecode(std::string_view text);

/// The Content-Type for a file name's extension (UTF-8 for text kinds).
std::string contentTypeFor(const std::filesystem::path& file);

}  // namespace tovrel::server
