#pragma once

#include <algorithm>
#include <array>
#include <chrono>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/request_fields.h"
#include "http/buffer_pool.h"
#include "http/compression.h"
#include "http/listener_state.h"
#include "observability/log.h"

namespace tovrel::server {

namespace connection_detail {

inline constexpr std::size_t kMaxHeader = 16 * 1024;
// A refused request is followed by reading (and dropping) what the client still sends, so that
// it sees the answer instead of a reset; bounded in time and size.
inline constexpr auto kLingerTime = std::chrono::seconds(2);
inline constexpr std::size_t kLingerBytes = 8 * 1024 * 1024;

inline double steadySeconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

inline std::string_view view(beast::string_view text) {
    return {text.data(), text.size()};
}

inline std::string kibibytes(std::size_t bytes) {
    return bytes % (1024 * 1024) == 0 ? std::to_string(bytes / (1024 * 1024)) + " MiB"
                                      : std::to_string(bytes / 1024) + " KiB";
}

}  // namespace connection_detail

/// One accepted connection: reads requests one after another, hands each to the listener's handler
/// and writes its answer, on the thread of the io_context its socket belongs to. Included only by
/// plain_connection.cpp and tls_connection.cpp, which instantiate it once each.
template <typename Stream>
class Connection : public std::enable_shared_from_this<Connection<Stream>> {
    static constexpr bool kTls = std::is_same_v<Stream, TlsStream>;

  public:
    /// `address` has been admitted (ListenerState::admit); the connection counts it out when it goes.
    Connection(Socket&& socket, ListenerState& state, std::string address)
        : stream_(makeStream(std::move(socket), state)),
          state_(state),
          address_(std::move(address)),
          deadline_(stream_.get_executor()) {}

    ~Connection() {
        Lock lock(state_.registryMutex);
        const auto entry = state_.connections.find(this);
        const bool evicting = entry != state_.connections.end() && entry->second.evicting;
        if (entry != state_.connections.end()) {
            state_.connections.erase(entry);
        }
        state_.release(address_, evicting);
    }

    void run() {
        {
            Lock lock(state_.registryMutex);
            std::weak_ptr<Connection> weak = this->shared_from_this();
            auto executor = stream_.get_executor();
            ConnectionEntry& entry = state_.connections[this];
            entry.closeIfIdle = [weak, executor] {
                net::post(executor, [weak] {
                    if (auto self = weak.lock()) {
                        self->closeIfIdle();
                    }
                });
            };
            entry.busy = &busy_;
            entry.order = ++state_.admitted;
        }
        if constexpr (kTls) {
            expireAfter(std::chrono::seconds(state_.options.requestTimeoutSeconds));
            stream_.async_handshake(
                ssl::stream_base::server,
                beast::bind_front_handler(&Connection::onHandshake, this->shared_from_this()));
        } else {
            net::dispatch(stream_.get_executor(),
                          beast::bind_front_handler(&Connection::readHeader, this->shared_from_this()));
        }
    }

  private:
    // What follows a write. Every read and every write of a connection goes through one completion
    // handler type each: an asynchronous operation over TLS is instantiated once per handler type, and
    // those instantiations were most of the server's build time.
    enum class Next { readBody, readHeader, close, linger, moreFile };
    enum class Phase { header, body };
    static constexpr std::size_t kFileChunk = 64 * 1024;

    static Stream makeStream(Socket&& socket, ListenerState& state) {
        if constexpr (kTls) {
            return Stream(PlainStream(std::move(socket)), *state.tls);
        } else {
            return Stream(std::move(socket));
        }
    }

    PlainStream& lowest() { return beast::get_lowest_layer(stream_); }

    void onHandshake(beast::error_code ec) {
        if (ec) {
            return closeNow();
        }
        readHeader();
    }

    void closeIfIdle() {
        if (!busy_) {
            beast::error_code ec;
            lowest().socket().cancel(ec);
        }
    }

    void readHeader() {
        if (state_.stopping) {
            return closeNow();
        }
        parser_.emplace();
        bodyLimit_ = HttpServer::kMaxBody;
        parser_->body_limit(bodyLimit_);
        parser_->header_limit(connection_detail::kMaxHeader);
        phase_ = Phase::header;
        expireAfter(std::chrono::seconds(state_.options.requestTimeoutSeconds));
        readSome();
    }

    void readBody() {
        phase_ = Phase::body;
        if (parser_->is_done()) {
            return onBody();
        }
        readSome();
    }

    void readSome() {
        http::async_read_some(stream_, buffer_, *parser_,
                              beast::bind_front_handler(&Connection::onRead, this->shared_from_this()));
    }

    void onRead(beast::error_code ec, std::size_t) {
        if (readFailed(ec)) {
            return;
        }
        if (!parser_->is_header_done()) {
            return readSome();
        }
        if (phase_ == Phase::header) {
            return onHeader();
        }
        if (!parser_->is_done()) {
            return readSome();
        }
        onBody();
    }

    bool readFailed(beast::error_code ec) {
        if (!ec) {
            return false;
        }
        if (ec == http::error::body_limit) {
            refuse(http::status::payload_too_large,
                   "the request body exceeds the limit of " + connection_detail::kibibytes(bodyLimit_));
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

    void onHeader() {
        busy_ = true;
        started_ = connection_detail::steadySeconds();
        // What a retry storm hits is refused before its body is read.
        if (!state_.limiter.allow(address_, started_)) {
            state_.metrics.rateLimited();
            return refuse(http::status::too_many_requests, "too many requests from this address; slow down",
                          "1");
        }
        const auto& req = parser_->get();
        Admission admission = state_.handler.admit(describe({}));
        if (admission.refusal) {
            return refuse(std::move(*admission.refusal));
        }
        if (const auto length = parser_->content_length(); length && *length > admission.bodyLimit) {
            return refuse(
                http::status::payload_too_large,
                "the request body exceeds the limit of " + connection_detail::kibibytes(admission.bodyLimit));
        }
        parser_->body_limit(admission.bodyLimit);
        bodyLimit_ = admission.bodyLimit;
        slot_ = std::move(admission.slot);
        if (beast::iequals(req[http::field::expect], "100-continue")) {
            head_ = req.version() == 10 ? "HTTP/1.0 100 Continue\r\n\r\n" : "HTTP/1.1 100 Continue\r\n\r\n";
            body_.clear();
            return write(Next::readBody);
        }
        readBody();
    }

    // The request as the handler sees it: views into the parser's header, valid until the next request.
    HttpRequest describe(std::string_view body) const {
        using connection_detail::view;
        const auto& req = parser_->get();
        const std::string_view target = view(req.target());
        return HttpRequest{view(req.method_string()),
                           target,
                           target.substr(0, target.find_first_of("?#")),
                           body,
                           view(req[http::field::host]),
                           view(req[http::field::authorization]),
                           address_,
                           kTls,
                           view(req[http::field::cookie]),
                           view(req[http::field::origin]),
                           view(req["X-CSRF-Token"]),
                           view(req[http::field::if_match])};
    }

    void onBody() {
        auto& req = parser_->get();
        const std::string_view target = connection_detail::view(req.target());
        const std::string_view path = target.substr(0, target.find_first_of("?#"));
        request_ = Pending{std::string(connection_detail::view(req.method_string())), std::string(path),
                           req.version(), req.keep_alive(),
                           acceptsGzip(connection_detail::view(req[http::field::accept_encoding]))};
        const HttpRequest request = describe(req.body());
        // The answer may come from another thread; it is sent from this connection's own, which the
        // pending answer keeps alive and running.
        Respond respond = [self = this->shared_from_this(),
                           work = net::make_work_guard(stream_.get_executor())](HttpReply&& reply) mutable {
            net::dispatch(work.get_executor(),
                          [self, reply = std::move(reply)]() mutable { self->answer(std::move(reply)); });
        };
        try {
            state_.handler.handle(request, std::move(respond));
        } catch (const std::exception& e) {
            state_.logger.write(LogLevel::error, state_.logger.line(LogLevel::error, "request failed")
                                                     .add("path", request_.path)
                                                     .add("error", e.what()));
            HttpReply failed;
            failed.status = 500;
            failed.body = errorJson("the server failed; its log says why");
            answer(std::move(failed));
        }
    }

    void answer(HttpReply&& reply) {
        const bool keepAlive = request_.keepAlive && !state_.stopping;
        const double elapsed = connection_detail::steadySeconds() - started_;
        state_.metrics.request(reply.route, reply.status, elapsed);
        if (state_.logger.accessLog()) {
            auto line = state_.logger.line(LogLevel::info, "request");
            line.add("listener", state_.options.name)
                .add("method", request_.method)
                .add("path", reply.loggedPath.empty() ? request_.path : reply.loggedPath)
                .add("status", static_cast<std::int64_t>(reply.status))
                .add("us", static_cast<std::int64_t>(elapsed * 1e6))
                .add("remote", address_);
            pendingLog_.emplace(std::move(line));
        }
        if (!reply.file.empty()) {
            return sendFile(std::move(reply), keepAlive);
        }
        sendMemory(std::move(reply), keepAlive ? Next::readHeader : Next::close);
    }

    void sendMemory(HttpReply&& reply, Next next) {
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
        writeHead(reply, reply.contentType, next == Next::readHeader, encoding, body_.size());
        if (request_.method == "HEAD") {
            // The header says how long the body would be; sending it would put the next answer out of step.
            buffer_pool::give(std::move(body_));
            body_.clear();
        }
        write(next);
    }

    // Every header is written by hand: Beast's general serializer costs more than the whole rest of an
    // API request, and over TLS it would be instantiated once for each kind of body.
    void writeHead(const HttpReply& reply, std::string_view contentType, bool keepAlive, const char* encoding,
                   std::uint64_t length) {
        head_.clear();
        head_ += request_.version == 10 ? "HTTP/1.0 " : "HTTP/1.1 ";
        head_ += std::to_string(reply.status);
        head_ += ' ';
        const auto reason = http::obsolete_reason(static_cast<http::status>(reply.status));
        head_.append(reason.data(), reason.size());
        head_ += "\r\nServer: tovrel-server\r\nContent-Type: ";
        head_ += contentType;
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
        for (const auto& [name, value] : reply.headers) {
            field(name.c_str(), value.c_str());
        }
        if (request_.version == 10 && keepAlive) {
            head_ += "Connection: keep-alive\r\n";
        } else if (request_.version != 10 && !keepAlive) {
            head_ += "Connection: close\r\n";
        }
        head_ += "Content-Length: ";
        head_ += std::to_string(length);
        head_ += "\r\n\r\n";
    }

    // Writes head_ then body_, and goes on with `next` once both are out.
    void write(Next next) {
        next_ = next;
        expireAfter(std::chrono::seconds(state_.options.requestTimeoutSeconds));
        const std::array<net::const_buffer, 2> buffers{net::buffer(head_), net::buffer(body_)};
        net::async_write(stream_, buffers,
                         beast::bind_front_handler(&Connection::onWritten, this->shared_from_this()));
    }

    void onWritten(beast::error_code ec, std::size_t bytes) {
        written_ += bytes;
        if (next_ == Next::readBody) {
            written_ = 0;
            return ec ? closeNow() : readBody();
        }
        if (next_ == Next::moreFile && !ec) {
            head_.clear();
            return sendChunk();
        }
        busy_ = false;
        slot_.reset();
        file_.reset();
        finishLog(written_);
        written_ = 0;
        buffer_pool::give(std::move(body_));
        body_.clear();
        if (ec || next_ == Next::close) {
            return closeNow();
        }
        if (next_ == Next::linger) {
            return lingerAndClose();
        }
        readHeader();
    }

    // Files (the console's pages) are sent in chunks from the thread's buffer, never whole.
    void sendFile(HttpReply&& reply, bool keepAlive) {
        beast::error_code ec;
        file_.emplace();
        file_->open(reply.file.c_str(), beast::file_mode::scan, ec);
        const std::uint64_t size = ec ? 0 : file_->size(ec);
        if (ec) {
            file_.reset();
            HttpReply missing;
            missing.status = 404;
            missing.route = reply.route;
            missing.body = errorJson("there is no page " + request_.path);
            return sendMemory(std::move(missing), keepAlive ? Next::readHeader : Next::close);
        }
        fileLeft_ = reply.headOnly ? 0 : size;
        keepAlive_ = keepAlive;
        writeHead(reply, reply.fileType.empty() ? std::string_view(reply.contentType) : reply.fileType,
                  keepAlive, nullptr, size);
        body_ = buffer_pool::take();
        body_.clear();
        sendChunk();
    }

    void sendChunk() {
        const auto want = static_cast<std::size_t>(std::min<std::uint64_t>(fileLeft_, kFileChunk));
        body_.resize(want);
        if (want > 0) {
            beast::error_code ec;
            const std::size_t got = file_->read(body_.data(), want, ec);
            if (ec || got == 0) {
                // The header promised more than the file now holds: the connection cannot go on.
                next_ = Next::close;
                return onWritten(ec ? ec : beast::error_code(net::error::eof), 0);
            }
            body_.resize(got);
            fileLeft_ -= got;
        }
        write(fileLeft_ > 0 ? Next::moreFile : keepAlive_ ? Next::readHeader : Next::close);
    }

    void finishLog(std::size_t bytes) {
        if (pendingLog_) {
            pendingLog_->add("bytes", static_cast<std::uint64_t>(bytes));
            state_.logger.write(LogLevel::info, std::move(*pendingLog_));
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
        state_.metrics.request(reply.route, reply.status, 0);
        const bool head = parser_ && parser_->is_header_done() && parser_->get().method() == http::verb::head;
        request_ = Pending{head ? "HEAD" : "", "", 11, false, false};
        sendMemory(std::move(reply), Next::linger);
    }

    void lingerAndClose() {
        beast::error_code ec;
        lowest().socket().shutdown(tcp::socket::shutdown_send, ec);
        expireAfter(connection_detail::kLingerTime);
        drain();
    }

    void drain() {
        scratch_.resize(16 * 1024);
        lowest().async_read_some(net::buffer(scratch_),
                                 [self = this->shared_from_this()](beast::error_code ec, std::size_t n) {
                                     self->drained_ += n;
                                     if (ec || self->drained_ > connection_detail::kLingerBytes) {
                                         return self->closeNow();
                                     }
                                     self->drain();
                                 });
    }

    // One timer a connection, waiting until the expiry or past it: a request only moves expiry_, so that
    // none pays for a timer of its own (a wait queued and cancelled, and its handler run, per read and
    // per write).
    void expireAfter(std::chrono::steady_clock::duration limit) {
        expiry_ = std::chrono::steady_clock::now() + limit;
        if (!watching_ || expiry_ < deadline_.expiry()) {
            watching_ = true;
            watchExpiry();
        }
    }

    void watchExpiry() {
        deadline_.expires_at(expiry_);
        deadline_.async_wait([weak = this->weak_from_this()](beast::error_code ec) {
            if (auto self = weak.lock()) {
                self->onExpiry(ec);
            }
        });
    }

    void onExpiry(beast::error_code ec) {
        if (ec) {
            return;  // closed, or a wait for a sooner expiry replaced this one
        }
        if (std::chrono::steady_clock::now() < expiry_) {
            return watchExpiry();
        }
        watching_ = false;
        // The read or write under way then fails, and the connection goes with it.
        closeNow();
    }

    void closeNow() {
        deadline_.cancel();
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
    ListenerState& state_;
    const std::string address_;
    beast::flat_buffer buffer_;
    std::optional<http::request_parser<http::string_body>> parser_;
    Pending request_;
    std::string head_;  ///< the header of the answer being written, its capacity kept
    std::string body_;  ///< the body of that answer, from the thread's buffer pool
    std::optional<LogLine> pendingLog_;
    std::vector<char> scratch_;
    std::size_t drained_ = 0;
    std::optional<beast::file> file_;  ///< the file being sent, if any
    std::uint64_t fileLeft_ = 0;
    bool keepAlive_ = false;   ///< after the file
    std::size_t written_ = 0;  ///< bytes of the current answer, for the access log
    Next next_ = Next::close;
    Phase phase_ = Phase::header;
    std::size_t bodyLimit_ = HttpServer::kMaxBody;
    std::shared_ptr<void> slot_;  ///< what the handler admitted this request with, until it is answered
    double started_ = 0;
    net::steady_timer deadline_;
    std::chrono::steady_clock::time_point expiry_{};
    bool watching_ = false;  ///< deadline_ waits
    /// Written on the connection's thread, read by the listener choosing an idle connection to close.
    std::atomic<bool> busy_{false};
};

}  // namespace tovrel::server
