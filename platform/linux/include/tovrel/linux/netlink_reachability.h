#pragma once

#include <memory>

#include "tovrel/export.h"
#include "tovrel/linux/asio_main_loop.h"
#include "tovrel/platform/background.h"
#include "tovrel/platform/reachability.h"

namespace tovrel::linuxbackend {

/// Reachability from the kernel's routing table over rtnetlink. A target's flag word says reachable
/// when a route to it exists, direct when that route is on-link, local address when the target is one
/// of this host's addresses, and cellular when the route leaves through a WWAN interface; the zero
/// address stands for "a default route exists". Host names (a URL is reduced to its host) are resolved
/// with getaddrinfo on the background queue, again after every network change, and judged by their
/// first IPv4 address; until the first answer they read as not reachable.
///
/// One netlink socket, watched by the main loop, hears link, address and route changes; after each
/// batch (or a lost-message overrun) every scheduled handle's flags are read again and its callback runs
/// on the main loop when they changed. The sockets belong to the network namespace of the thread that
/// made this source.
class TOVREL_EXPORT NetlinkReachability final : public platform::ReachabilitySource {
  public:
    /// Throws std::system_error when the netlink sockets cannot be opened. `background` resolves names;
    /// `watcher` watches the change socket on `loop`'s thread.
    NetlinkReachability(std::shared_ptr<platform::MainLoop> loop, std::shared_ptr<DescriptorWatcher> watcher,
                        std::shared_ptr<platform::BackgroundWork> background);
    /// The same on an asio loop, which is its own descriptor watcher.
    NetlinkReachability(const std::shared_ptr<AsioMainLoop>& loop,
                        std::shared_ptr<platform::BackgroundWork> background);
    /// Main thread.
    ~NetlinkReachability() override;
    NetlinkReachability(const NetlinkReachability&) = delete;
    NetlinkReachability& operator=(const NetlinkReachability&) = delete;

    /// Main thread. Never null.
    std::unique_ptr<platform::ReachabilityHandle> createWithName(const std::string& name) override;
    /// Main thread. Never null.
    std::unique_ptr<platform::ReachabilityHandle> createWithAddress(
        const platform::Ipv4SocketAddress& address) override;

    struct Shared;

  private:
    std::shared_ptr<Shared> shared_;
};

}  // namespace tovrel::linuxbackend
