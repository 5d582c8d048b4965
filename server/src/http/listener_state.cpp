#include "http/listener_state.h"

#include <algorithm>

namespace tovrel::server {

namespace {

int count(const std::unordered_map<std::string, int>& counts, const std::string& key) {
    const auto it = counts.find(key);
    return it == counts.end() ? 0 : it->second;
}
void forget(std::unordered_map<std::string, int>& counts, const std::string& key) {
    if (const auto it = counts.find(key); it != counts.end() && --it->second <= 0) {
        counts.erase(it);
    }
}

}  // namespace

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

bool ListenerState::admit(const std::string& address) {
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
void ListenerState::release(const std::string& address, bool wasEvicting) {
    --open;
    evicting -= wasEvicting ? 1 : 0;
    forget(openPerAddress, address);
    if (options.maxConnectionsPerPrefix > 0) {
        forget(openPerPrefix, prefixOf(address));
    }
}

bool ListenerState::evictOldestIdle() {
    ConnectionEntry* oldest = nullptr;
    for (auto& [connection, entry] : connections) {
        if (!entry.evicting && !entry.busy->load() && (oldest == nullptr || entry.order < oldest->order)) {
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

}  // namespace tovrel::server
