#include "http/connection.h"

namespace tovrel::server {

void startTlsConnection(Socket&& socket, ListenerState& state, std::string address) {
    std::make_shared<Connection<TlsStream>>(std::move(socket), state, std::move(address))->run();
}

}  // namespace tovrel::server
