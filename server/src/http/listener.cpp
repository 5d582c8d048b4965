#include "http/listener.h"

#include <stdexcept>
#include <string>

namespace tovrel::server {

Listener::Listener(std::vector<std::unique_ptr<net::io_context>>& contexts, ListenerState& state,
                   const tcp::endpoint& endpoint)
    : contexts_(contexts), state_(state), acceptor_(*contexts.front()), retry_(*contexts.front()) {
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

uint16_t Listener::port() const {
    return acceptor_.local_endpoint().port();
}

void Listener::run() {
    net::dispatch(acceptor_.get_executor(), [self = shared_from_this()] { self->accept(); });
}

void Listener::close() {
    net::post(acceptor_.get_executor(), [self = shared_from_this()] {
        beast::error_code ec;
        self->acceptor_.close(ec);
        self->retry_.cancel();
    });
}

void Listener::accept() {
    if (!acceptor_.is_open()) {
        return;
    }
    net::io_context& target = *contexts_[next_++ % contexts_.size()];
    acceptor_.async_accept(target, beast::bind_front_handler(&Listener::onAccept, shared_from_this()));
}

void Listener::onAccept(beast::error_code ec, Socket socket) {
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
        Lock lock(state_.registryMutex);
        admitted = state_.admit(address);
    }
    if (!admitted) {
        refuse(socket);
    } else {
        socket.set_option(tcp::no_delay(true), ignored);
        if (state_.tls) {
            startTlsConnection(std::move(socket), state_, std::move(address));
        } else {
            startPlainConnection(std::move(socket), state_, std::move(address));
        }
    }
    accept();
}

// Over a limit: one small answer written without waiting (it fits any socket buffer), then close.
// A client that does not read loses the answer, not the acceptor's time. Over TLS the client sees
// only the closed connection: a handshake would cost what the limit is there to save.
void Listener::refuse(Socket& socket) {
    state_.metrics.refusedConnection();
    beast::error_code ignored;
    if (!state_.tls) {
        static constexpr std::string_view kBody = R"({"error":"too many connections; try again shortly"})";
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

}  // namespace tovrel::server
