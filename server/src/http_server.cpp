#include "http_server.h"

#include <openssl/err.h>
#include <openssl/x509.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <thread>
#include <unordered_map>
#include <vector>

#include "beast.h"
#include "buffer_pool.h"
#include "compression.h"
#include "log.h"
#include "rate_limiter.h"
#include "request_fields.h"
#include "tovrel/platform/thread_annotations.h"

namespace tovrel::server {

using tovrel::platform::Lock;
using tovrel::platform::Mutex;
using tovrel::platform::ReaderLock;
using tovrel::platform::SharedMutex;

namespace beast = boost::beast;
namespace http = beast::http;
namespace net = boost::asio;
namespace ssl = net::ssl;
using tcp = net::ip::tcp;
// One io_context per thread: a connection lives on one thread, so it needs no strand and threads
// never wake each other.
using IoExecutor = net::io_context::executor_type;
using PlainStream = beast::basic_stream<tcp, IoExecutor>;
using TlsStream = beast::ssl_stream<PlainStream>;
using Socket = net::basic_stream_socket<tcp, IoExecutor>;

namespace {

constexpr std::size_t kMaxHeader = 16 * 1024;
// A refused request is followed by reading (and dropping) what the client still sends, so that
// it sees the answer instead of a reset; bounded in time and size.
constexpr auto kLingerTime = std::chrono::seconds(2);
constexpr std::size_t kLingerBytes = 8 * 1024 * 1024;
constexpr auto kStopGrace = std::chrono::seconds(3);

double steadySeconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

std::string_view view(beast::string_view text) {
    return {text.data(), text.size()};
}

std::string kibibytes(std::size_t bytes) {
    return bytes % (1024 * 1024) == 0 ? std::to_string(bytes / (1024 * 1024)) + " MiB"
                                      : std::to_string(bytes / 1024) + " KiB";
}

// The network an address belongs to, for per-network caps: its /24 (IPv4) or /64 (IPv6).
std::string prefixOf(const std::string& address) {
    beast::error_code ec;
    const auto parsed = net::ip::make_address(address, ec);
    if (ec) {
        return address;
    }
    if (parsed.is_v4() || parsed.to_v6().is_v4_mapped()) {
        auto bytes =
            (parsed.is_v4() ? parsed.to_v4() : net::ip::make_address_v4(net::ip::v4_mapped, parsed.to_v6()))
                .to_bytes();
        bytes[3] = 0;
        return net::ip::address_v4(bytes).to_string() + "/24";
    }
    auto bytes = parsed.to_v6().to_bytes();
    std::fill(bytes.begin() + 8, bytes.end(), 0);
    return net::ip::address_v6(bytes).to_string() + "/64";
}

}  // namespace

Admission RequestHandler::admit(const HttpRequest&) {
    return {};
}

// A live connection as the listener sees it.
struct ConnectionEntry {
    std::function<void()> closeIfIdle;
    const std::atomic<bool>* busy = nullptr;
    std::uint64_t order = 0;  ///< admission order: the oldest is evicted first
    bool evicting = false;
};

// State shared by the listener and every connection.
struct Shared {
    Shared(RequestHandler& h, HttpOptions o, const Logger& l, Metrics& m)
        : handler(h), options(std::move(o)), logger(l), metrics(m) {}

    RequestHandler& handler;
    HttpOptions options;
    const Logger& logger;
    Metrics& metrics;
    std::optional<ssl::context> tls;
    std::atomic<bool> stopping{false};
    Mutex registryMutex;
    /// Per live connection: how to close it if idle, and whether it is.
    std::unordered_map<void*, ConnectionEntry> connections TOVREL_GUARDED_BY(registryMutex);
    std::uint64_t admitted TOVREL_GUARDED_BY(registryMutex) = 0;
    int open TOVREL_GUARDED_BY(registryMutex) = 0;      ///< connections admitted and not yet gone
    int evicting TOVREL_GUARDED_BY(registryMutex) = 0;  ///< of those, told to close to make room
    /// The same, by remote address and by network.
    std::unordered_map<std::string, int> openPerAddress TOVREL_GUARDED_BY(registryMutex);
    std::unordered_map<std::string, int> openPerPrefix TOVREL_GUARDED_BY(registryMutex);
    RateLimiter limiter{options.rateLimit, options.rateLimit * 2};

    /// Counts a new connection from `address` in, or says it must be refused.
    bool admit(const std::string& address) TOVREL_REQUIRES(registryMutex) {
        if (count(openPerAddress, address) >= options.maxConnectionsPerAddress ||
            (options.maxConnectionsPerPrefix > 0 &&
             count(openPerPrefix, prefixOf(address)) >= options.maxConnectionsPerPrefix)) {
            return false;
        }
        if (open - evicting >= options.maxConnections && !(options.evictIdleWhenFull && evictOldestIdle())) {
            return false;
        }
        ++open;
        ++openPerAddress[address];
        if (options.maxConnectionsPerPrefix > 0) {
            ++openPerPrefix[prefixOf(address)];
        }
        return true;
    }
    /// Counts a connection from `address` out.
    void release(const std::string& address, bool wasEvicting) TOVREL_REQUIRES(registryMutex) {
        --open;
        evicting -= wasEvicting ? 1 : 0;
        forget(openPerAddress, address);
        if (options.maxConnectionsPerPrefix > 0) {
            forget(openPerPrefix, prefixOf(address));
        }
    }

  private:
    static int count(const std::unordered_map<std::string, int>& counts, const std::string& key) {
        const auto it = counts.find(key);
        return it == counts.end() ? 0 : it->second;
    }
    static void forget(std::unordered_map<std::string, int>& counts, const std::string& key) {
        if (const auto it = counts.find(key); it != counts.end() && --it->second <= 0) {
            counts.erase(it);
        }
    }
    // Tells the longest-open connection that waits for a request to close; false when none waits.
    bool evictOldestIdle() TOVREL_REQUIRES(registryMutex) {
        ConnectionEntry* oldest = nullptr;
        for (auto& [connection, entry] : connections) {
            if (!entry.evicting && !entry.busy->load() &&
                (oldest == nullptr || entry.order < oldest->order)) {
                oldest = &entry;
            }
        }
        if (oldest == nullptr) {
            return false;
        }
        oldest->evicting = true;
        ++evicting;
        oldest->closeIfIdle();
        return true;
    }
};

template <typename Stream>
class Connection : public std::enable_shared_from_this<Connection<Stream>> {
    static constexpr bool kTls = std::is_same_v<Stream, TlsStream>;

  public:
    /// `address` has been admitted (Shared::admit); the connection counts it out when it goes.
    Connection(Socket&& socket, Shared& shared, std::string address)
        : stream_(makeStream(std::move(socket), shared)), shared_(shared), address_(std::move(address)) {}

    ~Connection() {
        Lock lock(shared_.registryMutex);
        const auto entry = shared_.connections.find(this);
        const bool evicting = entry != shared_.connections.end() && entry->second.evicting;
        if (entry != shared_.connections.end()) {
            shared_.connections.erase(entry);
        }
        shared_.release(address_, evicting);
    }

    void run() {
        {
            Lock lock(shared_.registryMutex);
            std::weak_ptr<Connection> weak = this->shared_from_this();
            auto executor = stream_.get_executor();
            ConnectionEntry& entry = shared_.connections[this];
            entry.closeIfIdle = [weak, executor] {
                net::post(executor, [weak] {
                    if (auto self = weak.lock()) {
                        self->closeIfIdle();
                    }
                });
            };
            entry.busy = &busy_;
            entry.order = ++shared_.admitted;
        }
        if constexpr (kTls) {
            lowest().expires_after(std::chrono::seconds(shared_.options.requestTimeoutSeconds));
            stream_.async_handshake(ssl::stream_base::server,
                                    [self = this->shared_from_this()](beast::error_code ec) {
                                        if (ec) {
                                            return self->closeNow();
                                        }
                                        self->readHeader();
                                    });
        } else {
            net::dispatch(stream_.get_executor(), [self = this->shared_from_this()] { self->readHeader(); });
        }
    }

  private:
    static Stream makeStream(Socket&& socket, Shared& shared) {
        if constexpr (kTls) {
            return Stream(PlainStream(std::move(socket)), *shared.tls);
        } else {
            return Stream(std::move(socket));
        }
    }

    PlainStream& lowest() { return beast::get_lowest_layer(stream_); }

    void closeIfIdle() {
        if (!busy_) {
            beast::error_code ec;
            lowest().socket().cancel(ec);
        }
    }

    void readHeader() {
        if (shared_.stopping) {
            return closeNow();
        }
        parser_.emplace();
        bodyLimit_ = HttpServer::kMaxBody;
        parser_->body_limit(bodyLimit_);
        parser_->header_limit(kMaxHeader);
        lowest().expires_after(std::chrono::seconds(shared_.options.requestTimeoutSeconds));
        http::async_read_header(
            stream_, buffer_, *parser_,
            [self = this->shared_from_this()](beast::error_code ec, std::size_t) { self->onHeader(ec); });
    }

    bool readFailed(beast::error_code ec) {
        if (!ec) {
            return false;
        }
        if (ec == http::error::body_limit) {
            refuse(http::status::payload_too_large,
                   "the request body exceeds the limit of " + kibibytes(bodyLimit_));
        } else if (ec == http::error::header_limit) {
            refuse(http::status::request_header_fields_too_large, "the request header exceeds 16 KiB");
        } else if (ec.category() == http::make_error_code(http::error::bad_method).category() &&
                   ec != http::error::end_of_stream && ec != http::error::partial_message) {
            refuse(http::status::bad_request, "the request is not valid HTTP/1.1");
        } else {
            closeNow();
        }
        return true;
    }

    void onHeader(beast::error_code ec) {
        if (readFailed(ec)) {
            return;
        }
        busy_ = true;
        started_ = steadySeconds();
        // What a retry storm hits is refused before its body is read.
        if (!shared_.limiter.allow(address_, started_)) {
            shared_.metrics.rateLimited();
            return refuse(http::status::too_many_requests, "too many requests from this address; slow down",
                          "1");
        }
        const auto& req = parser_->get();
        const std::string_view target = view(req.target());
        Admission admission = shared_.handler.admit(HttpRequest{view(req.method_string()),
                                                                target,
                                                                target.substr(0, target.find_first_of("?#")),
                                                                {},
                                                                view(req[http::field::host]),
                                                                view(req[http::field::authorization]),
                                                                address_,
                                                                kTls});
        if (admission.refusal) {
            return refuse(std::move(*admission.refusal));
        }
        if (const auto length = parser_->content_length(); length && *length > admission.bodyLimit) {
            return refuse(http::status::payload_too_large,
                          "the request body exceeds the limit of " + kibibytes(admission.bodyLimit));
        }
        parser_->body_limit(admission.bodyLimit);
        bodyLimit_ = admission.bodyLimit;
        slot_ = std::move(admission.slot);
        if (beast::iequals(req[http::field::expect], "100-continue")) {
            auto cont =
                std::make_shared<http::response<http::empty_body>>(http::status::continue_, req.version());
            http::async_write(stream_, *cont,
                              [self = this->shared_from_this(), cont](beast::error_code wec, std::size_t) {
                                  if (wec) {
                                      return self->closeNow();
                                  }
                                  self->readBody();
                              });
            return;
        }
        readBody();
    }

    void readBody() {
        http::async_read(
            stream_, buffer_, *parser_,
            [self = this->shared_from_this()](beast::error_code ec, std::size_t) { self->onBody(ec); });
    }

    void onBody(beast::error_code ec) {
        if (readFailed(ec)) {
            return;
        }
        auto& req = parser_->get();
        const std::string_view target = view(req.target());
        const std::string_view path = target.substr(0, target.find_first_of("?#"));
        request_ = Pending{std::string(view(req.method_string())), std::string(path), req.version(),
                           req.keep_alive(), acceptsGzip(view(req[http::field::accept_encoding]))};
        const HttpRequest request{view(req.method_string()),
                                  target,
                                  path,
                                  req.body(),
                                  view(req[http::field::host]),
                                  view(req[http::field::authorization]),
                                  address_,
                                  kTls};
        // The answer may come from another thread; it is sent from this connection's own, which the
        // pending answer keeps alive and running.
        Respond respond = [self = this->shared_from_this(),
                           work = net::make_work_guard(stream_.get_executor())](HttpReply&& reply) mutable {
            net::dispatch(work.get_executor(),
                          [self, reply = std::move(reply)]() mutable { self->answer(std::move(reply)); });
        };
        try {
            shared_.handler.handle(request, std::move(respond));
        } catch (const std::exception& e) {
            shared_.logger.write(LogLevel::error, shared_.logger.line(LogLevel::error, "request failed")
                                                      .add("path", request_.path)
                                                      .add("error", e.what()));
            HttpReply failed;
            failed.status = 500;
            failed.body = errorJson("the server failed; its log says why");
            answer(std::move(failed));
        }
    }

    void answer(HttpReply&& reply) {
        const bool keepAlive = request_.keepAlive && !shared_.stopping;
        const double elapsed = steadySeconds() - started_;
        shared_.metrics.request(reply.route, reply.status, elapsed);
        if (shared_.logger.accessLog()) {
            auto line = shared_.logger.line(LogLevel::info, "request");
            line.add("listener", shared_.options.name)
                .add("method", request_.method)
                .add("path", request_.path)
                .add("status", static_cast<std::int64_t>(reply.status))
                .add("us", static_cast<std::int64_t>(elapsed * 1e6))
                .add("remote", address_);
            pendingLog_.emplace(std::move(line));
        }
        if (!reply.file.empty()) {
            return sendFile(std::move(reply), keepAlive);
        }
        sendMemory(std::move(reply), keepAlive);
    }

    void sendMemory(HttpReply&& reply, bool keepAlive) {
        body_ = std::move(reply.body);
        const char* encoding = nullptr;
        if (request_.gzip && body_.size() >= HttpServer::kMinGzipBody) {
            std::string packed = buffer_pool::take();
            if (gzipCompress(body_, packed)) {
                encoding = "gzip";
                std::swap(body_, packed);
            }
            buffer_pool::give(std::move(packed));
        }
        writeHead(reply, keepAlive, encoding);
        if (request_.method == "HEAD") {
            // The header says how long the body would be; sending it would put the next answer out of step.
            buffer_pool::give(std::move(body_));
            body_.clear();
        }
        sendHeadAndBody(keepAlive);
    }

    // The header of an answer held in memory, written by hand: this is every API answer, and Beast's
    // general serializer costs more than the whole rest of the request.
    void writeHead(const HttpReply& reply, bool keepAlive, const char* encoding) {
        head_.clear();
        head_ += request_.version == 10 ? "HTTP/1.0 " : "HTTP/1.1 ";
        head_ += std::to_string(reply.status);
        head_ += ' ';
        const auto reason = http::obsolete_reason(static_cast<http::status>(reply.status));
        head_.append(reason.data(), reason.size());
        head_ += "\r\nServer: tovrel-server\r\nContent-Type: ";
        head_ += reply.contentType;
        head_ += "\r\nVary: Accept-Encoding\r\n";
        const auto field = [this](const char* name, const char* value) {
            if (value != nullptr) {
                head_ += name;
                head_ += ": ";
                head_ += value;
                head_ += "\r\n";
            }
        };
        field("Content-Encoding", encoding);
        field("Allow", reply.allow);
        field("Retry-After", reply.retryAfter);
        field("WWW-Authenticate", reply.authenticate);
        if (request_.version == 10 && keepAlive) {
            head_ += "Connection: keep-alive\r\n";
        } else if (request_.version != 10 && !keepAlive) {
            head_ += "Connection: close\r\n";
        }
        head_ += "Content-Length: ";
        head_ += std::to_string(body_.size());
        head_ += "\r\n\r\n";
    }

    void sendHeadAndBody(bool keepAlive) {
        lowest().expires_after(std::chrono::seconds(shared_.options.requestTimeoutSeconds));
        const std::array<net::const_buffer, 2> buffers{net::buffer(head_), net::buffer(body_)};
        net::async_write(
            stream_, buffers,
            [self = this->shared_from_this(), keepAlive](beast::error_code ec, std::size_t bytes) {
                self->busy_ = false;
                self->slot_.reset();
                self->finishLog(bytes);
                buffer_pool::give(std::move(self->body_));
                self->body_.clear();
                if (ec || !keepAlive) {
                    return self->closeNow();
                }
                self->readHeader();
            });
    }

    void sendFile(HttpReply&& reply, bool keepAlive) {
        http::file_body::value_type body;
        beast::error_code ec;
        body.open(reply.file.c_str(), beast::file_mode::scan, ec);
        if (ec) {
            HttpReply missing;
            missing.status = 404;
            missing.route = reply.route;
            missing.body = errorJson("there is no page " + request_.path);
            return sendMemory(std::move(missing), keepAlive);
        }
        const auto size = body.size();
        if (reply.headOnly) {
            auto res = std::make_shared<http::response<http::empty_body>>(http::status::ok, request_.version);
            setCommon(*res, reply, keepAlive);
            res->content_length(size);
            return send(std::move(res));
        }
        auto res = std::make_shared<http::response<http::file_body>>(
            std::piecewise_construct, std::make_tuple(std::move(body)),
            std::make_tuple(http::status::ok, request_.version));
        setCommon(*res, reply, keepAlive);
        res->content_length(size);
        send(std::move(res));
    }

    template <typename Message>
    static void setCommon(Message& res, const HttpReply& reply, bool keepAlive) {
        if (!reply.fileType.empty()) {
            res.set(http::field::content_type, reply.fileType);
        } else {
            res.set(http::field::content_type, reply.contentType);
        }
        if (reply.allow != nullptr) {
            res.set(http::field::allow, reply.allow);
        }
        if (reply.retryAfter != nullptr) {
            res.set(http::field::retry_after, reply.retryAfter);
        }
        if (reply.authenticate != nullptr) {
            res.set(http::field::www_authenticate, reply.authenticate);
        }
        res.keep_alive(keepAlive);
    }

    template <typename Body>
    void send(std::shared_ptr<http::response<Body>> res, bool linger = false) {
        res->set(http::field::server, "tovrel-server");
        lowest().expires_after(std::chrono::seconds(shared_.options.requestTimeoutSeconds));
        http::async_write(
            stream_, *res,
            [self = this->shared_from_this(), res, linger](beast::error_code ec, std::size_t bytes) {
                self->busy_ = false;
                self->slot_.reset();
                self->finishLog(bytes);
                if constexpr (std::is_same_v<Body, http::string_body>) {
                    buffer_pool::give(std::move(res->body()));
                }
                if (ec) {
                    return self->closeNow();
                }
                if (linger) {
                    return self->lingerAndClose();
                }
                if (res->need_eof()) {
                    return self->closeNow();
                }
                self->readHeader();
            });
    }

    void finishLog(std::size_t bytes) {
        if (pendingLog_) {
            pendingLog_->add("bytes", static_cast<std::uint64_t>(bytes));
            shared_.logger.write(LogLevel::info, std::move(*pendingLog_));
            pendingLog_.reset();
        }
    }

    // Answers a request that cannot be read to its end, then closes the connection.
    void refuse(http::status status, const std::string& message, const char* retryAfter = nullptr) {
        HttpReply reply;
        reply.status = static_cast<unsigned>(status);
        reply.retryAfter = retryAfter;
        reply.body = errorJson(message);
        refuse(std::move(reply));
    }

    void refuse(HttpReply&& reply) {
        busy_ = true;
        shared_.metrics.request(reply.route, reply.status, 0);
        auto res =
            std::make_shared<http::response<http::string_body>>(static_cast<http::status>(reply.status), 11);
        setCommon(*res, reply, false);
        res->body() = std::move(reply.body);
        res->prepare_payload();
        if (parser_ && parser_->is_header_done() && parser_->get().method() == http::verb::head) {
            res->body().clear();
        }
        send(std::move(res), true);
    }

    void lingerAndClose() {
        beast::error_code ec;
        lowest().socket().shutdown(tcp::socket::shutdown_send, ec);
        lowest().expires_after(kLingerTime);
        drain();
    }

    void drain() {
        scratch_.resize(16 * 1024);
        lowest().async_read_some(net::buffer(scratch_),
                                 [self = this->shared_from_this()](beast::error_code ec, std::size_t n) {
                                     self->drained_ += n;
                                     if (ec || self->drained_ > kLingerBytes) {
                                         return self->closeNow();
                                     }
                                     self->drain();
                                 });
    }

    void closeNow() {
        beast::error_code ec;
        lowest().socket().shutdown(tcp::socket::shutdown_both, ec);
        lowest().close();
    }

    struct Pending {
        std::string method;
        std::string path;
        unsigned version = 11;
        bool keepAlive = false;
        bool gzip = false;
    };

    Stream stream_;
    Shared& shared_;
    const std::string address_;
    beast::flat_buffer buffer_;
    std::optional<http::request_parser<http::string_body>> parser_;
    Pending request_;
    std::string head_;  ///< the header of the answer being written, its capacity kept
    std::string body_;  ///< the body of that answer, from the thread's buffer pool
    std::optional<LogLine> pendingLog_;
    std::vector<char> scratch_;
    std::size_t drained_ = 0;
    std::size_t bodyLimit_ = HttpServer::kMaxBody;
    std::shared_ptr<void> slot_;  ///< what the handler admitted this request with, until it is answered
    double started_ = 0;
    /// Written on the connection's thread, read by the listener choosing an idle connection to close.
    std::atomic<bool> busy_{false};
};

class Listener : public std::enable_shared_from_this<Listener> {
  public:
    Listener(std::vector<std::unique_ptr<net::io_context>>& contexts, Shared& shared,
             const tcp::endpoint& endpoint)
        : contexts_(contexts), shared_(shared), acceptor_(*contexts.front()), retry_(*contexts.front()) {
        beast::error_code ec;
        acceptor_.open(endpoint.protocol(), ec);
        if (!ec) {
            acceptor_.set_option(net::socket_base::reuse_address(true), ec);
        }
        if (!ec) {
            acceptor_.bind(endpoint, ec);
        }
        if (!ec) {
            acceptor_.listen(net::socket_base::max_listen_connections, ec);
        }
        if (ec) {
            throw std::runtime_error("cannot listen on " + endpoint.address().to_string() + ":" +
                                     std::to_string(endpoint.port()) + ": " + ec.message());
        }
    }

    uint16_t port() const { return acceptor_.local_endpoint().port(); }

    void run() {
        net::dispatch(acceptor_.get_executor(), [self = shared_from_this()] { self->accept(); });
    }

    void close() {
        net::post(acceptor_.get_executor(), [self = shared_from_this()] {
            beast::error_code ec;
            self->acceptor_.close(ec);
            self->retry_.cancel();
        });
    }

  private:
    void accept() {
        if (!acceptor_.is_open()) {
            return;
        }
        net::io_context& target = *contexts_[next_++ % contexts_.size()];
        acceptor_.async_accept(target, beast::bind_front_handler(&Listener::onAccept, shared_from_this()));
    }

    void onAccept(beast::error_code ec, Socket socket) {
        if (ec == net::error::operation_aborted || !acceptor_.is_open()) {
            return;
        }
        if (ec) {
            // Out of descriptors and the like: wait a little instead of spinning.
            retry_.expires_after(std::chrono::milliseconds(50));
            retry_.async_wait([self = shared_from_this()](beast::error_code wec) {
                if (!wec) {
                    self->accept();
                }
            });
            return;
        }
        beast::error_code ignored;
        const auto remote = socket.remote_endpoint(ignored);
        std::string address = ignored ? std::string() : remote.address().to_string();
        bool admitted = false;
        {
            Lock lock(shared_.registryMutex);
            admitted = shared_.admit(address);
        }
        if (!admitted) {
            refuse(socket);
        } else {
            socket.set_option(tcp::no_delay(true), ignored);
            if (shared_.tls) {
                std::make_shared<Connection<TlsStream>>(std::move(socket), shared_, std::move(address))
                    ->run();
            } else {
                std::make_shared<Connection<PlainStream>>(std::move(socket), shared_, std::move(address))
                    ->run();
            }
        }
        accept();
    }

    // Over a limit: one small answer written without waiting (it fits any socket buffer), then close.
    // A client that does not read loses the answer, not the acceptor's time. Over TLS the client sees
    // only the closed connection: a handshake would cost what the limit is there to save.
    void refuse(Socket& socket) {
        shared_.metrics.refusedConnection();
        beast::error_code ignored;
        if (!shared_.tls) {
            static constexpr std::string_view kBody =
                R"({"error":"too many connections; try again shortly"})";
            const std::string answer =
                "HTTP/1.1 503 Service Unavailable\r\nContent-Type: application/json\r\n"
                "Retry-After: 1\r\nConnection: close\r\nContent-Length: " +
                std::to_string(kBody.size()) + "\r\n\r\n" + std::string(kBody);
            socket.non_blocking(true, ignored);
            socket.write_some(net::buffer(answer), ignored);
        }
        socket.shutdown(tcp::socket::shutdown_send, ignored);
        socket.close(ignored);
    }

    std::vector<std::unique_ptr<net::io_context>>& contexts_;
    Shared& shared_;
    net::basic_socket_acceptor<tcp, IoExecutor> acceptor_;
    net::basic_waitable_timer<std::chrono::steady_clock, net::wait_traits<std::chrono::steady_clock>,
                              IoExecutor>
        retry_;
    std::size_t next_ = 0;
};

struct HttpServer::Impl {
    RequestHandler& handler;
    HttpOptions options;
    const Logger& logger;
    Metrics& metrics;
    mutable std::mutex mutex;
    std::vector<std::unique_ptr<net::io_context>> contexts;
    std::vector<net::executor_work_guard<IoExecutor>> guards;
    std::unique_ptr<Shared> shared;
    std::shared_ptr<Listener> listener;
    std::vector<std::thread> threads;
    std::atomic<int> running{0};
    uint16_t port = 0;
};

namespace {

ssl::context makeTlsContext(const HttpOptions& options) {
    ssl::context context(ssl::context::tls_server);
    context.set_options(ssl::context::default_workarounds | ssl::context::no_sslv2 | ssl::context::no_sslv3 |
                        ssl::context::no_tlsv1 | ssl::context::no_tlsv1_1 | ssl::context::single_dh_use);
    if (SSL_CTX_set_cipher_list(context.native_handle(), options.tlsCiphers.c_str()) != 1) {
        throw std::runtime_error("no TLS 1.2 cipher suite matches \"" + options.tlsCiphers + "\"");
    }
    SSL_CTX_set_options(context.native_handle(), SSL_OP_CIPHER_SERVER_PREFERENCE);
    beast::error_code ec;
    context.use_certificate_chain_file(options.tlsCertificateFile, ec);
    if (ec) {
        throw std::runtime_error("cannot read the TLS certificate " + options.tlsCertificateFile + ": " +
                                 ec.message());
    }
    context.use_private_key_file(options.tlsKeyFile, ssl::context::pem, ec);
    if (ec && ERR_GET_REASON(static_cast<unsigned long>(ec.value())) == X509_R_KEY_VALUES_MISMATCH) {
        throw std::runtime_error("the TLS key " + options.tlsKeyFile + " does not match the certificate " +
                                 options.tlsCertificateFile);
    }
    if (ec) {
        throw std::runtime_error("cannot read the TLS key " + options.tlsKeyFile + ": " + ec.message());
    }
    if (SSL_CTX_check_private_key(context.native_handle()) != 1) {
        throw std::runtime_error("the TLS key " + options.tlsKeyFile + " does not match the certificate " +
                                 options.tlsCertificateFile);
    }
    return context;
}

}  // namespace

HttpServer::HttpServer(RequestHandler& handler, HttpOptions options, const Logger& logger, Metrics& metrics)
    : impl_(new Impl{handler, std::move(options), logger, metrics, {}, {}, {}, {}, {}, {}, {}, 0}) {}

HttpServer::~HttpServer() {
    stop();
}

uint16_t HttpServer::start() {
    std::lock_guard lock(impl_->mutex);
    Impl& m = *impl_;
    if (m.listener) {
        throw std::runtime_error("the server is already running");
    }
    if (m.options.tlsCertificateFile.empty() != m.options.tlsKeyFile.empty()) {
        throw std::runtime_error("TLS needs both a certificate and a key");
    }
    beast::error_code ec;
    const auto address = net::ip::make_address(m.options.address, ec);
    if (ec) {
        throw std::runtime_error("cannot listen on " + m.options.address + ": not an IP address");
    }
    auto shared = std::make_unique<Shared>(m.handler, m.options, m.logger, m.metrics);
    if (!m.options.tlsCertificateFile.empty()) {
        shared->tls.emplace(makeTlsContext(m.options));
    }
    const int threads = std::max(1, m.options.threads);
    for (int i = 0; i < threads; ++i) {
        m.contexts.push_back(std::make_unique<net::io_context>(1));
        m.guards.push_back(net::make_work_guard(*m.contexts.back()));
    }
    m.shared = std::move(shared);
    try {
        m.listener =
            std::make_shared<Listener>(m.contexts, *m.shared, tcp::endpoint(address, m.options.port));
    } catch (...) {
        m.guards.clear();
        m.contexts.clear();
        m.shared.reset();
        throw;
    }
    m.port = m.listener->port();
    m.listener->run();
    m.running = threads;
    for (int i = 0; i < threads; ++i) {
        m.threads.emplace_back([&m, &ioc = *m.contexts[static_cast<std::size_t>(i)]] {
            for (;;) {
                try {
                    ioc.run();
                    break;
                } catch (const std::exception& e) {
                    m.logger.write(
                        LogLevel::error,
                        m.logger.line(LogLevel::error, "request thread caught").add("error", e.what()));
                }
            }
            --m.running;
        });
    }
    return m.port;
}

void HttpServer::stop(const std::function<void()>& drain) {
    std::lock_guard lock(impl_->mutex);
    Impl& m = *impl_;
    if (!m.listener) {
        return;
    }
    m.shared->stopping = true;
    m.listener->close();
    m.guards.clear();
    {
        Lock registry(m.shared->registryMutex);
        for (auto& [conn, entry] : m.shared->connections) {
            entry.closeIfIdle();
        }
    }
    const auto deadline = std::chrono::steady_clock::now() + kStopGrace;
    while (m.running > 0 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    if (drain) {
        drain();
    }
    for (auto& ioc : m.contexts) {
        ioc->stop();
    }
    for (std::thread& t : m.threads) {
        t.join();
    }
    m.threads.clear();
    m.listener.reset();
    m.contexts.clear();
    m.shared.reset();
    m.port = 0;
}

uint16_t HttpServer::port() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->port;
}

int HttpServer::openConnections() const {
    std::lock_guard lock(impl_->mutex);
    if (!impl_->shared) {
        return 0;
    }
    Lock registry(impl_->shared->registryMutex);
    return impl_->shared->open;
}

}  // namespace tovrel::server
