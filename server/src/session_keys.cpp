#include "session_keys.h"

#include <openssl/evp.h>
#include <openssl/sha.h>

#include <array>

namespace tovrel_server {

std::string sessionKeyHash(std::string_view key) {
    // Fetched once: a fetch per digest costs more than the digest of a key.
    static EVP_MD* const sha256 = EVP_MD_fetch(nullptr, "SHA256", nullptr);
    std::array<unsigned char, SHA256_DIGEST_LENGTH> digest{};
    if (sha256 == nullptr ||
        EVP_Digest(key.data(), key.size(), digest.data(), nullptr, sha256, nullptr) != 1) {
        SHA256(reinterpret_cast<const unsigned char*>(key.data()), key.size(), digest.data());
    }
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
