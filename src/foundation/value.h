#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace tovrel {

using Json = nlohmann::json;

/// Number and string conversions of JSON values, as the platform's number and string objects
/// convert them: a number converts by truncation, a string by its leading numeric text (0 when it
/// has none), everything else (null, missing, bool aside) to 0.
long long integerValue(const Json& value);
/// The 32-bit conversion: strings saturate at the int range, integers wrap, doubles truncate and
/// saturate.
int intValue(const Json& value);
double doubleValue(const Json& value);
float floatValue(const Json& value);

/// Integer value of `object[key]`; 0 when `object` is not an object or has no such member.
long long integerValueFor(const Json& object, const char* key);
int intValueFor(const Json& object, const char* key);
double doubleValueFor(const Json& object, const char* key);
float floatValueFor(const Json& object, const char* key);

/// `object[key]` as it stands, or null when `object` is not an object or lacks the member.
const Json& memberOrNull(const Json& object, const char* key);

/// How an object prints through "%@": strings as they are, numbers in their shortest form, null as
/// "(null)", containers as JSON text.
std::string describe(const Json& value);

}  // namespace tovrel
