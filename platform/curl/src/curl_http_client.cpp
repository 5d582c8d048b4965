#include "tovrel/curl/curl_http_client.h"

#include <curl/curl.h>

#include <deque>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <unordered_map>
#include <utility>

#include "curl_error.h"
#include "curl_transfer.h"
#include "tovrel/curl/json_response.h"

namespace tovrel::curl {
namespace {

using platform::HttpError;
using platform::HttpErrorKind;

void initCurlOnce() {
    static const CURLcode initialised = curl_global_init(CURL_GLOBAL_DEFAULT);
    if (initialised != CURLE_OK) {
        throw std::runtime_error("libcurl could not be initialised");
    }
}

bool hasLineBreak(const std::string& text) {
    return text.find_first_of("\r\n") != std::string::npos;
}

}  // namespace

class CurlHttpClient::Impl {
  public:
    Impl(platform::MainLoop& loop, CurlOptions options)
        : loop_(loop),
          options_(std::move(options)),
          pinOption_(pinnedPublicKeyOption(options_.pinnedPublicKeys)) {
        initCurlOnce();
        multi_ = curl_multi_init();
        share_ = curl_share_init();
        if (multi_ == nullptr || share_ == nullptr) {
            curl_multi_cleanup(multi_);
            curl_share_cleanup(share_);
            throw std::runtime_error("libcurl could not create its handles");
        }
        // Only the network thread uses the share, so it needs no lock callbacks.
        curl_share_setopt(share_, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
        curl_share_setopt(share_, CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
        thread_ = std::thread([this] { run(); });
    }

    ~Impl() {
        {
            std::lock_guard lock(mutex_);
            stopping_ = true;
        }
        curl_multi_wakeup(multi_);
        thread_.join();
        curl_multi_cleanup(multi_);
        curl_share_cleanup(share_);
    }

    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    [[nodiscard]] const CurlOptions& options() const { return options_; }

    /// Any thread. Hands `transfer` to the network thread, or completes it at once when it cannot go.
    void enqueue(std::unique_ptr<Transfer> transfer) {
        auto target = parseTarget(transfer->url);
        if (!target) {
            fail(*transfer,
                 HttpError{HttpErrorKind::kTransport, static_cast<int>(CURLE_URL_MALFORMAT),
                           "The address \"" + transfer->url + "\" is not a valid http or https URL."});
            return;
        }
        transfer->target = std::move(*target);
        {
            std::lock_guard lock(mutex_);
            if (!stopping_) {
                queue_.push_back(std::move(transfer));
            }
        }
        if (transfer) {
            fail(*transfer, cancelledError(transfer->target.hostPort));
            return;
        }
        curl_multi_wakeup(multi_);
    }

    /// Any thread. Posts `transfer`'s completion with `error`.
    void fail(Transfer& transfer, HttpError error, int status = 0) {
        if (transfer.jsonDone) {
            platform::JsonResult result;
            result.status = status;
            result.error = std::move(error);
            post(std::move(transfer.jsonDone), std::move(result));
        } else {
            platform::HttpResponse response;
            response.status = status;
            response.error = std::move(error);
            post(std::move(transfer.responseDone), std::move(response));
        }
    }

  private:
    template <typename Completion, typename Result>
    void post(Completion done, Result result) {
        if (done) {
            loop_.post(
                [done = std::move(done), result = std::move(result)]() mutable { done(std::move(result)); });
        }
    }

    void run() {
        for (;;) {
            std::deque<std::unique_ptr<Transfer>> incoming;
            {
                std::lock_guard lock(mutex_);
                if (stopping_) {
                    break;
                }
                incoming.swap(queue_);
            }
            for (auto& transfer : incoming) {
                start(std::move(transfer));
            }
            int running = 0;
            curl_multi_perform(multi_, &running);
            int left = 0;
            while (CURLMsg* message = curl_multi_info_read(multi_, &left)) {
                if (message->msg == CURLMSG_DONE) {
                    finish(message->easy_handle, message->data.result);
                }
            }
            curl_multi_poll(multi_, nullptr, 0, 1000, nullptr);
        }
        cancelAll();
    }

    void start(std::unique_ptr<Transfer> transfer) {
        if (auto error = transfer->open(options_, pinOption_, share_)) {
            fail(*transfer, std::move(*error));
            return;
        }
        if (curl_multi_add_handle(multi_, transfer->easy) != CURLM_OK) {
            fail(*transfer,
                 HttpError{HttpErrorKind::kTransport, static_cast<int>(CURLE_FAILED_INIT),
                           "The request to " + transfer->target.hostPort + " could not be started."});
            return;
        }
        CURL* easy = transfer->easy;
        active_.emplace(easy, std::move(transfer));
    }

    void finish(CURL* easy, CURLcode code) {
        curl_multi_remove_handle(multi_, easy);
        auto node = active_.extract(easy);
        if (node.empty()) {
            return;
        }
        Transfer& transfer = *node.mapped();
        if (code != CURLE_OK) {
            fail(transfer, describeTransferFailure(transfer.failure(code, options_.connectTimeoutSeconds)),
                 transfer.status());
        } else if (transfer.jsonDone) {
            post(std::move(transfer.jsonDone),
                 classifyJsonResponse(transfer.status(), std::move(transfer.received),
                                      transfer.target.hostPort));
        } else {
            platform::HttpResponse response;
            response.status = transfer.status();
            response.contentType = transfer.contentType();
            response.body = std::move(transfer.received);
            post(std::move(transfer.responseDone), std::move(response));
        }
    }

    void cancelAll() {
        for (auto& [easy, transfer] : active_) {
            curl_multi_remove_handle(multi_, easy);
            fail(*transfer, cancelledError(transfer->target.hostPort));
        }
        active_.clear();
        std::deque<std::unique_ptr<Transfer>> queued;
        {
            std::lock_guard lock(mutex_);
            queued.swap(queue_);
        }
        for (auto& transfer : queued) {
            fail(*transfer, cancelledError(transfer->target.hostPort));
        }
    }

    platform::MainLoop& loop_;
    const CurlOptions options_;
    const std::string pinOption_;
    CURLM* multi_ = nullptr;
    CURLSH* share_ = nullptr;

    std::mutex mutex_;
    std::deque<std::unique_ptr<Transfer>> queue_;  // guarded by mutex_
    bool stopping_ = false;                        // guarded by mutex_

    std::unordered_map<CURL*, std::unique_ptr<Transfer>> active_;  // network thread only
    std::thread thread_;
};

CurlHttpClient::CurlHttpClient(platform::MainLoop& loop, CurlOptions options)
    : impl_(std::make_unique<Impl>(loop, std::move(options))) {}

CurlHttpClient::~CurlHttpClient() = default;

void CurlHttpClient::postJson(const std::string& url, std::string body, platform::JsonCompletion completion) {
    auto transfer = std::make_unique<Transfer>();
    transfer->url = url;
    transfer->method = "POST";
    transfer->body = std::move(body);
    transfer->headerLines = {"Content-Type: application/json", "Accept: application/json"};
    transfer->timeoutSeconds = impl_->options().totalTimeoutSeconds;
    transfer->jsonDone = std::move(completion);
    impl_->enqueue(std::move(transfer));
}

void CurlHttpClient::send(platform::HttpRequest request, platform::ResponseCompletion completion) {
    auto transfer = std::make_unique<Transfer>();
    transfer->url = std::move(request.url);
    transfer->method = request.method.empty() ? "GET" : std::move(request.method);
    transfer->body = std::move(request.body);
    transfer->timeoutSeconds =
        request.timeoutSeconds > 0 ? request.timeoutSeconds : impl_->options().totalTimeoutSeconds;
    transfer->followRedirects = true;
    transfer->responseDone = std::move(completion);
    for (auto& [name, value] : request.headers) {
        if (name.empty() || hasLineBreak(name) || hasLineBreak(value) ||
            name.find(':') != std::string::npos) {
            impl_->fail(*transfer,
                        HttpError{HttpErrorKind::kTransport, static_cast<int>(CURLE_BAD_FUNCTION_ARGUMENT),
                                  "The request has a header that is not valid HTTP (an empty name, a "
                                  "colon in the name or a line break)."});
            return;
        }
        // libcurl sends a header with an empty value only when it is written "Name;".
        transfer->headerLines.push_back(value.empty() ? name + ";" : name + ": " + value);
    }
    if (request.ignoreCache) {
        transfer->headerLines.emplace_back("Cache-Control: no-cache");
        transfer->headerLines.emplace_back("Pragma: no-cache");
    }
    impl_->enqueue(std::move(transfer));
}

}  // namespace tovrel::curl
