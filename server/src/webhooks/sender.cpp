#include "webhooks/sender.h"

#include <curl/curl.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <deque>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <unordered_map>

#include "webhooks/address_policy.h"

namespace tovrel::server::webhooks {

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kUserAgent = "tovrel-server-webhooks/1";
constexpr std::string_view kRefused = "refused private address";

struct Transfer {
    std::size_t index = 0;  ///< in the batch
    Outgoing request;
    bool allowPrivate = false;
    CURL* easy = nullptr;
    curl_slist* headers = nullptr;
    bool refusedPrivate = false;
    std::optional<std::string> retryAfter;
    Clock::time_point start;
    char errorBuffer[CURL_ERROR_SIZE] = {};

    Transfer() = default;
    Transfer(const Transfer&) = delete;
    Transfer& operator=(const Transfer&) = delete;
    ~Transfer() {
        if (easy != nullptr) {
            curl_easy_cleanup(easy);
        }
        curl_slist_free_all(headers);
    }
};

std::string_view trim(std::string_view text) {
    const auto space = [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; };
    while (!text.empty() && space(text.front())) {
        text.remove_prefix(1);
    }
    while (!text.empty() && space(text.back())) {
        text.remove_suffix(1);
    }
    return text;
}

bool startsWithNoCase(std::string_view text, std::string_view lowerPrefix) {
    if (text.size() < lowerPrefix.size()) {
        return false;
    }
    for (std::size_t i = 0; i < lowerPrefix.size(); ++i) {
        const char c = text[i] >= 'A' && text[i] <= 'Z' ? static_cast<char>(text[i] - 'A' + 'a') : text[i];
        if (c != lowerPrefix[i]) {
            return false;
        }
    }
    return true;
}

size_t discardBody(char* /*data*/, size_t size, size_t count, void* /*self*/) {
    return size * count;
}

size_t readHeader(char* data, size_t size, size_t count, void* self) {
    auto* transfer = static_cast<Transfer*>(self);
    const std::string_view line(data, size * count);
    if (line.starts_with("HTTP/")) {
        // Each answer (an interim 1xx, then the final one) starts over.
        transfer->retryAfter.reset();
    } else if (startsWithNoCase(line, "retry-after:")) {
        transfer->retryAfter = std::string(trim(line.substr(12)));
    }
    return size * count;
}

curl_socket_t openSocket(void* self, curlsocktype /*purpose*/, curl_sockaddr* address) {
    auto* transfer = static_cast<Transfer*>(self);
    if (!transfer->allowPrivate && isPrivateAddress(&address->addr)) {
        transfer->refusedPrivate = true;
        return CURL_SOCKET_BAD;
    }
    return ::socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
}

std::string headerProblem(const std::pair<std::string, std::string>& header) {
    const auto& [name, value] = header;
    const bool badName = name.empty() || std::any_of(name.begin(), name.end(), [](char c) {
                             return c == ':' || static_cast<unsigned char>(c) <= 0x20 || c == 0x7f;
                         });
    const bool badValue = value.find_first_of(std::string_view("\r\n\0", 3)) != std::string::npos;
    if (badName || badValue) {
        return "header: \"" + name + "\" cannot be sent";
    }
    return "";
}

std::string describe(CURLcode code, const Transfer& transfer) {
    if (transfer.refusedPrivate && code == CURLE_COULDNT_CONNECT) {
        return std::string(kRefused);
    }
    std::string kind = "transfer";
    switch (code) {
        case CURLE_OPERATION_TIMEDOUT:
            kind = "timeout";
            break;
        case CURLE_COULDNT_RESOLVE_HOST:
            kind = "resolve";
            break;
        case CURLE_COULDNT_CONNECT:
        case CURLE_SEND_ERROR:
        case CURLE_RECV_ERROR:
        case CURLE_GOT_NOTHING:
        case CURLE_WEIRD_SERVER_REPLY:
            kind = "connection";
            break;
        case CURLE_SSL_CONNECT_ERROR:
        case CURLE_PEER_FAILED_VERIFICATION:
        case CURLE_SSL_CERTPROBLEM:
        case CURLE_SSL_CIPHER:
        case CURLE_SSL_CACERT_BADFILE:
        case CURLE_SSL_ISSUER_ERROR:
        case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
        case CURLE_SSL_INVALIDCERTSTATUS:
            kind = "tls";
            break;
        case CURLE_UNSUPPORTED_PROTOCOL:
        case CURLE_URL_MALFORMAT:
            kind = "url";
            break;
        default:
            break;
    }
    const std::string detail =
        transfer.errorBuffer[0] != '\0' ? transfer.errorBuffer : curl_easy_strerror(code);
    return kind + ": " + detail;
}

/// Makes the easy handle of a request; "" or why it cannot be sent.
std::string prepare(Transfer& transfer, const SenderOptions& options) {
    for (const auto& header : transfer.request.headers) {
        if (auto problem = headerProblem(header); !problem.empty()) {
            return problem;
        }
    }
    transfer.easy = curl_easy_init();
    if (transfer.easy == nullptr) {
        return "transfer: libcurl could not make a handle";
    }
    transfer.headers = curl_slist_append(nullptr, "Content-Type: application/json");
    // An empty "Expect:" stops libcurl from waiting for "100 Continue" before larger bodies.
    transfer.headers = curl_slist_append(transfer.headers, "Expect:");
    for (const auto& [name, value] : transfer.request.headers) {
        transfer.headers = curl_slist_append(transfer.headers, (name + ": " + value).c_str());
    }
    CURL* easy = transfer.easy;
    curl_easy_setopt(easy, CURLOPT_URL, transfer.request.url.c_str());
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, transfer.errorBuffer);
#if LIBCURL_VERSION_NUM >= 0x075500
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
#else
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS, static_cast<long>(CURLPROTO_HTTP | CURLPROTO_HTTPS));
#endif
    curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 0L);
    curl_easy_setopt(easy, CURLOPT_PROXY, "");
    curl_easy_setopt(easy, CURLOPT_USERAGENT, kUserAgent);
    curl_easy_setopt(easy, CURLOPT_HTTPHEADER, transfer.headers);
    curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE,
                     static_cast<curl_off_t>(transfer.request.body.size()));
    curl_easy_setopt(easy, CURLOPT_POSTFIELDS, transfer.request.body.data());
    curl_easy_setopt(easy, CURLOPT_TIMEOUT_MS, options.timeoutMs);
    curl_easy_setopt(easy, CURLOPT_TCP_KEEPALIVE, 1L);
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &discardBody);
    curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &readHeader);
    curl_easy_setopt(easy, CURLOPT_HEADERDATA, &transfer);
    curl_easy_setopt(easy, CURLOPT_OPENSOCKETFUNCTION, &openSocket);
    curl_easy_setopt(easy, CURLOPT_OPENSOCKETDATA, &transfer);
    curl_easy_setopt(easy, CURLOPT_PRIVATE, &transfer);
    return "";
}

/// The requests of one endpoint not started yet, and how many of it are running.
struct EndpointQueue {
    std::deque<std::size_t> waiting;
    int running = 0;
};

/// The endpoints of a batch in the order they first come in it (turns go round them in that order),
/// each with its requests.
std::vector<int64_t> queueByEndpoint(const std::vector<Outgoing>& batch,
                                     std::unordered_map<int64_t, EndpointQueue>& queues) {
    std::vector<int64_t> endpoints;
    for (std::size_t i = 0; i < batch.size(); ++i) {
        auto [at, added] = queues.try_emplace(batch[i].endpoint);
        if (added) {
            endpoints.push_back(batch[i].endpoint);
        }
        at->second.waiting.push_back(i);
    }
    return endpoints;
}

/// What became of a transfer libcurl finished with `code`.
SendResult finished(Transfer& transfer, CURLcode code) {
    SendResult result;
    result.message = transfer.request.message;
    curl_easy_getinfo(transfer.easy, CURLINFO_RESPONSE_CODE, &result.status);
    // An answer whose body broke off still answered: its body would be dropped anyway.
    if (result.status == 0) {
        result.error = describe(code == CURLE_OK ? CURLE_GOT_NOTHING : code, transfer);
    }
    result.retryAfter = std::move(transfer.retryAfter);
    result.seconds = std::chrono::duration<double>(Clock::now() - transfer.start).count();
    return result;
}

}  // namespace

Sender::Sender(SenderOptions options) : options_(options) {
    options_.timeoutMs = std::max(options_.timeoutMs, 1L);
    options_.perEndpoint = std::max(options_.perEndpoint, 1);
    options_.total = std::max(options_.total, 1);
    static const CURLcode initialised = curl_global_init(CURL_GLOBAL_DEFAULT);
    CURLM* multi = initialised == CURLE_OK ? curl_multi_init() : nullptr;
    if (multi == nullptr) {
        throw std::runtime_error("libcurl cannot start");
    }
    curl_multi_setopt(multi, CURLMOPT_MAXCONNECTS, static_cast<long>(options_.total));
    multi_ = multi;
}

Sender::~Sender() {
    curl_multi_cleanup(static_cast<CURLM*>(multi_));
}

std::vector<SendResult> Sender::send(std::vector<Outgoing> batch) {
    CURLM* const multi = static_cast<CURLM*>(multi_);
    std::vector<SendResult> results;
    results.reserve(batch.size());
    std::vector<std::unique_ptr<Transfer>> transfers(batch.size());
    std::unordered_map<int64_t, EndpointQueue> queues;
    const std::vector<int64_t> endpoints = queueByEndpoint(batch, queues);

    int running = 0;
    std::size_t turn = 0;
    const auto startOne = [&](std::size_t index, EndpointQueue& queue) {
        auto transfer = std::make_unique<Transfer>();
        transfer->index = index;
        transfer->request = std::move(batch[index]);
        transfer->allowPrivate = options_.allowPrivate;
        if (auto problem = prepare(*transfer, options_); !problem.empty()) {
            results.push_back(SendResult{transfer->request.message, 0, std::move(problem), std::nullopt, 0});
            return;
        }
        transfer->start = Clock::now();
        if (curl_multi_add_handle(multi, transfer->easy) != CURLM_OK) {
            results.push_back(SendResult{transfer->request.message, 0,
                                         "transfer: libcurl refused the request", std::nullopt, 0});
            return;
        }
        transfers[index] = std::move(transfer);
        ++running;
        ++queue.running;
    };
    const auto fill = [&] {
        while (running < options_.total) {
            bool took = false;
            for (std::size_t k = 0; k < endpoints.size() && !took; ++k) {
                const std::size_t at = (turn + k) % endpoints.size();
                auto& queue = queues[endpoints[at]];
                if (queue.running < options_.perEndpoint && !queue.waiting.empty()) {
                    const std::size_t index = queue.waiting.front();
                    queue.waiting.pop_front();
                    startOne(index, queue);
                    turn = at + 1;
                    took = true;
                }
            }
            if (!took) {
                return;
            }
        }
    };

    fill();
    while (running > 0) {
        int active = 0;
        curl_multi_perform(multi, &active);
        int left = 0;
        while (CURLMsg* message = curl_multi_info_read(multi, &left)) {
            if (message->msg != CURLMSG_DONE) {
                continue;
            }
            char* self = nullptr;
            curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &self);
            auto* transfer = reinterpret_cast<Transfer*>(self);
            results.push_back(finished(*transfer, message->data.result));
            curl_multi_remove_handle(multi, transfer->easy);
            --running;
            --queues[transfer->request.endpoint].running;
            transfers[transfer->index].reset();
        }
        fill();
        if (running > 0) {
            curl_multi_poll(multi, nullptr, 0, 1000, nullptr);
        }
    }
    return results;
}

}  // namespace tovrel::server::webhooks
