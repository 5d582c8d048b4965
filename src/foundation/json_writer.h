#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

namespace tovrel {

/// JSON text written as it goes, byte for byte what a dump of the same value prints (members in key
/// order are the writer's care), so that a large message never becomes a tree first. Pure; any thread.

/// Appends `text` as a JSON string; bytes that are not UTF-8 become U+FFFD, as when the component dumps.
void appendJsonString(std::string& out, std::string_view text);

/// Appends `value` as the component dumps it (bytes that are not UTF-8 in its strings replaced).
void appendJson(std::string& out, const nlohmann::json& value);

/// Appends `"name":` before a member's value, with the comma that separates it from the one before
/// unless it is the `first`.
void appendMemberName(std::string& out, std::string_view name, bool first = false);

}  // namespace tovrel
