#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

namespace tovrel::sim {

/// Text for HTML element content and quoted attribute values: & < > " ' as character references.
std::string escapeHtml(std::string_view text);

/// JSON that is safe inside an inline <script> element: ASCII only, "<", ">" and "&" as \u escapes
/// (so no "</script>" or "<!--" can appear), bytes that are not UTF-8 replaced.
std::string jsonForScript(const nlohmann::json& value);

/// `value` with exactly `decimals` digits after the point ("12.50"). Pure.
std::string fixed(double value, int decimals);

/// `value` as compact JSON text, bytes that are not UTF-8 replaced (never throws on input text).
std::string jsonText(const nlohmann::json& value);

}  // namespace tovrel::sim
