#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace tovrel::server::webhooks {

/// A new endpoint secret: "whsec_" followed by the base64 of 32 random bytes (OpenSSL RAND_bytes). Throws
/// std::runtime_error when the generator fails. Any thread.
std::string newSecret();

/// A new message id: "msg_" followed by 24 random characters of [0-9a-zA-Z]. Throws std::runtime_error when
/// the generator fails. Any thread.
std::string newMessageId();

/// "v1," + base64(HMAC-SHA256(key, id + "." + timestamp + "." + body)), the key being the base64-decoded
/// part after "whsec_". Throws std::invalid_argument for a secret without the prefix, with bad base64 or
/// with an empty key. Pure; any thread.
std::string sign(std::string_view secret, std::string_view id, int64_t timestamp, std::string_view body);

/// The last four characters of a secret, for listings ("…" + last four); "…" alone for a secret shorter
/// than eight characters, whose last four would give away half of it. Pure; any thread.
std::string secretHint(std::string_view secret);

/// The standard base64 (with '=' padding) of `bytes`. Pure; any thread.
std::string base64Encode(std::string_view bytes);

/// The bytes of standard base64 text, its padding optional; false when `text` is not base64 (a character
/// outside the alphabet, a length no encoding has, bits left over after the last byte). Pure; any thread.
bool base64Decode(std::string_view text, std::string& bytes);

}  // namespace tovrel::server::webhooks
