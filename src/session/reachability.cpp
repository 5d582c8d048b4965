#include "tovrel/reachability.h"

#include "foundation/format.h"
#include "tovrel/environment.h"
#include "tovrel/notification_names.h"

namespace tovrel {

using namespace platform;

Reachability::Reachability(Environment& environment, std::unique_ptr<ReachabilityHandle> handle)
    : environment_(environment), reachabilityRef_(std::move(handle)) {}

Reachability::~Reachability() {
    stopNotifier();
}

std::unique_ptr<Reachability> Reachability::reachabilityWithHostName(Environment& environment,
                                                                     const std::string& hostName) {
    auto handle = environment.platform().reachability->createWithName(hostName);
    if (!handle) {
        return nullptr;
    }
    return std::unique_ptr<Reachability>(new Reachability(environment, std::move(handle)));
}

std::unique_ptr<Reachability> Reachability::reachabilityWithAddress(Environment& environment,
                                                                    const Ipv4SocketAddress& address) {
    auto handle = environment.platform().reachability->createWithAddress(address);
    if (!handle) {
        return nullptr;
    }
    return std::unique_ptr<Reachability>(new Reachability(environment, std::move(handle)));
}

std::unique_ptr<Reachability> Reachability::reachabilityForInternetConnection(Environment& environment) {
    return reachabilityWithAddress(environment, Ipv4SocketAddress{});
}

std::unique_ptr<Reachability> Reachability::reachabilityForLocalWiFi(Environment& environment) {
    Ipv4SocketAddress linkLocal;
    linkLocal.address = {169, 254, 0, 0};
    auto reachability = reachabilityWithAddress(environment, linkLocal);
    if (reachability) {
        reachability->alwaysReturnLocalWiFiStatus = true;
    }
    return reachability;
}

bool Reachability::startNotifier() {
    const bool installed = reachabilityRef_->setCallback([this](std::uint32_t) {
        environment_.notificationCenter().post(kReachabilityChangedNotification, this, this);
    });
    return installed && reachabilityRef_->scheduleWithMainLoop();
}

void Reachability::stopNotifier() {
    if (reachabilityRef_) {
        reachabilityRef_->unscheduleFromMainLoop();
    }
}

std::string Reachability::flagStatusLine(std::uint32_t flags, const char* tag) {
    const auto bit = [flags](std::uint32_t mask, char letter) { return (flags & mask) != 0 ? letter : '-'; };
    return strprintf("Reachability Flag Status: %c%c %c%c%c%c%c%c%c %s\n", bit(kReachabilityIsWWAN, 'W'),
                     bit(kReachabilityReachable, 'R'), bit(kReachabilityTransientConnection, 't'),
                     bit(kReachabilityConnectionRequired, 'c'), bit(kReachabilityConnectionOnTraffic, 'C'),
                     bit(kReachabilityInterventionRequired, 'i'), bit(kReachabilityConnectionOnDemand, 'D'),
                     bit(kReachabilityIsLocalAddress, 'l'), bit(kReachabilityIsDirect, 'd'), tag);
}

NetworkStatus Reachability::networkStatusForFlags(std::uint32_t flags) const {
    environment_.platform().log->write(flagStatusLine(flags, "networkStatusForFlags"));
    if ((flags & kReachabilityReachable) == 0) {
        return StatusNotReachable;
    }
    NetworkStatus status = StatusNotReachable;
    if ((flags & kReachabilityConnectionRequired) == 0) {
        status = StatusViaWiFi;
    }
    if ((flags & (kReachabilityConnectionOnDemand | kReachabilityConnectionOnTraffic)) != 0 &&
        (flags & kReachabilityInterventionRequired) == 0) {
        status = StatusViaWiFi;
    }
    if ((flags & kReachabilityIsWWAN) == kReachabilityIsWWAN) {
        status = StatusViaWWAN;
    }
    return status;
}

NetworkStatus Reachability::localWiFiStatusForFlags(std::uint32_t flags) const {
    environment_.platform().log->write(flagStatusLine(flags, "localWiFiStatusForFlags"));
    const std::uint32_t wanted = kReachabilityReachable | kReachabilityIsDirect;
    return (flags & wanted) == wanted ? StatusViaWiFi : StatusNotReachable;
}

NetworkStatus Reachability::currentReachabilityStatus() const {
    std::uint32_t flags = 0;
    if (!reachabilityRef_->getFlags(flags)) {
        return StatusNotReachable;
    }
    return alwaysReturnLocalWiFiStatus ? localWiFiStatusForFlags(flags) : networkStatusForFlags(flags);
}

bool Reachability::connectionRequired() const {
    std::uint32_t flags = 0;
    if (!reachabilityRef_->getFlags(flags)) {
        return false;
    }
    return (flags & kReachabilityConnectionRequired) != 0;
}

}  // namespace tovrel
