#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "http/listener_state.h"

namespace tovrel::server {

/// Accepts connections on one address and hands each, once `state` admits it, to the next thread's
/// io_context in turn; answers one beyond a cap with a 503 and closes it. Accepts on the first
/// context's thread.
class Listener : public std::enable_shared_from_this<Listener> {
  public:
    /// Binds and listens; throws with the address and the reason when it cannot. Any thread.
    Listener(std::vector<std::unique_ptr<net::io_context>>& contexts, ListenerState& state,
             const tcp::endpoint& endpoint);

    /// The port bound (the one asked for, or the one chosen for port 0). Any thread.
    uint16_t port() const;
    /// Starts accepting. Any thread.
    void run();
    /// Stops accepting; connections already open go on. Any thread.
    void close();

  private:
    void accept();
    void onAccept(beast::error_code ec, Socket socket);
    void refuse(Socket& socket);

    std::vector<std::unique_ptr<net::io_context>>& contexts_;
    ListenerState& state_;
    net::basic_socket_acceptor<tcp, IoExecutor> acceptor_;
    net::basic_waitable_timer<std::chrono::steady_clock, net::wait_traits<std::chrono::steady_clock>,
                              IoExecutor>
        retry_;
    std::size_t next_ = 0;
};

}  // namespace tovrel::server
