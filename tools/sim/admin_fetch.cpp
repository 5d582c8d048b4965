#include "admin_fetch.h"

#include <curl/curl.h>

#include <cctype>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string_view>

namespace tovrel::sim {

namespace {

using nlohmann::json;

// A day of positions, or a catalogue (100,000 places at most, some 40 MB).
constexpr std::size_t kLargestAnswer = 128 * 1024 * 1024;

std::size_t writeBody(char* data, std::size_t size, std::size_t count, void* user) {
    auto* body = static_cast<std::string*>(user);
    if (body->size() + size * count > kLargestAnswer) {
        return 0;
    }
    body->append(data, size * count);
    return size * count;
}

}  // namespace

std::string adminGet(const std::string& adminUrl, const std::string& token, const std::string& path) {
    const std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> curl(curl_easy_init(), curl_easy_cleanup);
    if (!curl) {
        throw std::runtime_error("libcurl could not start");
    }
    const std::string url = adminUrl + (adminUrl.ends_with('/') ? "" : "/") + "admin/v1/" + path;
    const std::string authorization = "Authorization: Bearer " + token;
    const std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> headers(
        curl_slist_append(nullptr, authorization.c_str()), curl_slist_free_all);
    std::string body;
    curl_easy_setopt(curl.get(), CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl.get(), CURLOPT_HTTPHEADER, headers.get());
    curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, writeBody);
    curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, &body);
    curl_easy_setopt(curl.get(), CURLOPT_ACCEPT_ENCODING, "");
    curl_easy_setopt(curl.get(), CURLOPT_TIMEOUT, 120L);
    curl_easy_setopt(curl.get(), CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl.get(), CURLOPT_PROTOCOLS_STR, "http,https");
    if (const CURLcode code = curl_easy_perform(curl.get()); code != CURLE_OK) {
        throw std::runtime_error("GET " + url + ": " + curl_easy_strerror(code));
    }
    long status = 0;
    curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &status);
    if (status != 200) {
        const json error = json::parse(body, nullptr, false);
        throw std::runtime_error(
            "GET " + url + " answered " + std::to_string(status) +
            (error.is_object() && error.contains("error") ? ": " + error["error"].dump() : ""));
    }
    return body;
}

std::string pathSegment(const std::string& text) {
    std::string escaped;
    for (const unsigned char c : text) {
        if (std::isalnum(c) != 0 || c == '-' || c == '_' || c == '.' || c == '~') {
            escaped += static_cast<char>(c);
        } else {
            constexpr std::string_view kHex = "0123456789ABCDEF";
            escaped += {'%', kHex[c >> 4], kHex[c & 15]};
        }
    }
    return escaped;
}

std::string readTokenFile(const std::string& file) {
    std::ifstream in(file);
    std::string token;
    if (!in || !std::getline(in, token)) {
        throw std::runtime_error("cannot read a token from " + file);
    }
    token.erase(token.find_last_not_of(" \t\r") + 1);
    if (token.empty()) {
        throw std::runtime_error("cannot read a token from " + file);
    }
    return token;
}

}  // namespace tovrel::sim
