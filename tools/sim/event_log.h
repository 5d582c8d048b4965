#pragma once

#include <functional>
#include <mutex>
#include <nlohmann/json.hpp>
#include <ostream>
#include <string>
#include <vector>

namespace tovrel::sim {

/// Everything observable in one run, in order: {"t": seconds since start, "type": ..., fields...}.
class EventLog {
  public:
    explicit EventLog(std::function<double()> secondsSinceStart);

    /// Any thread.
    void record(const std::string& type, nlohmann::json fields = nlohmann::json::object());
    /// A copy of the events so far.
    [[nodiscard]] std::vector<nlohmann::json> events() const;
    /// Events of one type.
    [[nodiscard]] std::vector<nlohmann::json> eventsOfType(const std::string& type) const;
    /// One JSON object a line.
    void writeJsonLines(std::ostream& out) const;
    /// Every recorded event is also written here at once (nullptr: none).
    void setStream(std::ostream* stream);
    /// Called with every recorded event, on the recording thread (empty: none).
    void setListener(std::function<void(const nlohmann::json&)> listener);

  private:
    std::function<double()> secondsSinceStart_;
    mutable std::mutex mutex_;
    std::vector<nlohmann::json> events_;
    std::ostream* stream_ = nullptr;
    std::function<void(const nlohmann::json&)> listener_;
};

}  // namespace tovrel::sim
