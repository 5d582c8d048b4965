#pragma once

#include <cstddef>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

namespace tovrel::platform {

/// How deep JSON text from outside (service answers, stored preferences, objects a host passes in as
/// text) may nest. The service's answers nest four levels; deeper text is refused before it is parsed,
/// so no copy, comparison or dump of a value ever recurses more than this.
inline constexpr std::size_t kMaxJsonNesting = 64;

/// Why JSON text was refused.
enum class JsonTextProblem {
    kNone,
    kSyntax,   ///< not JSON at all
    kNesting,  ///< arrays and objects nested deeper than the limit
    kRange,    ///< well-formed, but holds a number beyond double range
};

/// The outcome of reading JSON text: the value, or why there is none.
struct JsonText {
    nlohmann::json value;  ///< discarded when `error` is set
    JsonTextProblem problem = JsonTextProblem::kNone;
    std::string error;  ///< one readable phrase ("nested deeper than 64 levels"), empty on success
    [[nodiscard]] bool ok() const { return error.empty(); }
};

/// Whether the arrays and objects of `text` nest at most `limit` deep. Brackets inside strings do not
/// count; malformed text is left for the parser to refuse. Linear, no allocation. Pure; any thread.
[[nodiscard]] inline bool jsonNestingWithin(std::string_view text, std::size_t limit) {
    std::size_t depth = 0;
    bool inString = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (inString) {
            if (c == '\\') {
                ++i;
            } else if (c == '"') {
                inString = false;
            }
        } else if (c == '"') {
            inString = true;
        } else if (c == '[' || c == '{') {
            if (++depth > limit) {
                return false;
            }
        } else if ((c == ']' || c == '}') && depth > 0) {
            --depth;
        }
    }
    return true;
}

/// Parses JSON text from outside: any value (fragments included), at most `limit` levels deep. Never
/// throws: text that is not JSON, nests too deep or holds a number beyond double range comes back
/// with `error` set. Pure; any thread.
[[nodiscard]] inline JsonText parseJsonText(std::string_view text, std::size_t limit = kMaxJsonNesting) {
    JsonText result;
    result.value = nlohmann::json(nlohmann::json::value_t::discarded);
    if (!jsonNestingWithin(text, limit)) {
        result.problem = JsonTextProblem::kNesting;
        result.error = "nested deeper than " + std::to_string(limit) + " levels";
        return result;
    }
    try {
        result.value = nlohmann::json::parse(text);
    } catch (const nlohmann::json::parse_error& e) {
        result.value = nlohmann::json(nlohmann::json::value_t::discarded);
        result.problem = JsonTextProblem::kSyntax;
        result.error = "parse error at byte " + std::to_string(e.byte);
    } catch (const nlohmann::json::exception& e) {
        // A number beyond double range throws out_of_range rather than a parse error.
        result.value = nlohmann::json(nlohmann::json::value_t::discarded);
        result.problem = JsonTextProblem::kRange;
        result.error = e.what();
    }
    return result;
}

}  // namespace tovrel::platform
