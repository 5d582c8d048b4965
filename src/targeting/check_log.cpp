#include "targeting/check_log.h"

namespace tovrel::targeting {
namespace {

template <typename Record>
std::string arrayText(const std::vector<Record>& records) {
    std::string out = "[";
    for (const Record& record : records) {
        if (out.size() > 1) {
            out += ',';
        }
        writeJson(out, record);
    }
    out += ']';
    return out;
}

}  // namespace

void CheckLog::add(const HistoryRecord& history, TargetRecord target) {
    const platform::Lock lock(mutex_);
    records_.history.push_back(history);
    records_.targets.push_back(std::move(target));
}

void CheckLog::clear() {
    const platform::Lock lock(mutex_);
    records_.history.clear();
    records_.targets.clear();
}

CheckLog::Batch CheckLog::take() {
    Batch out;
    const platform::Lock lock(mutex_);
    out.history.swap(records_.history);
    out.targets.swap(records_.targets);
    return out;
}

void CheckLog::giveBack(Batch emptied) {
    emptied.history.clear();
    emptied.targets.clear();
    const platform::Lock lock(mutex_);
    if (records_.history.empty()) {
        records_.history.swap(emptied.history);
    }
    if (records_.targets.empty()) {
        records_.targets.swap(emptied.targets);
    }
}

nlohmann::json CheckLog::historyJson() const {
    std::vector<HistoryRecord> copy;
    {
        const platform::Lock lock(mutex_);
        copy = records_.history;
    }
    return toJson(copy);
}

nlohmann::json CheckLog::targetsJson() const {
    std::vector<TargetRecord> copy;
    {
        const platform::Lock lock(mutex_);
        copy = records_.targets;
    }
    return toJson(copy);
}

std::string toJsonText(const std::vector<HistoryRecord>& records) {
    return arrayText(records);
}

std::string toJsonText(const std::vector<TargetRecord>& records) {
    return arrayText(records);
}

nlohmann::json toJson(const std::vector<HistoryRecord>& records) {
    return nlohmann::json::parse(arrayText(records));
}

nlohmann::json toJson(const std::vector<TargetRecord>& records) {
    return nlohmann::json::parse(arrayText(records));
}

}  // namespace tovrel::targeting
