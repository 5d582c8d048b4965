#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "tovrel/export.h"

namespace tovrel::linuxbackend {

/// The kernel's answer for one destination.
struct TOVREL_EXPORT RouteLookup {
    bool routed = false;      ///< a usable unicast (or local) route exists
    bool local = false;       ///< the destination is one of this host's addresses
    bool viaGateway = false;  ///< the route goes through a gateway (not on-link)
    int interfaceIndex = 0;   ///< the egress interface, 0 when unknown
    std::string interfaceName;
};

/// The reachability flag word for `route`; `wwan` says whether its egress interface is cellular. Pure.
TOVREL_EXPORT std::uint32_t reachabilityFlagsFor(const RouteLookup& route, bool wwan);

/// Whether network interface `name` is a WWAN (cellular) device: a "ww" name prefix (wwan0,
/// wwp0s20u4), DEVTYPE=wwan in <sysClassNet>/<name>/uevent, or a WWAN port beside its device
/// (<sysClassNet>/<name>/device/wwan). Any thread.
TOVREL_EXPORT bool isWwanInterface(const std::string& name, const std::filesystem::path& sysClassNet =
                                                                std::filesystem::path("/sys/class/net"));

/// Reduces a host given as a URL ("http://host:8080/path", "[::1]:80") to the host alone. Pure.
TOVREL_EXPORT std::string hostFromName(const std::string& name);

/// Route questions to the kernel over an rtnetlink socket (libmnl). The socket belongs to the network
/// namespace of the thread that made this object, and every answer comes from that namespace.
/// Thread-safe (one request at a time).
class TOVREL_EXPORT RouteTable {
  public:
    /// Throws std::system_error when the socket cannot be opened.
    RouteTable();
    ~RouteTable();
    RouteTable(const RouteTable&) = delete;
    RouteTable& operator=(const RouteTable&) = delete;

    /// The route the kernel would use for IPv4 `address` (network order), as "ip route get" answers;
    /// nullopt when the socket failed.
    [[nodiscard]] std::optional<RouteLookup> lookup(const std::array<std::uint8_t, 4>& address);
    /// The preferred default route of the main table (lowest metric, carrier up); routed is false
    /// when there is none; nullopt when the socket failed.
    [[nodiscard]] std::optional<RouteLookup> defaultRoute();

  private:
    struct Socket;
    std::unique_ptr<Socket> socket_;
    std::mutex mutex_;
};

/// A socket subscribed to link, IPv4 address and IPv4 route changes, made in the calling thread's
/// network namespace. drain() reads whatever is pending without blocking and says whether anything
/// changed (a lost-messages ENOBUFS counts as a change: the caller re-reads everything).
class TOVREL_EXPORT RouteChangeSocket {
  public:
    /// Throws std::system_error when the socket cannot be opened or subscribed.
    RouteChangeSocket();
    ~RouteChangeSocket();
    RouteChangeSocket(const RouteChangeSocket&) = delete;
    RouteChangeSocket& operator=(const RouteChangeSocket&) = delete;

    [[nodiscard]] int fd() const;
    /// Any one thread at a time. True when a change (or an overrun) was seen.
    bool drain();

  private:
    struct Socket;
    std::unique_ptr<Socket> socket_;
};

}  // namespace tovrel::linuxbackend
