#include "common/session_keys.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>
#include <openssl/sha.h>

#include <array>
#include <stdexcept>

namespace tovrel::server {

namespace {

std::string hex(const unsigned char* bytes, std::size_t size) {
    static constexpr char kHex[] = "0123456789abcdef";
    std::string out;
    out.reserve(size * 2);
    for (std::size_t i = 0; i < size; ++i) {
        out += kHex[bytes[i] >> 4];
        out += kHex[bytes[i] & 15];
    }
    return out;
}

}  // namespace

std::string randomKey() {
    std::array<unsigned char, 16> bytes{};
    if (RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1) {
        throw std::runtime_error("the random generator failed");
    }
    return hex(bytes.data(), bytes.size());
}

namespace {

std::array<unsigned char, SHA256_DIGEST_LENGTH> sha256Of(std::string_view text) {
    // Fetched once: a fetch per digest costs more than the digest of a key.
    static EVP_MD* const sha256 = EVP_MD_fetch(nullptr, "SHA256", nullptr);
    std::array<unsigned char, SHA256_DIGEST_LENGTH> digest{};
    if (sha256 == nullptr ||
        EVP_Digest(text.data(), text.size(), digest.data(), nullptr, sha256, nullptr) != 1) {
        SHA256(reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest.data());
    }
    return digest;
}

}  // namespace

std::string sessionKeyHash(std::string_view key) {
    const auto digest = sha256Of(key);
    return hex(digest.data(), digest.size());
}

std::string keyedHash(std::string_view key, std::string_view text) {
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned int size = 0;
    if (HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()),
             reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest.data(),
             &size) == nullptr) {
        throw std::runtime_error("HMAC-SHA256 failed");
    }
    return hex(digest.data(), size);
}

std::string compactKey(std::string_view text) {
    constexpr std::size_t kLongest = 32;
    constexpr std::size_t kDigestBytes = 16;
    if (text.size() <= kLongest) {
        return std::string(text);
    }
    const auto digest = sha256Of(text);
    std::string key = "#";
    key.append(reinterpret_cast<const char*>(digest.data()), kDigestBytes);
    return key;
}

}  // namespace tovrel::server
