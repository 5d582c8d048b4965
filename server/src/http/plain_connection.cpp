#include "http/connection.h"

namespace tovrel::server {

void startPlainConnection(Socket&& socket, ListenerState& state, std::string address) {
    std::make_shared<Connection<PlainStream>>(std::move(socket), state, std::move(address))->run();
}

}  // namespace tovrel::server
