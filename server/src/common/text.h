#pragma once

#include <string_view>

namespace tovrel::server {

/// `text` without the spaces and tabs around it (HTTP's optional whitespace). Pure.
inline std::string_view trimBlanks(std::string_view text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) {
        text.remove_prefix(1);
    }
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) {
        text.remove_suffix(1);
    }
    return text;
}

}  // namespace tovrel::server
