#pragma once

#include <cstddef>
#include <string_view>

#include "tovrel/platform/json_text.h"

namespace tovrel::curl {

/// Reads JSON text from outside as platform::parseJsonText does, to the same value, problem and error
/// for any input, in about a third of the time. Well-formed text is read straight into the value;
/// anything else (malformed text, \u escapes, numbers beyond range, a byte-order mark, nesting beyond
/// `limit`) is left to parseJsonText. Never throws. Pure; any thread.
[[nodiscard]] platform::JsonText readJsonText(std::string_view text,
                                              std::size_t limit = platform::kMaxJsonNesting);

}  // namespace tovrel::curl
