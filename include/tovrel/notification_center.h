#pragma once

#include <any>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tovrel/export.h"

namespace tovrel {

/// One posted notification. `object` is whatever the poster attaches (see notification_names.h for
/// what each name carries); `sender` identifies the poster for observers that filter by sender.
struct TOVREL_EXPORT Notification {
    std::string name;
    std::any object;
    const void* sender = nullptr;
    nlohmann::json userInfo;
};

using ObserverToken = std::uint64_t;
using NotificationHandler = std::function<void(const Notification&)>;

/// An in-process notification centre. post() calls the matching observers synchronously, on the
/// posting thread, in the order in which they were added. Observers may be added or removed from
/// inside a handler; a removed observer is not called again, even within the same post.
class TOVREL_EXPORT NotificationCenter {
  public:
    NotificationCenter() = default;
    NotificationCenter(const NotificationCenter&) = delete;
    NotificationCenter& operator=(const NotificationCenter&) = delete;

    /// Observes `name` (every name when empty) from `sender` (any sender when null).
    ObserverToken addObserver(std::string name, const void* sender, NotificationHandler handler);
    void removeObserver(ObserverToken token);

    void post(const Notification& notification) const;
    void post(std::string name, std::any object = {}, const void* sender = nullptr,
              nlohmann::json userInfo = nullptr) const;

  private:
    struct Observer;
    mutable std::mutex mutex_;
    std::vector<std::shared_ptr<Observer>> observers_;
    ObserverToken nextToken_ = 1;
};

}  // namespace tovrel
