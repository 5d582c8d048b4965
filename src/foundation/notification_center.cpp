#include "tovrel/notification_center.h"

#include <algorithm>
#include <atomic>

namespace tovrel {

struct NotificationCenter::Observer {
    ObserverToken token;
    std::string name;
    const void* sender;
    NotificationHandler handler;
    std::atomic<bool> active{true};
};

ObserverToken NotificationCenter::addObserver(std::string name, const void* sender,
                                              NotificationHandler handler) {
    std::lock_guard lock(mutex_);
    auto observer = std::make_shared<Observer>();
    observer->token = nextToken_++;
    observer->name = std::move(name);
    observer->sender = sender;
    observer->handler = std::move(handler);
    observers_.push_back(observer);
    return observer->token;
}

void NotificationCenter::removeObserver(ObserverToken token) {
    std::lock_guard lock(mutex_);
    const auto it = std::find_if(observers_.begin(), observers_.end(),
                                 [token](const auto& observer) { return observer->token == token; });
    if (it != observers_.end()) {
        (*it)->active = false;
        observers_.erase(it);
    }
}

void NotificationCenter::post(const Notification& notification) const {
    std::vector<std::shared_ptr<Observer>> matching;
    {
        std::lock_guard lock(mutex_);
        for (const auto& observer : observers_) {
            if ((observer->name.empty() || observer->name == notification.name) &&
                (observer->sender == nullptr || observer->sender == notification.sender)) {
                matching.push_back(observer);
            }
        }
    }
    for (const auto& observer : matching) {
        if (observer->active) {
            observer->handler(notification);
        }
    }
}

void NotificationCenter::post(std::string name, std::any object, const void* sender,
                              nlohmann::json userInfo) const {
    post(Notification{std::move(name), std::move(object), sender, std::move(userInfo)});
}

}  // namespace tovrel
