#include "tovrel/linux/netlink_routes.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/if.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cerrno>
#include <fstream>
#include <limits>
#include <system_error>
#include <vector>

#include "tovrel/platform/reachability.h"

namespace tovrel::linuxbackend {
namespace {

struct MnlCloser {
    void operator()(mnl_socket* socket) const { mnl_socket_close(socket); }
};
using MnlSocket = std::unique_ptr<mnl_socket, MnlCloser>;

struct RouteMessage {
    unsigned char type = RTN_UNSPEC;
    unsigned char dstLength = 0;
    std::uint32_t table = 0;
    unsigned flags = 0;
    int oif = 0;
    bool gateway = false;
    std::uint32_t priority = 0;
};

RouteMessage parseRoute(const nlmsghdr* header) {
    RouteMessage route;
    const auto* rtm = static_cast<const rtmsg*>(mnl_nlmsg_get_payload(header));
    route.type = rtm->rtm_type;
    route.dstLength = rtm->rtm_dst_len;
    route.table = rtm->rtm_table;
    route.flags = rtm->rtm_flags;
    mnl_attr_parse(
        header, sizeof(rtmsg),
        [](const nlattr* attr, void* data) {
            auto& out = *static_cast<RouteMessage*>(data);
            switch (mnl_attr_get_type(attr)) {
                case RTA_OIF:
                    out.oif = static_cast<int>(mnl_attr_get_u32(attr));
                    break;
                case RTA_GATEWAY:
                    out.gateway = true;
                    break;
                case RTA_TABLE:
                    out.table = mnl_attr_get_u32(attr);
                    break;
                case RTA_PRIORITY:
                    out.priority = mnl_attr_get_u32(attr);
                    break;
                default:
                    break;
            }
            return MNL_CB_OK;
        },
        &route);
    return route;
}

bool usable(const RouteMessage& route) {
    return (route.type == RTN_UNICAST || route.type == RTN_LOCAL) && (route.flags & RTNH_F_LINKDOWN) == 0;
}

MnlSocket openSocket(int flags, unsigned groups) {
    MnlSocket socket(mnl_socket_open2(NETLINK_ROUTE, flags));
    if (!socket) {
        throw std::system_error(errno, std::generic_category(), "cannot open an rtnetlink socket");
    }
    if (mnl_socket_bind(socket.get(), groups, MNL_SOCKET_AUTOPID) < 0) {
        throw std::system_error(errno, std::generic_category(), "cannot bind the rtnetlink socket");
    }
    return socket;
}

}  // namespace

std::uint32_t reachabilityFlagsFor(const RouteLookup& route, bool wwan) {
    if (!route.routed) {
        return 0;
    }
    std::uint32_t flags = platform::kReachabilityReachable;
    if (route.local) {
        flags |= platform::kReachabilityIsLocalAddress | platform::kReachabilityIsDirect;
    } else if (!route.viaGateway) {
        flags |= platform::kReachabilityIsDirect;
    }
    if (wwan) {
        flags |= platform::kReachabilityIsWWAN;
    }
    return flags;
}

bool isWwanInterface(const std::string& name, const std::filesystem::path& sysClassNet) {
    if (name.empty() || name.find('/') != std::string::npos || name == "." || name == "..") {
        return false;
    }
    if (name.rfind("ww", 0) == 0) {
        return true;
    }
    std::ifstream uevent(sysClassNet / name / "uevent");
    std::string line;
    while (std::getline(uevent, line)) {
        if (line == "DEVTYPE=wwan") {
            return true;
        }
    }
    std::error_code ignored;
    return std::filesystem::exists(sysClassNet / name / "device" / "wwan", ignored);
}

std::string hostFromName(const std::string& name) {
    std::string host = name;
    if (const auto scheme = host.find("://"); scheme != std::string::npos) {
        host.erase(0, scheme + 3);
    }
    if (const auto path = host.find_first_of("/?#"); path != std::string::npos) {
        host.erase(path);
    }
    if (const auto at = host.rfind('@'); at != std::string::npos) {
        host.erase(0, at + 1);
    }
    if (!host.empty() && host.front() == '[') {
        const auto close = host.find(']');
        return close == std::string::npos ? host.substr(1) : host.substr(1, close - 1);
    }
    if (const auto colon = host.find(':');
        colon != std::string::npos && host.find(':', colon + 1) == std::string::npos) {
        host.erase(colon);
    }
    return host;
}

struct RouteTable::Socket {
    MnlSocket socket;
    unsigned portId = 0;
    unsigned sequence = 0;
    std::vector<char> buffer = std::vector<char>(MNL_SOCKET_BUFFER_SIZE);

    /// Sends the request in `buffer` and feeds every reply to `callback`; -1 with errno on failure.
    int exchange(nlmsghdr* request, mnl_cb_t callback, void* data) {
        request->nlmsg_seq = ++sequence;
        const bool dump = (request->nlmsg_flags & NLM_F_DUMP) != 0;
        if (mnl_socket_sendto(socket.get(), request, request->nlmsg_len) < 0) {
            return -1;
        }
        const unsigned seq = sequence;
        for (;;) {
            const ssize_t received = mnl_socket_recvfrom(socket.get(), buffer.data(), buffer.size());
            if (received < 0) {
                if (errno == EINTR) {
                    continue;
                }
                return -1;
            }
            const int result =
                mnl_cb_run(buffer.data(), static_cast<std::size_t>(received), seq, portId, callback, data);
            if (result <= MNL_CB_STOP) {
                return result;
            }
            if (!dump) {
                return result;
            }
        }
    }

    std::string interfaceName(int index) {
        nlmsghdr* request = mnl_nlmsg_put_header(buffer.data());
        request->nlmsg_type = RTM_GETLINK;
        request->nlmsg_flags = NLM_F_REQUEST;
        auto* info = static_cast<ifinfomsg*>(mnl_nlmsg_put_extra_header(request, sizeof(ifinfomsg)));
        info->ifi_family = AF_UNSPEC;
        info->ifi_index = index;
        std::string name;
        const int result = exchange(
            request,
            [](const nlmsghdr* header, void* data) {
                mnl_attr_parse(
                    header, sizeof(ifinfomsg),
                    [](const nlattr* attr, void* out) {
                        if (mnl_attr_get_type(attr) == IFLA_IFNAME) {
                            *static_cast<std::string*>(out) = mnl_attr_get_str(attr);
                        }
                        return MNL_CB_OK;
                    },
                    data);
                return MNL_CB_OK;
            },
            &name);
        return result < 0 ? std::string() : name;
    }
};

RouteTable::RouteTable() : socket_(std::make_unique<Socket>()) {
    socket_->socket = openSocket(SOCK_CLOEXEC, 0);
    socket_->portId = mnl_socket_get_portid(socket_->socket.get());
}

RouteTable::~RouteTable() = default;

std::optional<RouteLookup> RouteTable::lookup(const std::array<std::uint8_t, 4>& address) {
    std::lock_guard lock(mutex_);
    nlmsghdr* request = mnl_nlmsg_put_header(socket_->buffer.data());
    request->nlmsg_type = RTM_GETROUTE;
    request->nlmsg_flags = NLM_F_REQUEST;
    auto* rtm = static_cast<rtmsg*>(mnl_nlmsg_put_extra_header(request, sizeof(rtmsg)));
    rtm->rtm_family = AF_INET;
    rtm->rtm_dst_len = 32;
    mnl_attr_put(request, RTA_DST, address.size(), address.data());
    RouteMessage route;
    bool answered = false;
    struct Reply {
        RouteMessage* route;
        bool* answered;
    } reply{&route, &answered};
    const int result = socket_->exchange(
        request,
        [](const nlmsghdr* header, void* data) {
            auto* out = static_cast<Reply*>(data);
            if (header->nlmsg_type == RTM_NEWROUTE) {
                *out->route = parseRoute(header);
                *out->answered = true;
            }
            return MNL_CB_OK;
        },
        &reply);
    RouteLookup lookup;
    if (result < 0) {
        if (errno == ENETUNREACH || errno == EHOSTUNREACH || errno == ENETDOWN || errno == EINVAL ||
            errno == EACCES || errno == EPERM) {
            return lookup;
        }
        return std::nullopt;
    }
    if (!answered || !usable(route)) {
        return lookup;
    }
    lookup.routed = true;
    lookup.local = route.type == RTN_LOCAL;
    lookup.viaGateway = route.gateway;
    lookup.interfaceIndex = route.oif;
    if (route.oif > 0) {
        lookup.interfaceName = socket_->interfaceName(route.oif);
    }
    return lookup;
}

std::optional<RouteLookup> RouteTable::defaultRoute() {
    std::lock_guard lock(mutex_);
    nlmsghdr* request = mnl_nlmsg_put_header(socket_->buffer.data());
    request->nlmsg_type = RTM_GETROUTE;
    request->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    auto* rtm = static_cast<rtmsg*>(mnl_nlmsg_put_extra_header(request, sizeof(rtmsg)));
    rtm->rtm_family = AF_INET;
    std::optional<RouteMessage> best;
    const int result = socket_->exchange(
        request,
        [](const nlmsghdr* header, void* data) {
            auto& chosen = *static_cast<std::optional<RouteMessage>*>(data);
            if (header->nlmsg_type != RTM_NEWROUTE) {
                return MNL_CB_OK;
            }
            const RouteMessage route = parseRoute(header);
            if (route.table == RT_TABLE_MAIN && route.dstLength == 0 && route.type == RTN_UNICAST &&
                usable(route) && (!chosen || route.priority < chosen->priority)) {
                chosen = route;
            }
            return MNL_CB_OK;
        },
        &best);
    if (result < 0) {
        return std::nullopt;
    }
    RouteLookup lookup;
    if (best) {
        lookup.routed = true;
        lookup.viaGateway = best->gateway;
        lookup.interfaceIndex = best->oif;
        if (best->oif > 0) {
            lookup.interfaceName = socket_->interfaceName(best->oif);
        }
    }
    return lookup;
}

struct RouteChangeSocket::Socket {
    MnlSocket socket;
    std::vector<char> buffer = std::vector<char>(MNL_SOCKET_BUFFER_SIZE);
};

RouteChangeSocket::RouteChangeSocket() : socket_(std::make_unique<Socket>()) {
    socket_->socket =
        openSocket(SOCK_NONBLOCK | SOCK_CLOEXEC, RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV4_ROUTE);
}

RouteChangeSocket::~RouteChangeSocket() = default;

int RouteChangeSocket::fd() const {
    return mnl_socket_get_fd(socket_->socket.get());
}

bool RouteChangeSocket::drain() {
    bool changed = false;
    for (;;) {
        const ssize_t received =
            mnl_socket_recvfrom(socket_->socket.get(), socket_->buffer.data(), socket_->buffer.size());
        if (received < 0) {
            if (errno == EINTR) {
                continue;
            }
            if (errno == ENOBUFS) {
                changed = true;
                continue;
            }
            return changed;
        }
        int length = static_cast<int>(received);
        for (const auto* header = reinterpret_cast<const nlmsghdr*>(socket_->buffer.data());
             mnl_nlmsg_ok(header, length); header = mnl_nlmsg_next(header, &length)) {
            switch (header->nlmsg_type) {
                case RTM_NEWLINK:
                case RTM_DELLINK:
                case RTM_NEWADDR:
                case RTM_DELADDR:
                case RTM_NEWROUTE:
                case RTM_DELROUTE:
                    changed = true;
                    break;
                default:
                    break;
            }
        }
    }
}

}  // namespace tovrel::linuxbackend
