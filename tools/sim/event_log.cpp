#include "event_log.h"

#include <cmath>

#include "outcomes.h"

namespace {

/// One event as a line, with "t" and "type" first so that the file reads as a timeline.
std::string line(const nlohmann::json& event) {
    nlohmann::ordered_json ordered;
    ordered["t"] = event["t"];
    ordered["type"] = event["type"];
    for (const auto& [key, value] : event.items()) {
        if (key != "t" && key != "type") {
            ordered[key] = value;
        }
    }
    return ordered.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace

namespace tovrel::sim {

EventLog::EventLog(std::function<double()> secondsSinceStart)
    : secondsSinceStart_(std::move(secondsSinceStart)) {}

void EventLog::record(const std::string& type, nlohmann::json fields) {
    nlohmann::json event = nlohmann::json::object();
    event["t"] = secondsSinceStart();
    event["type"] = type;
    if (fields.is_object()) {
        for (auto& [key, value] : fields.items()) {
            event[key] = std::move(value);
        }
    }
    std::lock_guard lock(mutex_);
    if (stream_ != nullptr) {
        *stream_ << line(event) << '\n';
    }
    if (listener_) {
        listener_(event);
    }
    if (tracker_ != nullptr) {
        tracker_->add(event);
    }
    ++counts_[type];
    if (keep_ && events_.size() < kKeptEvents) {
        events_.push_back(std::move(event));
    } else {
        ++notKept_;
    }
}

EventLog::Counts EventLog::counts() const {
    std::lock_guard lock(mutex_);
    return counts_;
}

std::size_t EventLog::notKept() const {
    std::lock_guard lock(mutex_);
    return notKept_;
}

std::vector<nlohmann::json> EventLog::events() const {
    std::lock_guard lock(mutex_);
    return events_;
}

std::vector<nlohmann::json> EventLog::eventsOfType(const std::string& type) const {
    std::lock_guard lock(mutex_);
    std::vector<nlohmann::json> out;
    for (const auto& event : events_) {
        if (event["type"] == type) {
            out.push_back(event);
        }
    }
    return out;
}

void EventLog::writeJsonLines(std::ostream& out) const {
    std::lock_guard lock(mutex_);
    for (const auto& event : events_) {
        out << line(event) << '\n';
    }
}

void EventLog::setListener(std::function<void(const nlohmann::json&)> listener) {
    std::lock_guard lock(mutex_);
    listener_ = std::move(listener);
}

double EventLog::secondsSinceStart() const {
    // Millisecond resolution keeps the lines short and the runs comparable.
    return std::round(secondsSinceStart_() * 1000.0) / 1000.0;
}

void EventLog::setKeep(bool keep) {
    std::lock_guard lock(mutex_);
    keep_ = keep;
}

void EventLog::setTracker(OutcomeTracker* tracker) {
    std::lock_guard lock(mutex_);
    tracker_ = tracker;
}

bool EventLog::wantsEvents() const {
    std::lock_guard lock(mutex_);
    return keep_ || stream_ != nullptr || listener_;
}

void EventLog::count(const std::string& type) {
    std::lock_guard lock(mutex_);
    ++counts_[type];
}

void EventLog::setStream(std::ostream* stream) {
    std::lock_guard lock(mutex_);
    stream_ = stream;
}

}  // namespace tovrel::sim
