#include "webhooks/signature.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

#include <array>
#include <stdexcept>

namespace tovrel::server::webhooks {

namespace {

constexpr std::string_view kSecretPrefix = "whsec_";
constexpr std::string_view kBase64 = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

void randomBytes(unsigned char* bytes, std::size_t size) {
    if (RAND_bytes(bytes, static_cast<int>(size)) != 1) {
        throw std::runtime_error("the random generator failed");
    }
}

int base64Value(char c) {
    const auto at = kBase64.find(c);
    return at == std::string_view::npos ? -1 : static_cast<int>(at);
}

}  // namespace

std::string base64Encode(std::string_view bytes) {
    std::string out;
    out.reserve((bytes.size() + 2) / 3 * 4);
    std::size_t i = 0;
    for (; i + 3 <= bytes.size(); i += 3) {
        const auto group = static_cast<unsigned>(static_cast<unsigned char>(bytes[i])) << 16 |
                           static_cast<unsigned>(static_cast<unsigned char>(bytes[i + 1])) << 8 |
                           static_cast<unsigned char>(bytes[i + 2]);
        out += kBase64[group >> 18 & 63];
        out += kBase64[group >> 12 & 63];
        out += kBase64[group >> 6 & 63];
        out += kBase64[group & 63];
    }
    const std::size_t left = bytes.size() - i;
    if (left > 0) {
        unsigned group = static_cast<unsigned>(static_cast<unsigned char>(bytes[i])) << 16;
        if (left == 2) {
            group |= static_cast<unsigned>(static_cast<unsigned char>(bytes[i + 1])) << 8;
        }
        out += kBase64[group >> 18 & 63];
        out += kBase64[group >> 12 & 63];
        out += left == 2 ? kBase64[group >> 6 & 63] : '=';
        out += '=';
    }
    return out;
}

bool base64Decode(std::string_view text, std::string& bytes) {
    if (text.size() % 4 == 0 && !text.empty()) {
        const std::size_t padding = text.ends_with("==") ? 2 : text.ends_with('=') ? 1 : 0;
        text.remove_suffix(padding);
    }
    if (text.size() % 4 == 1) {
        return false;
    }
    bytes.clear();
    bytes.reserve(text.size() * 3 / 4);
    unsigned group = 0;
    int bits = 0;
    for (const char c : text) {
        const int value = base64Value(c);
        if (value < 0) {
            return false;
        }
        group = (group << 6 | static_cast<unsigned>(value)) & 0xffffff;
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            bytes += static_cast<char>(group >> bits & 0xff);
        }
    }
    // A canonical encoding leaves only zero bits after the last byte.
    return (group & ((1U << bits) - 1)) == 0;
}

std::string newSecret() {
    std::array<unsigned char, 32> key{};
    randomBytes(key.data(), key.size());
    return std::string(kSecretPrefix) +
           base64Encode(std::string_view(reinterpret_cast<const char*>(key.data()), key.size()));
}

std::string newMessageId() {
    static constexpr std::string_view kAlphabet =
        "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";
    // Bytes at or above 248 (4 * 62) are drawn again, so that every character is equally likely.
    constexpr unsigned kLimit = 4 * kAlphabet.size();
    std::string id = "msg_";
    std::array<unsigned char, 32> pool{};
    while (id.size() < 4 + 24) {
        randomBytes(pool.data(), pool.size());
        for (const unsigned char byte : pool) {
            if (byte < kLimit && id.size() < 4 + 24) {
                id += kAlphabet[byte % kAlphabet.size()];
            }
        }
    }
    return id;
}

std::string sign(std::string_view secret, std::string_view id, int64_t timestamp, std::string_view body) {
    if (!secret.starts_with(kSecretPrefix)) {
        throw std::invalid_argument("a webhook secret starts with \"whsec_\"");
    }
    std::string key;
    if (!base64Decode(secret.substr(kSecretPrefix.size()), key) || key.empty()) {
        throw std::invalid_argument("a webhook secret holds its key in base64 after \"whsec_\"");
    }
    std::string content;
    content.reserve(id.size() + body.size() + 24);
    content.append(id).append(".").append(std::to_string(timestamp)).append(".").append(body);
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned length = 0;
    if (HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()),
             reinterpret_cast<const unsigned char*>(content.data()), content.size(), digest.data(),
             &length) == nullptr) {
        throw std::runtime_error("HMAC-SHA256 failed");
    }
    return "v1," + base64Encode(std::string_view(reinterpret_cast<const char*>(digest.data()), length));
}

std::string secretHint(std::string_view secret) {
    std::string hint = "\xE2\x80\xA6";
    if (secret.size() >= 8) {
        hint.append(secret.substr(secret.size() - 4));
    }
    return hint;
}

}  // namespace tovrel::server::webhooks
