#include "report_escape.h"

#include <sstream>

namespace tovrel::sim {

std::string escapeHtml(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (const char c : text) {
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            case '\'':
                out += "&#39;";
                break;
            default:
                out += c;
        }
    }
    return out;
}

std::string jsonText(const nlohmann::json& value) {
    return value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string jsonForScript(const nlohmann::json& value) {
    const std::string text = value.dump(-1, ' ', true, nlohmann::json::error_handler_t::replace);
    std::string out;
    out.reserve(text.size());
    // These characters only occur inside JSON strings, where the \u form means the same.
    for (const char c : text) {
        switch (c) {
            case '<':
                out += "\\u003c";
                break;
            case '>':
                out += "\\u003e";
                break;
            case '&':
                out += "\\u0026";
                break;
            default:
                out += c;
        }
    }
    return out;
}

std::string fixed(double value, int decimals) {
    std::ostringstream out;
    out.setf(std::ios::fixed);
    out.precision(decimals);
    out << value;
    return out.str();
}

}  // namespace tovrel::sim
