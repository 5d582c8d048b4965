#include "http/compression.h"

#include <zlib.h>

#include <cctype>
#include <cstdlib>

#include "common/text.h"

namespace tovrel::server {

namespace {

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) {
        return false;
    }
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (std::tolower(static_cast<unsigned char>(a[i])) !=
            std::tolower(static_cast<unsigned char>(b[i]))) {
            return false;
        }
    }
    return true;
}

// The q value of one list element's parameters ("q=0.5"); 1 when absent or unreadable.
double quality(std::string_view parameters) {
    while (!parameters.empty()) {
        const std::size_t semicolon = parameters.find(';');
        const std::string_view parameter = trimBlanks(parameters.substr(0, semicolon));
        if (parameter.size() > 2 && (parameter[0] == 'q' || parameter[0] == 'Q') && parameter[1] == '=') {
            const std::string value(parameter.substr(2));
            char* end = nullptr;
            const double q = std::strtod(value.c_str(), &end);
            return end != value.c_str() ? q : 1.0;
        }
        if (semicolon == std::string_view::npos) {
            break;
        }
        parameters.remove_prefix(semicolon + 1);
    }
    return 1.0;
}

}  // namespace

bool acceptsGzip(std::string_view acceptEncoding) {
    bool accepted = false;
    while (!acceptEncoding.empty()) {
        const std::size_t comma = acceptEncoding.find(',');
        const std::string_view element = acceptEncoding.substr(0, comma);
        const std::size_t semicolon = element.find(';');
        const std::string_view coding = trimBlanks(element.substr(0, semicolon));
        const double q = semicolon == std::string_view::npos ? 1.0 : quality(element.substr(semicolon + 1));
        if (equalsIgnoringCase(coding, "gzip") || equalsIgnoringCase(coding, "x-gzip")) {
            return q > 0;
        }
        if (coding == "*") {
            accepted = q > 0;
        }
        if (comma == std::string_view::npos) {
            break;
        }
        acceptEncoding.remove_prefix(comma + 1);
    }
    return accepted;
}

bool gzipCompress(std::string_view in, std::string& out) {
    z_stream stream{};
    // 15 window bits plus 16: a gzip header and trailer instead of zlib's.
    if (deflateInit2(&stream, Z_BEST_SPEED, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY) != Z_OK) {
        return false;
    }
    out.resize(deflateBound(&stream, static_cast<uLong>(in.size())));
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(in.data()));
    stream.avail_in = static_cast<uInt>(in.size());
    stream.next_out = reinterpret_cast<Bytef*>(out.data());
    stream.avail_out = static_cast<uInt>(out.size());
    const int rc = deflate(&stream, Z_FINISH);
    const std::size_t written = stream.total_out;
    deflateEnd(&stream);
    if (rc != Z_STREAM_END) {
        return false;
    }
    out.resize(written);
    return true;
}

}  // namespace tovrel::server
