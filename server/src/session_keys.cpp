#include "session_keys.h"

#include <openssl/sha.h>

#include <array>

namespace tovrel_server {

std::string sessionKeyHash(std::string_view key) {
    std::array<unsigned char, SHA256_DIGEST_LENGTH> digest{};
    SHA256(reinterpret_cast<const unsigned char*>(key.data()), key.size(), digest.data());
    static constexpr char kHex[] = "0123456789abcdef";
    std::string hex;
    hex.reserve(digest.size() * 2);
    for (const unsigned char byte : digest) {
        hex += kHex[byte >> 4];
        hex += kHex[byte & 15];
    }
    return hex;
}

}  // namespace tovrel_server
