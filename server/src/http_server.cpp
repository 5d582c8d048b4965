#include "http_server.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <thread>
#include <unordered_map>
#include <vector>

#include "beast.h"
#include "rate_limiter.h"
#include "request_fields.h"
#include "service.h"
#include "static_files.h"

namespace tovrel_server {

namespace beast = boost::beast;
namespace http = beast::http;
namespace net = boost::asio;
using tcp = net::ip::tcp;
// One io_context per thread: a connection lives on one thread, so it needs no strand and threads
// never wake each other.
using Executor = net::io_context::executor_type;
using Stream = beast::basic_stream<tcp, Executor>;
using Socket = net::basic_stream_socket<tcp, Executor>;

namespace {

constexpr std::size_t kMaxHeader = 16 * 1024;
// A refused request is followed by reading (and dropping) what the client still sends, so that
// it sees the answer instead of a reset; bounded in time and size.
constexpr auto kLingerTime = std::chrono::seconds(2);
constexpr std::size_t kLingerBytes = 8 * 1024 * 1024;
constexpr auto kStopGrace = std::chrono::seconds(3);

bool validHost(std::string_view host) {
    if (host.empty() || host.size() > 255) {
        return false;
    }
    return std::all_of(host.begin(), host.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
               c == '-' || c == ':' || c == '[' || c == ']' || c == '_';
    });
}

}  // namespace

// State shared by the listener and every connection.
struct Shared {
    Service& service;
    const StaticFiles& files;
    HttpOptions options;
    std::string fallbackBase;  ///< "http://address:port", for requests without a usable Host
    std::atomic<bool> stopping{false};
    std::mutex registryMutex;
    std::unordered_map<void*, std::function<void()>> closers;  ///< per live connection: close if idle
    int open = 0;                                              ///< connections admitted and not yet gone
    std::unordered_map<std::string, int> openPerAddress;       ///< the same, by remote address
    std::atomic<std::uint64_t> refused{0};
    RateLimiter limiter{options.rateLimit, options.rateLimit * 2};

    /// Counts a new connection from `address` in, or says it must be refused. Registry lock held.
    bool admit(const std::string& address) {
        int& fromAddress = openPerAddress[address];
        if (open >= options.maxConnections || fromAddress >= options.maxConnectionsPerAddress) {
            if (fromAddress == 0) {
                openPerAddress.erase(address);
            }
            return false;
        }
        ++open;
        ++fromAddress;
        return true;
    }
    /// Counts a connection from `address` out. Registry lock held.
    void release(const std::string& address) {
        --open;
        if (const auto it = openPerAddress.find(address); it != openPerAddress.end() && --it->second <= 0) {
            openPerAddress.erase(it);
        }
    }
};

class Connection : public std::enable_shared_from_this<Connection> {
  public:
    /// `address` has been admitted (Shared::admit); the connection counts it out when it goes.
    Connection(Socket&& socket, Shared& shared, std::string address)
        : stream_(std::move(socket)), shared_(shared), address_(std::move(address)) {}

    ~Connection() {
        std::lock_guard lock(shared_.registryMutex);
        shared_.closers.erase(this);
        shared_.release(address_);
    }

    void run() {
        {
            std::lock_guard lock(shared_.registryMutex);
            std::weak_ptr<Connection> weak = shared_from_this();
            auto executor = stream_.get_executor();
            shared_.closers[this] = [weak, executor] {
                net::post(executor, [weak] {
                    if (auto self = weak.lock()) {
                        self->closeIfIdle();
                    }
                });
            };
        }
        net::dispatch(stream_.get_executor(),
                      beast::bind_front_handler(&Connection::readHeader, shared_from_this()));
    }

  private:
    void closeIfIdle() {
        if (!busy_) {
            beast::error_code ec;
            stream_.socket().cancel(ec);
        }
    }

    void readHeader() {
        if (shared_.stopping) {
            return closeNow();
        }
        parser_.emplace();
        parser_->body_limit(HttpServer::kMaxBody);
        parser_->header_limit(kMaxHeader);
        stream_.expires_after(std::chrono::seconds(shared_.options.requestTimeoutSeconds));
        http::async_read_header(stream_, buffer_, *parser_,
                                beast::bind_front_handler(&Connection::onHeader, shared_from_this()));
    }

    bool readFailed(beast::error_code ec) {
        if (!ec) {
            return false;
        }
        if (ec == http::error::body_limit) {
            refuse(http::status::payload_too_large, "the request body exceeds the limit of 1 MiB");
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

    void onHeader(beast::error_code ec, std::size_t) {
        if (readFailed(ec)) {
            return;
        }
        busy_ = true;
        // What a retry storm hits is refused before its body is read.
        const double now =
            std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
        if (!shared_.limiter.allow(address_, now)) {
            return refuse(http::status::too_many_requests, "too many requests from this address; slow down",
                          "1");
        }
        const auto& req = parser_->get();
        if (beast::iequals(req[http::field::expect], "100-continue")) {
            auto cont =
                std::make_shared<http::response<http::empty_body>>(http::status::continue_, req.version());
            http::async_write(stream_, *cont,
                              [self = shared_from_this(), cont](beast::error_code wec, std::size_t) {
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
        http::async_read(stream_, buffer_, *parser_,
                         beast::bind_front_handler(&Connection::onBody, shared_from_this()));
    }

    void onBody(beast::error_code ec, std::size_t) {
        if (readFailed(ec)) {
            return;
        }
        try {
            respond(parser_->get());
        } catch (const std::exception& e) {
            sendString(http::status::internal_server_error,
                       errorJson(std::string("the server failed: ") + e.what()), 11, false);
        }
    }

    std::string mediaBase(std::string_view host) const {
        if (!shared_.options.mediaBaseUrl.empty()) {
            return shared_.options.mediaBaseUrl;
        }
        return validHost(host) ? "http://" + std::string(host) : shared_.fallbackBase;
    }

    void respond(http::request<http::string_body>& req) {
        const std::string_view target(req.target().data(), req.target().size());
        const std::string_view path = target.substr(0, target.find_first_of("?#"));
        const bool keepAlive = req.keep_alive() && !shared_.stopping;
        const unsigned version = req.version();
        if (Service::isEndpoint(path)) {
            if (req.method() != http::verb::post) {
                return sendString(http::status::method_not_allowed,
                                  errorJson("use POST for " + std::string(path)), version, keepAlive, "POST");
            }
            const std::string_view host(req[http::field::host].data(), req[http::field::host].size());
            ApiReply reply = shared_.service.handle(path, req.body(), mediaBase(host));
            return sendString(static_cast<http::status>(reply.status), std::move(reply.body), version,
                              keepAlive);
        }
        const StaticTarget page = shared_.files.resolve(target);
        if (req.method() != http::verb::get && req.method() != http::verb::head) {
            if (page.status == 200) {
                return sendString(http::status::method_not_allowed,
                                  errorJson("use GET for " + std::string(path)), version, keepAlive,
                                  "GET, HEAD");
            }
            return sendString(http::status::not_found, errorJson("there is no endpoint " + std::string(path)),
                              version, keepAlive);
        }
        if (page.status != 200) {
            return sendString(static_cast<http::status>(page.status), errorJson(page.error), version,
                              keepAlive);
        }
        http::file_body::value_type body;
        beast::error_code ec;
        body.open(page.file.c_str(), beast::file_mode::scan, ec);
        if (ec) {
            return sendString(http::status::not_found, errorJson("there is no page " + std::string(path)),
                              version, keepAlive);
        }
        const auto size = body.size();
        if (req.method() == http::verb::head) {
            http::response<http::empty_body> res{http::status::ok, version};
            res.set(http::field::content_type, page.contentType);
            res.keep_alive(keepAlive);
            res.content_length(size);
            return send(std::move(res));
        }
        http::response<http::file_body> res{std::piecewise_construct, std::make_tuple(std::move(body)),
                                            std::make_tuple(http::status::ok, version)};
        res.set(http::field::content_type, page.contentType);
        res.content_length(size);
        res.keep_alive(keepAlive);
        send(std::move(res));
    }

    void sendString(http::status status, std::string body, unsigned version, bool keepAlive,
                    const char* allow = nullptr) {
        http::response<http::string_body> res{status, version};
        res.set(http::field::content_type, "application/json");
        if (allow) {
            res.set(http::field::allow, allow);
        }
        res.keep_alive(keepAlive);
        res.body() = std::move(body);
        res.prepare_payload();
        send(std::move(res));
    }

    template <typename Body>
    void send(http::response<Body>&& message, bool linger = false) {
        message.set(http::field::server, "tovrel-server");
        auto res = std::make_shared<http::response<Body>>(std::move(message));
        stream_.expires_after(std::chrono::seconds(shared_.options.requestTimeoutSeconds));
        http::async_write(stream_, *res,
                          [self = shared_from_this(), res, linger](beast::error_code ec, std::size_t) {
                              self->busy_ = false;
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

    // Answers a request that cannot be read to its end, then closes the connection.
    void refuse(http::status status, const std::string& message, const char* retryAfter = nullptr) {
        busy_ = true;
        http::response<http::string_body> res{status, 11};
        res.set(http::field::content_type, "application/json");
        if (retryAfter != nullptr) {
            res.set(http::field::retry_after, retryAfter);
        }
        res.keep_alive(false);
        res.body() = errorJson(message);
        res.prepare_payload();
        send(std::move(res), true);
    }

    void lingerAndClose() {
        beast::error_code ec;
        stream_.socket().shutdown(tcp::socket::shutdown_send, ec);
        stream_.expires_after(kLingerTime);
        drain();
    }

    void drain() {
        scratch_.resize(16 * 1024);
        stream_.async_read_some(net::buffer(scratch_),
                                [self = shared_from_this()](beast::error_code ec, std::size_t n) {
                                    self->drained_ += n;
                                    if (ec || self->drained_ > kLingerBytes) {
                                        return self->closeNow();
                                    }
                                    self->drain();
                                });
    }

    void closeNow() {
        beast::error_code ec;
        stream_.socket().shutdown(tcp::socket::shutdown_both, ec);
        stream_.close();
    }

    Stream stream_;
    Shared& shared_;
    const std::string address_;
    beast::flat_buffer buffer_;
    std::optional<http::request_parser<http::string_body>> parser_;
    std::vector<char> scratch_;
    std::size_t drained_ = 0;
    bool busy_ = false;
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
        net::dispatch(acceptor_.get_executor(),
                      beast::bind_front_handler(&Listener::accept, shared_from_this()));
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
            std::lock_guard lock(shared_.registryMutex);
            admitted = shared_.admit(address);
        }
        if (!admitted) {
            refuse(socket);
        } else {
            socket.set_option(tcp::no_delay(true), ignored);
            std::make_shared<Connection>(std::move(socket), shared_, std::move(address))->run();
        }
        accept();
    }

    // Over a limit: one small answer written without waiting (it fits any socket buffer), then close.
    // A client that does not read loses the answer, not the acceptor's time.
    void refuse(Socket& socket) {
        ++shared_.refused;
        static constexpr std::string_view kBody = R"({"error":"too many connections; try again shortly"})";
        const std::string answer =
            "HTTP/1.1 503 Service Unavailable\r\nContent-Type: application/json\r\n"
            "Retry-After: 1\r\nConnection: close\r\nContent-Length: " +
            std::to_string(kBody.size()) + "\r\n\r\n" + std::string(kBody);
        beast::error_code ignored;
        socket.non_blocking(true, ignored);
        socket.write_some(net::buffer(answer), ignored);
        socket.shutdown(tcp::socket::shutdown_send, ignored);
        socket.close(ignored);
    }

    std::vector<std::unique_ptr<net::io_context>>& contexts_;
    Shared& shared_;
    net::basic_socket_acceptor<tcp, Executor> acceptor_;
    net::basic_waitable_timer<std::chrono::steady_clock, net::wait_traits<std::chrono::steady_clock>,
                              Executor>
        retry_;
    std::size_t next_ = 0;
};

struct HttpServer::Impl {
    Service& service;
    const StaticFiles& files;
    HttpOptions options;
    std::mutex mutex;
    std::vector<std::unique_ptr<net::io_context>> contexts;
    std::vector<net::executor_work_guard<Executor>> guards;
    std::unique_ptr<Shared> shared;
    std::shared_ptr<Listener> listener;
    std::vector<std::thread> threads;
    std::atomic<int> running{0};
    uint16_t port = 0;
};

HttpServer::HttpServer(Service& service, const StaticFiles& files, HttpOptions options)
    : impl_(new Impl{service, files, std::move(options), {}, {}, {}, {}, {}, {}, {}, 0}) {}

HttpServer::~HttpServer() {
    stop();
}

uint16_t HttpServer::start() {
    std::lock_guard lock(impl_->mutex);
    Impl& m = *impl_;
    if (m.listener) {
        throw std::runtime_error("the server is already running");
    }
    beast::error_code ec;
    const auto address = net::ip::make_address(m.options.address, ec);
    if (ec) {
        throw std::runtime_error("cannot listen on " + m.options.address + ": not an IP address");
    }
    const int threads = std::max(1, m.options.threads);
    for (int i = 0; i < threads; ++i) {
        m.contexts.push_back(std::make_unique<net::io_context>(1));
        m.guards.push_back(net::make_work_guard(*m.contexts.back()));
    }
    m.shared = std::make_unique<Shared>(m.service, m.files, m.options, "");
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
    const std::string host = address.is_v6() ? "[" + address.to_string() + "]" : address.to_string();
    m.shared->fallbackBase = "http://" + host + ":" + std::to_string(m.port);
    m.listener->run();
    m.running = threads;
    for (int i = 0; i < threads; ++i) {
        m.threads.emplace_back([&m, &ioc = *m.contexts[static_cast<std::size_t>(i)]] {
            for (;;) {
                try {
                    ioc.run();
                    break;
                } catch (const std::exception& e) {
                    std::fprintf(stderr, "tovrel-server: request thread caught: %s\n", e.what());
                }
            }
            --m.running;
        });
    }
    return m.port;
}

void HttpServer::stop() {
    std::lock_guard lock(impl_->mutex);
    Impl& m = *impl_;
    if (!m.listener) {
        return;
    }
    m.shared->stopping = true;
    m.listener->close();
    m.guards.clear();
    {
        std::lock_guard registry(m.shared->registryMutex);
        for (auto& [conn, closeIfIdle] : m.shared->closers) {
            closeIfIdle();
        }
    }
    const auto deadline = std::chrono::steady_clock::now() + kStopGrace;
    while (m.running > 0 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
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

std::uint64_t HttpServer::rateLimitedRequests() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->shared ? impl_->shared->limiter.limited() : 0;
}

std::uint64_t HttpServer::refusedConnections() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->shared ? impl_->shared->refused.load() : 0;
}

}  // namespace tovrel_server
