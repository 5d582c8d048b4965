#include "tovrel/virtual/virtual_services.h"

#include <algorithm>
#include <iostream>

namespace tovrel::virtualbackend {

using platform::ApplicationEvent;
using platform::ApplicationState;

// --- preferences ---------------------------------------------------------------------------------

std::optional<nlohmann::json> InMemoryPreferences::objectForKey(std::string_view key) const {
    std::lock_guard lock(mutex_);
    const auto it = values_.find(key);
    if (it == values_.end()) {
        return std::nullopt;
    }
    return it->second;
}

void InMemoryPreferences::readObject(std::string_view key,
                                     const std::function<void(const nlohmann::json*)>& read) const {
    std::lock_guard lock(mutex_);
    const auto it = values_.find(key);
    read(it == values_.end() ? nullptr : &it->second);
}

void InMemoryPreferences::setObject(std::string_view key, const nlohmann::json& value) {
    std::lock_guard lock(mutex_);
    if (const auto it = values_.find(key); it != values_.end()) {
        it->second = value;
    } else {
        values_.emplace(std::string(key), value);
    }
}

void InMemoryPreferences::removeObject(std::string_view key) {
    std::lock_guard lock(mutex_);
    if (const auto it = values_.find(key); it != values_.end()) {
        values_.erase(it);
    }
}

nlohmann::json InMemoryPreferences::snapshot() const {
    std::lock_guard lock(mutex_);
    nlohmann::json out = nlohmann::json::object();
    for (const auto& [key, value] : values_) {
        out[key] = value;
    }
    return out;
}

void InMemoryPreferences::restore(const nlohmann::json& snapshot) {
    std::lock_guard lock(mutex_);
    values_.clear();
    if (snapshot.is_object()) {
        for (const auto& [key, value] : snapshot.items()) {
            values_.emplace(key, value);
        }
    }
}

// --- device --------------------------------------------------------------------------------------

std::string VirtualDevice::model() const {
    std::lock_guard lock(mutex_);
    return model_;
}
std::string VirtualDevice::systemName() const {
    std::lock_guard lock(mutex_);
    return systemName_;
}
std::string VirtualDevice::systemVersion() const {
    std::lock_guard lock(mutex_);
    return systemVersion_;
}
std::string VirtualDevice::advertisingIdentifier() const {
    std::lock_guard lock(mutex_);
    return advertisingIdentifier_;
}
void VirtualDevice::setModel(std::string model) {
    std::lock_guard lock(mutex_);
    model_ = std::move(model);
}
void VirtualDevice::setSystem(std::string name, std::string version) {
    std::lock_guard lock(mutex_);
    systemName_ = std::move(name);
    systemVersion_ = std::move(version);
}
void VirtualDevice::setAdvertisingIdentifier(std::string identifier) {
    std::lock_guard lock(mutex_);
    advertisingIdentifier_ = std::move(identifier);
}

// --- application ---------------------------------------------------------------------------------

ApplicationState VirtualApplication::applicationState() const {
    std::lock_guard lock(mutex_);
    return state_;
}
long VirtualApplication::applicationIconBadgeNumber() const {
    std::lock_guard lock(mutex_);
    return badge_;
}
void VirtualApplication::setApplicationIconBadgeNumber(long number) {
    std::lock_guard lock(mutex_);
    badge_ = number;
    badgeHistory_.push_back(number);
}
std::string VirtualApplication::bundleIdentifier() const {
    std::lock_guard lock(mutex_);
    return bundleIdentifier_;
}
bool VirtualApplication::openURL(const std::string& url) {
    std::lock_guard lock(mutex_);
    openedURLs_.push_back(url);
    return true;
}
std::string VirtualApplication::openSettingsURLString() const {
    return "app-settings:";
}
void VirtualApplication::setEventHandler(platform::ApplicationEventHandler handler) {
    std::lock_guard lock(mutex_);
    handler_ = std::move(handler);
}
void VirtualApplication::setBundleIdentifier(std::string identifier) {
    std::lock_guard lock(mutex_);
    bundleIdentifier_ = std::move(identifier);
}
void VirtualApplication::setState(ApplicationState state) {
    std::lock_guard lock(mutex_);
    state_ = state;
}
std::vector<std::string> VirtualApplication::openedURLs() const {
    std::lock_guard lock(mutex_);
    return openedURLs_;
}
std::vector<long> VirtualApplication::badgeHistory() const {
    std::lock_guard lock(mutex_);
    return badgeHistory_;
}

void VirtualApplication::deliverLifecycleEvent(ApplicationEvent event, const nlohmann::json& launchOptions) {
    platform::ApplicationEventHandler handler;
    {
        std::lock_guard lock(mutex_);
        handler = handler_;
    }
    if (handler) {
        handler(event, launchOptions);
    }
}

// --- notifications -------------------------------------------------------------------------------

void VirtualNotifications::presentLocalNotificationNow(const platform::LocalNotification& notification) {
    std::lock_guard lock(mutex_);
    presented_.push_back(notification);
}
void VirtualNotifications::scheduleLocalNotification(const platform::LocalNotification& notification) {
    std::lock_guard lock(mutex_);
    scheduled_.push_back(notification);
}
std::vector<platform::LocalNotification> VirtualNotifications::scheduledLocalNotifications() const {
    std::lock_guard lock(mutex_);
    return scheduled_;
}
void VirtualNotifications::cancelAllLocalNotifications() {
    std::lock_guard lock(mutex_);
    scheduled_.clear();
}
void VirtualNotifications::registerUserNotificationSettings(int typeMask) {
    std::lock_guard lock(mutex_);
    registered_ = typeMask;
}
std::optional<int> VirtualNotifications::currentUserNotificationSettings() const {
    std::lock_guard lock(mutex_);
    return allowed_;
}
std::vector<platform::LocalNotification> VirtualNotifications::presented() const {
    std::lock_guard lock(mutex_);
    return presented_;
}
std::optional<int> VirtualNotifications::registeredTypes() const {
    std::lock_guard lock(mutex_);
    return registered_;
}
void VirtualNotifications::setUserNotificationSettings(std::optional<int> typeMask) {
    std::lock_guard lock(mutex_);
    allowed_ = typeMask;
}

// --- reachability --------------------------------------------------------------------------------

struct VirtualReachability::Shared {
    struct Watch {
        std::string target;
        std::function<void(std::uint32_t)> callback;
        bool scheduled = false;
    };

    std::shared_ptr<platform::MainLoop> loop;
    std::mutex mutex;
    std::map<std::string, std::uint32_t> flags;
    std::uint32_t defaultFlags = platform::kReachabilityReachable;
    bool unreadable = false;
    bool creationFails = false;
    std::vector<std::weak_ptr<Watch>> watches;

    std::uint32_t flagsFor(const std::string& target) {
        const auto it = flags.find(target);
        return it == flags.end() ? defaultFlags : it->second;
    }

    void notify(const std::string* target) {
        std::vector<std::pair<std::shared_ptr<Watch>, std::uint32_t>> due;
        {
            std::lock_guard lock(mutex);
            for (const auto& weak : watches) {
                if (auto watch = weak.lock(); watch && watch->scheduled && watch->callback &&
                                              (target == nullptr || watch->target == *target)) {
                    due.emplace_back(watch, flagsFor(watch->target));
                }
            }
        }
        for (auto& [watch, value] : due) {
            loop->post([watch = std::weak_ptr<Watch>(watch), value = value] {
                if (auto live = watch.lock(); live && live->scheduled) {
                    live->callback(value);
                }
            });
        }
    }
};

namespace {

class VirtualReachabilityHandle final : public platform::ReachabilityHandle {
  public:
    VirtualReachabilityHandle(std::shared_ptr<VirtualReachability::Shared> shared, std::string target)
        : shared_(std::move(shared)), watch_(std::make_shared<VirtualReachability::Shared::Watch>()) {
        watch_->target = std::move(target);
        std::lock_guard lock(shared_->mutex);
        shared_->watches.push_back(watch_);
    }

    bool getFlags(std::uint32_t& flags) const override {
        std::lock_guard lock(shared_->mutex);
        if (shared_->unreadable) {
            return false;
        }
        flags = shared_->flagsFor(watch_->target);
        return true;
    }
    bool setCallback(std::function<void(std::uint32_t)> callback) override {
        std::lock_guard lock(shared_->mutex);
        watch_->callback = std::move(callback);
        return true;
    }
    bool scheduleWithMainLoop() override {
        std::lock_guard lock(shared_->mutex);
        watch_->scheduled = true;
        return true;
    }
    void unscheduleFromMainLoop() override {
        std::lock_guard lock(shared_->mutex);
        watch_->scheduled = false;
    }

  private:
    std::shared_ptr<VirtualReachability::Shared> shared_;
    std::shared_ptr<VirtualReachability::Shared::Watch> watch_;
};

std::string dotted(const platform::Ipv4SocketAddress& address) {
    return std::to_string(address.address[0]) + "." + std::to_string(address.address[1]) + "." +
           std::to_string(address.address[2]) + "." + std::to_string(address.address[3]);
}

}  // namespace

VirtualReachability::VirtualReachability(std::shared_ptr<platform::MainLoop> loop)
    : shared_(std::make_shared<Shared>()) {
    shared_->loop = std::move(loop);
}

std::unique_ptr<platform::ReachabilityHandle> VirtualReachability::createWithName(const std::string& name) {
    {
        std::lock_guard lock(shared_->mutex);
        if (shared_->creationFails) {
            return nullptr;
        }
    }
    return std::make_unique<VirtualReachabilityHandle>(shared_, name);
}

std::unique_ptr<platform::ReachabilityHandle> VirtualReachability::createWithAddress(
    const platform::Ipv4SocketAddress& address) {
    {
        std::lock_guard lock(shared_->mutex);
        if (shared_->creationFails) {
            return nullptr;
        }
    }
    return std::make_unique<VirtualReachabilityHandle>(shared_, dotted(address));
}

void VirtualReachability::setFlags(std::uint32_t flags) {
    {
        std::lock_guard lock(shared_->mutex);
        shared_->defaultFlags = flags;
        shared_->flags.clear();
        shared_->unreadable = false;
    }
    shared_->notify(nullptr);
}

void VirtualReachability::setFlags(const std::string& target, std::uint32_t flags) {
    {
        std::lock_guard lock(shared_->mutex);
        shared_->flags[target] = flags;
        shared_->unreadable = false;
    }
    shared_->notify(&target);
}

void VirtualReachability::setUnreadable(bool unreadable) {
    std::lock_guard lock(shared_->mutex);
    shared_->unreadable = unreadable;
}

void VirtualReachability::setCreationFails(bool fails) {
    std::lock_guard lock(shared_->mutex);
    shared_->creationFails = fails;
}

// --- alerts --------------------------------------------------------------------------------------

platform::AlertId RecordingAlerts::show(platform::AlertSpec alert) {
    std::lock_guard lock(mutex_);
    const platform::AlertId id = nextId_++;
    alerts_.push_back(Shown{id, std::move(alert), true, std::nullopt});
    return id;
}

void RecordingAlerts::dismiss(platform::AlertId id, int buttonIndex, bool /*animated*/) {
    std::function<void(int)> onDismiss;
    {
        std::lock_guard lock(mutex_);
        const auto it =
            std::find_if(alerts_.begin(), alerts_.end(), [id](const Shown& s) { return s.id == id; });
        if (it == alerts_.end() || !it->visible) {
            return;
        }
        it->visible = false;
        it->dismissedWith = buttonIndex;
        onDismiss = it->alert.onDismiss;
    }
    if (onDismiss) {
        onDismiss(buttonIndex);
    }
}

std::vector<RecordingAlerts::Shown> RecordingAlerts::all() const {
    std::lock_guard lock(mutex_);
    return alerts_;
}

std::vector<RecordingAlerts::Shown> RecordingAlerts::visible() const {
    std::lock_guard lock(mutex_);
    std::vector<Shown> out;
    std::copy_if(alerts_.begin(), alerts_.end(), std::back_inserter(out),
                 [](const Shown& s) { return s.visible; });
    return out;
}

void RecordingAlerts::press(platform::AlertId id, int index) {
    dismiss(id, index, true);
}

// --- log -----------------------------------------------------------------------------------------

void RecordingLog::write(std::string_view line) {
    std::lock_guard lock(mutex_);
    lines_.emplace_back(line);
    if (echo_) {
        std::cerr << line << '\n';
    }
}

std::vector<std::string> RecordingLog::lines() const {
    std::lock_guard lock(mutex_);
    return lines_;
}

bool RecordingLog::contains(std::string_view text) const {
    return count(text) > 0;
}

std::size_t RecordingLog::count(std::string_view text) const {
    std::lock_guard lock(mutex_);
    return static_cast<std::size_t>(
        std::count_if(lines_.begin(), lines_.end(),
                      [text](const std::string& line) { return line.find(text) != std::string::npos; }));
}

void RecordingLog::clear() {
    std::lock_guard lock(mutex_);
    lines_.clear();
}

}  // namespace tovrel::virtualbackend
