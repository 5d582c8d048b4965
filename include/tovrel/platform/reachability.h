#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "tovrel/export.h"

namespace tovrel::platform {

/// Bits of the reachability flag word.
enum ReachabilityFlag : std::uint32_t {
    kReachabilityTransientConnection = 0x1,
    kReachabilityReachable = 0x2,
    kReachabilityConnectionRequired = 0x4,
    kReachabilityConnectionOnTraffic = 0x8,
    kReachabilityInterventionRequired = 0x10,
    kReachabilityConnectionOnDemand = 0x20,
    kReachabilityIsLocalAddress = 0x10000,
    kReachabilityIsDirect = 0x20000,
    kReachabilityIsWWAN = 0x40000,
};

/// An IPv4 socket address as the reachability service takes it.
struct TOVREL_EXPORT Ipv4SocketAddress {
    std::uint8_t length = 16;
    std::uint8_t family = 2;
    std::uint16_t port = 0;
    std::array<std::uint8_t, 4> address{};  ///< in network order: {169, 254, 0, 0}
};

/// One watched target: a host name or an address.
class TOVREL_EXPORT ReachabilityHandle {
  public:
    virtual ~ReachabilityHandle() = default;
    /// Any thread. Reads the current flag word into `flags`; false when it cannot be read.
    virtual bool getFlags(std::uint32_t& flags) const = 0;
    /// Main thread. Installs the change callback, which receives the new flag word; false on failure.
    virtual bool setCallback(std::function<void(std::uint32_t flags)> callback) = 0;
    /// Main thread. Starts delivering changes on the main loop; false on failure.
    virtual bool scheduleWithMainLoop() = 0;
    /// Main thread. Stops delivering changes; harmless when never scheduled.
    virtual void unscheduleFromMainLoop() = 0;
};

/// Makes reachability handles.
class TOVREL_EXPORT ReachabilitySource {
  public:
    virtual ~ReachabilitySource() = default;
    /// Main thread. A handle for a host name; nullptr when one cannot be made.
    virtual std::unique_ptr<ReachabilityHandle> createWithName(const std::string& name) = 0;
    /// Main thread. A handle for an address; nullptr when one cannot be made.
    virtual std::unique_ptr<ReachabilityHandle> createWithAddress(const Ipv4SocketAddress& address) = 0;
};

}  // namespace tovrel::platform
