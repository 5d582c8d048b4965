#pragma once

#include <string>
#include <string_view>

namespace tovrel::server {

/// True when an Accept-Encoding header value accepts gzip ("gzip", "gzip;q=0.5", "*"), and false when
/// it refuses it ("gzip;q=0") or does not name it. Pure.
bool acceptsGzip(std::string_view acceptEncoding);

/// Compresses `in` as one gzip member into `out` (replacing its content, keeping its capacity), at the
/// fastest level: answers are repetitive JSON, and CPU per request matters more than the last bytes.
/// False (out unspecified) when zlib fails. Pure; any thread.
bool gzipCompress(std::string_view in, std::string& out);

}  // namespace tovrel::server
