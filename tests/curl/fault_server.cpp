#include "fault_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <csignal>
#include <cstdlib>
#include <optional>
#include <stdexcept>

namespace tovrel::curl::test {
namespace {

// Loopback requests must reach the fault server directly, and a peer that has gone must not kill the
// test process through SIGPIPE.
[[maybe_unused]] const bool kProcessPrepared = [] {
    ::setenv("NO_PROXY", "127.0.0.1,localhost", 1);
    ::setenv("no_proxy", "127.0.0.1,localhost", 1);
    std::signal(SIGPIPE, SIG_IGN);
    return true;
}();

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

std::string trim(std::string_view text) {
    const auto first = text.find_first_not_of(" \t");
    const auto last = text.find_last_not_of(" \t\r");
    return first == std::string_view::npos ? std::string()
                                           : std::string(text.substr(first, last - first + 1));
}

int listenOnLoopback(std::uint16_t& port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        throw std::runtime_error("socket() failed");
    }
    const int yes = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || ::listen(fd, 128) != 0 ||
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        ::close(fd);
        throw std::runtime_error("cannot listen on 127.0.0.1");
    }
    port = ntohs(address.sin_port);
    return fd;
}

std::string answer(int status, std::string_view reason, std::string_view contentType, std::string_view body) {
    std::string text = "HTTP/1.1 " + std::to_string(status) + " " + std::string(reason) + "\r\n";
    text += "Content-Type: " + std::string(contentType) + "\r\n";
    text += "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n";
    text += body;
    return text;
}

}  // namespace

std::string ReceivedRequest::header(const std::string& lowerName) const {
    auto it = headers.find(lowerName);
    return it == headers.end() ? std::string() : it->second;
}

/// One accepted connection, plain or TLS.
struct FaultServer::Stream {
    int fd;
    SSL* ssl;
    std::string buffer;

    long read(char* data, std::size_t size) {
        if (ssl != nullptr) {
            const int n = SSL_read(ssl, data, static_cast<int>(size));
            return n > 0 ? n : -1;
        }
        return ::recv(fd, data, size, 0);
    }

    bool write(std::string_view data) {
        while (!data.empty()) {
            const long n = ssl != nullptr ? SSL_write(ssl, data.data(), static_cast<int>(data.size()))
                                          : ::send(fd, data.data(), data.size(), MSG_NOSIGNAL);
            if (n <= 0) {
                return false;
            }
            data.remove_prefix(static_cast<std::size_t>(n));
        }
        return true;
    }

    bool fill() {
        char chunk[16 * 1024];
        const long n = read(chunk, sizeof chunk);
        if (n <= 0) {
            return false;
        }
        buffer.append(chunk, static_cast<std::size_t>(n));
        return true;
    }

    std::optional<ReceivedRequest> readRequest() {
        std::size_t end;
        while ((end = buffer.find("\r\n\r\n")) == std::string::npos) {
            if (buffer.size() > 64 * 1024 || !fill()) {
                return std::nullopt;
            }
        }
        ReceivedRequest request;
        const std::string head = buffer.substr(0, end);
        buffer.erase(0, end + 4);
        std::size_t lineEnd = head.find("\r\n");
        const std::string requestLine = head.substr(0, lineEnd);
        const auto space1 = requestLine.find(' ');
        const auto space2 = requestLine.find(' ', space1 + 1);
        if (space1 == std::string::npos || space2 == std::string::npos) {
            return std::nullopt;
        }
        request.method = requestLine.substr(0, space1);
        request.path = requestLine.substr(space1 + 1, space2 - space1 - 1);
        while (lineEnd != std::string::npos) {
            const std::size_t start = lineEnd + 2;
            lineEnd = head.find("\r\n", start);
            const std::string line =
                head.substr(start, lineEnd == std::string::npos ? std::string::npos : lineEnd - start);
            const auto colon = line.find(':');
            if (colon != std::string::npos) {
                request.headers[lower(line.substr(0, colon))] =
                    trim(std::string_view(line).substr(colon + 1));
            }
        }
        const std::string length = request.header("content-length");
        const std::size_t bodyBytes = length.empty() ? 0 : std::stoul(length);
        while (buffer.size() < bodyBytes) {
            if (!fill()) {
                return std::nullopt;
            }
        }
        request.body = buffer.substr(0, bodyBytes);
        buffer.erase(0, bodyBytes);
        return request;
    }
};

FaultServer::FaultServer(SSL_CTX* tls) : tls_(tls) {
    listener_ = listenOnLoopback(port_);
    acceptor_ = std::thread([this] { acceptLoop(); });
}

FaultServer::~FaultServer() {
    stopping_ = true;
    acceptor_.join();
    ::close(listener_);
    std::vector<std::thread> workers;
    {
        std::lock_guard lock(mutex_);
        for (int fd : openFds_) {
            ::shutdown(fd, SHUT_RDWR);
        }
        workers.swap(workers_);
    }
    for (auto& worker : workers) {
        worker.join();
    }
}

std::string FaultServer::hostPort() const {
    return "127.0.0.1:" + std::to_string(port_);
}

std::string FaultServer::url(std::string_view path) const {
    return std::string(tls_ != nullptr ? "https://" : "http://") + hostPort() + std::string(path);
}

std::vector<ReceivedRequest> FaultServer::received() const {
    std::lock_guard lock(mutex_);
    return received_;
}

bool FaultServer::waitForRequests(std::size_t count, std::chrono::milliseconds timeout) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return received_.size() >= count; });
}

bool FaultServer::waitForNoConnections(std::chrono::milliseconds timeout) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return openFds_.empty(); });
}

void FaultServer::acceptLoop() {
    while (!stopping_) {
        pollfd waiting{listener_, POLLIN, 0};
        if (::poll(&waiting, 1, 20) <= 0) {
            continue;
        }
        const int fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            continue;
        }
        // A backstop so that no worker can block for ever, whatever a test does.
        const timeval limit{10, 0};
        ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
        const int connection = ++nextConnection_;
        std::lock_guard lock(mutex_);
        openFds_.insert(fd);
        workers_.emplace_back([this, fd, connection] { serve(fd, connection); });
    }
}

void FaultServer::serve(int fd, int connection) {
    Stream stream{fd, nullptr, {}};
    if (tls_ != nullptr) {
        stream.ssl = SSL_new(tls_);
        SSL_set_fd(stream.ssl, fd);
    }
    if (stream.ssl == nullptr || SSL_accept(stream.ssl) == 1) {
        while (!stopping_) {
            auto request = stream.readRequest();
            if (!request) {
                break;
            }
            request->connection = connection;
            {
                std::lock_guard lock(mutex_);
                received_.push_back(*request);
            }
            changed_.notify_all();
            if (!respond(stream, *request)) {
                break;
            }
        }
    }
    if (stream.ssl != nullptr) {
        SSL_free(stream.ssl);
    }
    {
        std::lock_guard lock(mutex_);
        openFds_.erase(fd);
        ::close(fd);
    }
    changed_.notify_all();
}

bool FaultServer::respond(Stream& stream, const ReceivedRequest& request) {
    const std::string path = request.path.substr(0, request.path.find('?'));
    if (path == "/json") {
        return stream.write(
            answer(200, "OK", "application/json", request.body.empty() ? R"({"ok":true})" : request.body));
    }
    if (path == "/503") {
        return stream.write(
            answer(503, "Service Unavailable", "application/json", R"({"error":"maintenance window"})"));
    }
    if (path == "/malformed") {
        return stream.write(answer(200, "OK", "application/json", R"({"a": 1,,})"));
    }
    if (path == "/empty") {
        return stream.write(answer(200, "OK", "application/json", ""));
    }
    if (path == "/number") {
        return stream.write(answer(200, "OK", "application/json", "1"));
    }
    if (path == "/string") {
        return stream.write(answer(200, "OK", "application/json", R"("x")"));
    }
    if (path == "/text") {
        return stream.write(answer(200, "OK", "text/html; charset=utf-8", "<html>hello</html>"));
    }
    if (path == "/redirect") {
        return stream.write("HTTP/1.1 302 Found\r\nLocation: /text\r\nContent-Length: 0\r\n\r\n");
    }
    if (path == "/reset") {
        const linger abort{1, 0};
        ::setsockopt(stream.fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
        return false;
    }
    if (path == "/truncated") {
        stream.write(
            "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: 100\r\n\r\n{\"partial\":1");
        return false;
    }
    if (path == "/hang") {
        return true;
    }
    if (path == "/big" || path == "/big-unsized") {
        const std::string body = '"' + std::string(kBigBodyBytes - 2, 'a') + '"';
        if (path == "/big") {
            return stream.write(answer(200, "OK", "application/json", body));
        }
        stream.write("HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nConnection: close\r\n\r\n" + body);
        return false;
    }
    return stream.write(answer(404, "Not Found", "text/plain", "no such page"));
}

std::uint16_t closedPort() {
    std::uint16_t port = 0;
    ::close(listenOnLoopback(port));
    return port;
}

}  // namespace tovrel::curl::test
