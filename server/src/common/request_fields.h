#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <string_view>

namespace tovrel::server {

/// A request that is answered with an HTTP error status and {"error": message}.
class ApiError : public std::runtime_error {
  public:
    ApiError(unsigned status, const std::string& message) : std::runtime_error(message), status_(status) {}
    unsigned status() const { return status_; }

  private:
    unsigned status_;
};

/// The body of every error answer, {"error": message}. Bytes of the message that are not UTF-8 (a
/// message may quote the request) are replaced, never a reason to fail. Pure.
std::string errorJson(const std::string& message);

/// How deep a request body may nest arrays and objects.
inline constexpr int kMaxBodyDepth = 32;

/// Parses a request body that must be one JSON object; ApiError 400 otherwise (also for nesting
/// deeper than maxDepth, which would otherwise make printing the value recurse without bound).
nlohmann::json parseObjectBody(std::string_view body, int maxDepth = kMaxBodyDepth);

/// A required string member of at most `maxBytes` bytes (field_limits.h); ApiError 400 naming the member
/// when missing, of another type, longer, or holding a NUL character (which neither store keeps).
const std::string& requireString(const nlohmann::json& object, const char* name, std::size_t maxBytes);

/// An optional string member: fallback when missing; otherwise as requireString().
std::string optionalString(const nlohmann::json& object, const char* name, std::size_t maxBytes,
                           const std::string& fallback);

/// A number given as a JSON number or as a string holding only a decimal number ("48.137154").
/// ApiError 400 when missing, of another type, not finite, or outside [min, max].
double requireNumber(const nlohmann::json& object, const char* name, double min, double max);

/// A non-negative whole identifier given as a JSON integer or a string of decimal digits ("17").
int64_t requireId(const nlohmann::json& object, const char* name);

}  // namespace tovrel::server
