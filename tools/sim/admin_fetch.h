#pragma once

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

}  // namespace tovrel::sim
