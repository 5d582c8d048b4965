#include "http/static_files.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdint>
#include <stdexcept>
#include <utility>

namespace tovrel::server {

namespace fs = std::filesystem;

namespace {

int hexValue(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}

bool inside(const fs::path& root, const fs::path& p) {
    const auto [r, q] = std::mismatch(root.begin(), root.end(), p.begin(), p.end());
    return r == root.end();
}

/// Well-formed UTF-8: no stray continuation bytes, overlong forms, surrogates or values past U+10FFFF.
bool isUtf8(std::string_view text) {
    for (std::size_t i = 0; i < text.size();) {
        const auto lead = static_cast<unsigned char>(text[i]);
        std::size_t length = 0;
        std::uint32_t value = 0;
        if (lead < 0x80) {
            ++i;
            continue;
        } else if (lead >= 0xC2 && lead <= 0xDF) {
            length = 2;
            value = lead & 0x1F;
        } else if (lead >= 0xE0 && lead <= 0xEF) {
            length = 3;
            value = lead & 0x0F;
        } else if (lead >= 0xF0 && lead <= 0xF4) {
            length = 4;
            value = lead & 0x07;
        } else {
            return false;
        }
        if (i + length > text.size()) {
            return false;
        }
        for (std::size_t k = 1; k < length; ++k) {
            const auto next = static_cast<unsigned char>(text[i + k]);
            if ((next & 0xC0) != 0x80) {
                return false;
            }
            value = (value << 6) | (next & 0x3F);
        }
        if ((length == 3 && (value < 0x800 || (value >= 0xD800 && value <= 0xDFFF))) ||
            (length == 4 && (value < 0x10000 || value > 0x10FFFF))) {
            return false;
        }
        i += length;
    }
    return true;
}

StaticTarget missing(std::string_view path) {
    return StaticTarget{404, {}, {}, "there is no page " + std::string(path)};
}

}  // namespace

std::optional<std::string> percentDecode(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            out += text[i];
            continue;
        }
        if (i + 2 >= text.size()) {
            return std::nullopt;
        }
        const int hi = hexValue(text[i + 1]);
        const int lo = hexValue(text[i + 2]);
        if (hi < 0 || lo < 0) {
            return std::nullopt;
        }
        out += static_cast<char>(hi * 16 + lo);
        i += 2;
    }
    return out;
}

std::string contentTypeFor(const fs::path& file) {
    static const std::array<std::pair<std::string_view, std::string_view>, 17> kTypes{{
        {".html", "text/html; charset=utf-8"},
        {".htm", "text/html; charset=utf-8"},
        {".css", "text/css; charset=utf-8"},
        {".js", "text/javascript; charset=utf-8"},
        {".json", "application/json"},
        {".txt", "text/plain; charset=utf-8"},
        {".xml", "application/xml"},
        {".svg", "image/svg+xml"},
        {".png", "image/png"},
        {".jpg", "image/jpeg"},
        {".jpeg", "image/jpeg"},
        {".gif", "image/gif"},
        {".webp", "image/webp"},
        {".ico", "image/x-icon"},
        {".pdf", "application/pdf"},
        {".mp4", "video/mp4"},
        {".woff2", "font/woff2"},
    }};
    std::string ext = file.extension().string();
    std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return std::tolower(c); });
    for (const auto& [e, type] : kTypes) {
        if (e == ext) {
            return std::string(type);
        }
    }
    return "application/octet-stream";
}

StaticFiles::StaticFiles(const std::string& root) {
    if (!root.empty()) {
        std::error_code ec;
        root_ = fs::canonical(root, ec);
        if (ec || !fs::is_directory(root_)) {
            throw std::runtime_error("the content folder " + root + " does not exist");
        }
    }
}

StaticTarget StaticFiles::resolve(std::string_view target) const {
    const std::string_view raw = target.substr(0, target.find_first_of("?#"));
    const std::optional<std::string> path = percentDecode(raw);
    if (!path || path->empty() || path->front() != '/' || path->find('\0') != std::string::npos ||
        !isUtf8(*path)) {
        return StaticTarget{400, {}, {}, "the request target is not a valid path"};
    }
    if (root_.empty()) {
        return missing(*path);
    }
    fs::path relative;
    std::size_t start = 1;
    while (start <= path->size()) {
        const std::size_t end = std::min(path->find('/', start), path->size());
        const std::string_view segment = std::string_view(*path).substr(start, end - start);
        if (!segment.empty() && segment.front() == '.') {
            return missing(*path);
        }
        if (!segment.empty()) {
            relative /= fs::path(segment);
        }
        start = end + 1;
    }
    std::error_code ec;
    fs::path file = fs::canonical(root_ / relative, ec);
    if (!ec && fs::is_directory(file, ec)) {
        file = fs::canonical(file / "index.html", ec);
    }
    if (ec || !inside(root_, file) || !fs::is_regular_file(file, ec)) {
        return missing(*path);
    }
    return StaticTarget{200, file, contentTypeFor(file), {}};
}

}  // namespace tovrel::server
