#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "tovrel/export.h"
#include "tovrel/platform/reachability.h"

namespace tovrel {

class Environment;

enum NetworkStatus : long { StatusNotReachable = 0, StatusViaWiFi = 1, StatusViaWWAN = 2 };

/// Watches whether a host, an address, the Internet at large or the local Wi-Fi link can be reached.
/// Once its notifier is started it posts "kNetworkReachabilityChangedNotification" (object and
/// sender: this monitor) on every change; observers then ask currentReachabilityStatus().
class TOVREL_EXPORT Reachability {
  public:
    /// Each factory returns nullptr when the platform cannot make a handle.
    static std::unique_ptr<Reachability> reachabilityWithHostName(Environment& environment,
                                                                  const std::string& hostName);
    static std::unique_ptr<Reachability> reachabilityWithAddress(Environment& environment,
                                                                 const platform::Ipv4SocketAddress& address);
    /// The zero address 0.0.0.0: the Internet at large.
    static std::unique_ptr<Reachability> reachabilityForInternetConnection(Environment& environment);
    /// The link-local network 169.254.0.0, judged by the Wi-Fi rule.
    static std::unique_ptr<Reachability> reachabilityForLocalWiFi(Environment& environment);

    ~Reachability();
    Reachability(const Reachability&) = delete;
    Reachability& operator=(const Reachability&) = delete;

    bool startNotifier();
    void stopNotifier();
    [[nodiscard]] NetworkStatus currentReachabilityStatus() const;
    [[nodiscard]] bool connectionRequired() const;
    [[nodiscard]] NetworkStatus networkStatusForFlags(std::uint32_t flags) const;
    [[nodiscard]] NetworkStatus localWiFiStatusForFlags(std::uint32_t flags) const;

    /// "Reachability Flag Status: WR -------- tag\n": one letter per set flag, '-' per clear one.
    static std::string flagStatusLine(std::uint32_t flags, const char* tag);

    bool alwaysReturnLocalWiFiStatus = false;

  private:
    Reachability(Environment& environment, std::unique_ptr<platform::ReachabilityHandle> handle);

    Environment& environment_;
    std::unique_ptr<platform::ReachabilityHandle> reachabilityRef_;
};

}  // namespace tovrel
