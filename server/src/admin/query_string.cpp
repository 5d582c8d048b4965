#include "admin/query_string.h"

#include <charconv>

#include "common/request_fields.h"
#include "http/static_files.h"

namespace tovrel::server {

std::string queryValue(std::string_view target, std::string_view name) {
    const std::size_t question = target.find('?');
    if (question == std::string_view::npos) {
        return {};
    }
    std::string_view query = target.substr(question + 1);
    while (!query.empty()) {
        const std::size_t amp = query.find('&');
        const std::string_view pair = query.substr(0, amp);
        const std::size_t eq = pair.find('=');
        if (pair.substr(0, eq) == name) {
            return eq == std::string_view::npos ? "1" : percentDecode(pair.substr(eq + 1)).value_or("");
        }
        if (amp == std::string_view::npos) {
            break;
        }
        query.remove_prefix(amp + 1);
    }
    return {};
}

int64_t countParameter(std::string_view target, std::string_view name, int64_t fallback, int64_t most) {
    const std::string text = queryValue(target, name);
    if (text.empty()) {
        return fallback;
    }
    int64_t value = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || end != text.data() + text.size() || value < 1 || value > most) {
        throw ApiError(400, std::string(name) + " must be a whole number from 1" +
                                (most < INT64_MAX ? " to " + std::to_string(most) : std::string()));
    }
    return value;
}

}  // namespace tovrel::server
