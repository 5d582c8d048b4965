#include "tovrel/linux/netlink_reachability.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <mutex>
#include <optional>
#include <vector>

#include "tovrel/linux/netlink_routes.h"
#include "tovrel/platform/thread_check.h"

namespace tovrel::linuxbackend {
namespace {

using Address = std::array<std::uint8_t, 4>;

std::optional<Address> numericAddress(const std::string& host) {
    in_addr parsed{};
    if (::inet_pton(AF_INET, host.c_str(), &parsed) != 1) {
        return std::nullopt;
    }
    Address out{};
    std::memcpy(out.data(), &parsed, out.size());
    return out;
}

std::optional<Address> resolve(const std::string& host) {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* results = nullptr;
    if (::getaddrinfo(host.c_str(), nullptr, &hints, &results) != 0 || results == nullptr) {
        return std::nullopt;
    }
    Address out{};
    const auto* address = reinterpret_cast<const sockaddr_in*>(results->ai_addr);
    std::memcpy(out.data(), &address->sin_addr, out.size());
    ::freeaddrinfo(results);
    return out;
}

}  // namespace

struct NetlinkReachability::Shared : std::enable_shared_from_this<NetlinkReachability::Shared> {
    struct Watch {
        bool byName = false;
        std::string host;
        std::optional<Address> address;  ///< for names: the latest resolution
        std::uint64_t resolutions = 0;   ///< answers received, for names
        std::function<void(std::uint32_t)> callback;
        bool scheduled = false;
        std::uint32_t lastFlags = 0;
    };

    std::shared_ptr<platform::MainLoop> loop;
    std::shared_ptr<DescriptorWatcher> watcher;
    std::shared_ptr<platform::BackgroundWork> background;
    RouteTable routes;
    RouteChangeSocket changes;
    std::unique_ptr<FdWatch> changeWatch;
    std::mutex mutex;
    std::vector<std::weak_ptr<Watch>> watches;

    /// Any thread. The current flag word of `watch`; false when the kernel could not be asked.
    bool flagsFor(const Watch& watch, std::uint32_t& flags) {
        std::optional<Address> address;
        {
            std::lock_guard lock(mutex);
            address = watch.address;
        }
        if (!address) {
            flags = 0;
            return true;
        }
        const bool zero =
            std::all_of(address->begin(), address->end(), [](std::uint8_t b) { return b == 0; });
        const auto route = zero ? routes.defaultRoute() : routes.lookup(*address);
        if (!route) {
            return false;
        }
        flags = reachabilityFlagsFor(*route, route->routed && isWwanInterface(route->interfaceName));
        return true;
    }

    /// Main thread. Reads every scheduled watch again and calls back those whose flags changed.
    void recheck() {
        TOVREL_ASSERT_MAIN_THREAD(*loop);
        std::vector<std::shared_ptr<Watch>> live;
        {
            std::lock_guard lock(mutex);
            std::erase_if(watches, [](const std::weak_ptr<Watch>& weak) { return weak.expired(); });
            for (const auto& weak : watches) {
                if (auto watch = weak.lock(); watch && watch->scheduled) {
                    live.push_back(std::move(watch));
                }
            }
        }
        for (const auto& watch : live) {
            std::uint32_t flags = 0;
            if (!flagsFor(*watch, flags) || flags == watch->lastFlags) {
                continue;
            }
            watch->lastFlags = flags;
            if (watch->scheduled && watch->callback) {
                const auto callback = watch->callback;
                callback(flags);
            }
        }
    }

    /// Any thread. Resolves a named watch on the background queue; the answer is applied on the loop.
    void resolveLater(const std::shared_ptr<Watch>& watch) {
        if (!watch->byName || numericAddress(watch->host)) {
            return;
        }
        background->dispatchBackground(
            [weakSelf = weak_from_this(), weakWatch = std::weak_ptr<Watch>(watch), host = watch->host] {
                const auto answer = resolve(host);
                const auto self = weakSelf.lock();
                if (!self) {
                    return;
                }
                self->loop->post([weakSelf, weakWatch, answer] {
                    const auto owner = weakSelf.lock();
                    const auto target = weakWatch.lock();
                    if (!owner || !target) {
                        return;
                    }
                    {
                        std::lock_guard lock(owner->mutex);
                        target->address = answer;
                        ++target->resolutions;
                    }
                    owner->recheck();
                });
            });
    }

    /// Main thread. Network changed: names are resolved again, and every watch is read again.
    void networkChanged() {
        TOVREL_ASSERT_MAIN_THREAD(*loop);
        if (!changes.drain()) {
            return;
        }
        std::vector<std::shared_ptr<Watch>> named;
        {
            std::lock_guard lock(mutex);
            for (const auto& weak : watches) {
                if (auto watch = weak.lock(); watch && watch->scheduled && watch->byName) {
                    named.push_back(std::move(watch));
                }
            }
        }
        for (const auto& watch : named) {
            resolveLater(watch);
        }
        recheck();
    }

    /// Main thread. Watches the change socket while any handle is scheduled.
    void updateChangeWatch() {
        TOVREL_ASSERT_MAIN_THREAD(*loop);
        bool any = false;
        {
            std::lock_guard lock(mutex);
            for (const auto& weak : watches) {
                if (const auto watch = weak.lock(); watch && watch->scheduled) {
                    any = true;
                }
            }
        }
        if (any && !changeWatch) {
            // Changes that arrived while nobody listened are stale: the baseline is read afresh.
            changes.drain();
            changeWatch = watcher->watchReadable(changes.fd(), [weak = weak_from_this()] {
                if (const auto self = weak.lock()) {
                    self->networkChanged();
                }
            });
        } else if (!any && changeWatch) {
            changeWatch->cancel();
            changeWatch.reset();
        }
    }
};

namespace {

class NetlinkReachabilityHandle final : public platform::ReachabilityHandle {
  public:
    using Shared = NetlinkReachability::Shared;

    NetlinkReachabilityHandle(std::shared_ptr<Shared> shared, std::shared_ptr<Shared::Watch> watch)
        : shared_(std::move(shared)), watch_(std::move(watch)) {}

    ~NetlinkReachabilityHandle() override { NetlinkReachabilityHandle::unscheduleFromMainLoop(); }
    NetlinkReachabilityHandle(const NetlinkReachabilityHandle&) = delete;
    NetlinkReachabilityHandle& operator=(const NetlinkReachabilityHandle&) = delete;

    bool getFlags(std::uint32_t& flags) const override { return shared_->flagsFor(*watch_, flags); }

    bool setCallback(std::function<void(std::uint32_t)> callback) override {
        watch_->callback = std::move(callback);
        return true;
    }

    bool scheduleWithMainLoop() override {
        if (watch_->scheduled) {
            return true;
        }
        std::uint32_t flags = 0;
        if (shared_->flagsFor(*watch_, flags)) {
            watch_->lastFlags = flags;
        }
        watch_->scheduled = true;
        shared_->updateChangeWatch();
        shared_->resolveLater(watch_);
        return true;
    }

    void unscheduleFromMainLoop() override {
        if (!watch_->scheduled) {
            return;
        }
        watch_->scheduled = false;
        shared_->updateChangeWatch();
    }

  private:
    std::shared_ptr<Shared> shared_;
    std::shared_ptr<Shared::Watch> watch_;
};

}  // namespace

NetlinkReachability::NetlinkReachability(std::shared_ptr<platform::MainLoop> loop,
                                         std::shared_ptr<DescriptorWatcher> watcher,
                                         std::shared_ptr<platform::BackgroundWork> background)
    : shared_(std::make_shared<Shared>()) {
    shared_->loop = std::move(loop);
    shared_->watcher = std::move(watcher);
    shared_->background = std::move(background);
}

NetlinkReachability::NetlinkReachability(const std::shared_ptr<AsioMainLoop>& loop,
                                         std::shared_ptr<platform::BackgroundWork> background)
    : NetlinkReachability(loop, loop, std::move(background)) {}

NetlinkReachability::~NetlinkReachability() {
    TOVREL_ASSERT_MAIN_THREAD(*shared_->loop);
    if (shared_->changeWatch) {
        shared_->changeWatch->cancel();
        shared_->changeWatch.reset();
    }
}

std::unique_ptr<platform::ReachabilityHandle> NetlinkReachability::createWithName(const std::string& name) {
    TOVREL_ASSERT_MAIN_THREAD(*shared_->loop);
    auto watch = std::make_shared<Shared::Watch>();
    watch->byName = true;
    watch->host = hostFromName(name);
    watch->address = numericAddress(watch->host);
    {
        std::lock_guard lock(shared_->mutex);
        shared_->watches.push_back(watch);
    }
    shared_->resolveLater(watch);
    return std::make_unique<NetlinkReachabilityHandle>(shared_, std::move(watch));
}

std::unique_ptr<platform::ReachabilityHandle> NetlinkReachability::createWithAddress(
    const platform::Ipv4SocketAddress& address) {
    TOVREL_ASSERT_MAIN_THREAD(*shared_->loop);
    auto watch = std::make_shared<Shared::Watch>();
    watch->address = address.address;
    {
        std::lock_guard lock(shared_->mutex);
        shared_->watches.push_back(watch);
    }
    return std::make_unique<NetlinkReachabilityHandle>(shared_, std::move(watch));
}

}  // namespace tovrel::linuxbackend
