#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <ostream>
#include <string>
#include <vector>

namespace tovrel::sim {

class OutcomeTracker;

/// Everything observable in one run, in order: {"t": seconds since start, "type": ..., fields...}.
/// Every event goes to the stream and the listener; memory keeps the first kKeptEvents (the report's
/// and the summary's material) and a count of every type, so a long run stays bounded.
class EventLog {
  public:
    static constexpr std::size_t kKeptEvents = 100'000;
    using Counts = std::map<std::string, std::size_t>;

    explicit EventLog(std::function<double()> secondsSinceStart);

    /// Any thread.
    void record(const std::string& type, nlohmann::json fields = nlohmann::json::object());
    /// A copy of the events kept so far.
    [[nodiscard]] std::vector<nlohmann::json> events() const;
    /// How many events of each type were recorded (kept or not).
    [[nodiscard]] Counts counts() const;
    /// Events recorded beyond kKeptEvents.
    [[nodiscard]] std::size_t notKept() const;
    /// Events of one type.
    [[nodiscard]] std::vector<nlohmann::json> eventsOfType(const std::string& type) const;
    /// One JSON object a line.
    void writeJsonLines(std::ostream& out) const;
    /// Every recorded event is also written here at once (nullptr: none).
    void setStream(std::ostream* stream);
    /// Called with every recorded event, on the recording thread (empty: none).
    void setListener(std::function<void(const nlohmann::json&)> listener);
    /// Whether memory keeps events (the default); without, only the counts are kept.
    void setKeep(bool keep);
    /// Every recorded event is also handed to `tracker` (nullptr: none); it is not a reason to record.
    void setTracker(OutcomeTracker* tracker);
    [[nodiscard]] OutcomeTracker* tracker() const { return tracker_; }
    /// Whether anything (memory, the stream, the listener) takes whole events; when not, a recorder
    /// may count() an event of a type the tracker does not need instead of making it.
    [[nodiscard]] bool wantsEvents() const;
    /// The time an event recorded now is stamped with.
    [[nodiscard]] double secondsSinceStart() const;
    /// Counts one event of `type` without recording it.
    void count(const std::string& type);

  private:
    std::function<double()> secondsSinceStart_;
    mutable std::mutex mutex_;
    std::vector<nlohmann::json> events_;
    Counts counts_;
    std::size_t notKept_ = 0;
    std::ostream* stream_ = nullptr;
    std::function<void(const nlohmann::json&)> listener_;
    bool keep_ = true;
    OutcomeTracker* tracker_ = nullptr;
};

}  // namespace tovrel::sim
