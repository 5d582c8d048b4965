#pragma once

#include <deque>
#include <map>
#include <memory>
#include <string>

namespace tovrel::platform {

/// Views set aside for reuse (table cells, map pins), by reuse identifier, handed out oldest first.
/// Main thread only.
template <class View>
class ReusePool {
  public:
    /// Main thread. Sets `view` aside under `identifier`.
    void put(const std::string& identifier, std::shared_ptr<View> view) {
        queues_[identifier].push_back(std::move(view));
    }
    /// The oldest view set aside under `identifier`, or null.
    std::shared_ptr<View> take(const std::string& identifier) {
        const auto it = queues_.find(identifier);
        if (it == queues_.end() || it->second.empty()) {
            return nullptr;
        }
        auto view = std::move(it->second.front());
        it->second.pop_front();
        return view;
    }

  private:
    std::map<std::string, std::deque<std::shared_ptr<View>>> queues_;
};

}  // namespace tovrel::platform
