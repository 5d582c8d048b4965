#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "targeting/proximity_policy.h"
#include "tovrel/platform/thread_annotations.h"

namespace tovrel::targeting {

/// What the proximity checks record for the diagnostics upload: a targeting record and a nearby-target
/// record for every target a check handles, kept until the next upload takes them. Any thread.
class CheckLog {
  public:
    /// The records of one upload.
    struct Batch {
        std::vector<HistoryRecord> history;
        std::vector<TargetRecord> targets;
    };

    void add(const HistoryRecord& history, TargetRecord target);
    void clear();
    /// Takes every record out, oldest first.
    Batch take();
    /// Hands an emptied batch back, so that its capacity serves the next records (unless checks have
    /// recorded meanwhile).
    void giveBack(Batch emptied);

    /// The records waiting for upload, as they will be sent.
    [[nodiscard]] nlohmann::json historyJson() const;
    [[nodiscard]] nlohmann::json targetsJson() const;

  private:
    mutable platform::Mutex mutex_;
    Batch records_ TOVREL_GUARDED_BY(mutex_);
};

/// The records of a batch as they are sent: the JSON text of an array.
std::string toJsonText(const std::vector<HistoryRecord>& records);
std::string toJsonText(const std::vector<TargetRecord>& records);
/// The same as values.
nlohmann::json toJson(const std::vector<HistoryRecord>& records);
nlohmann::json toJson(const std::vector<TargetRecord>& records);

}  // namespace tovrel::targeting
