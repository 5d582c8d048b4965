#pragma once

#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "tovrel/export.h"
#include "tovrel/platform/alerts.h"
#include "tovrel/platform/log_sink.h"
#include "tovrel/platform/main_loop.h"

namespace tovrel::linuxbackend {

struct TOVREL_EXPORT LogOptions {
    /// The program name in each line ("tovrel-host").
    std::string identity = "tovrel";
    /// Where lines go; stderr when null.
    std::FILE* stream = nullptr;
    /// Also hand every line to syslog(3) (LOG_USER, LOG_INFO).
    bool syslog = false;
};

/// The platform log: one line per write, "2025-06-01T12:00:00.123Z tovrel[4242]: <line>", on stderr (or
/// the given stream), optionally copied to syslog. Thread-safe; lines never interleave.
class TOVREL_EXPORT StreamLogSink final : public platform::LogSink {
  public:
    explicit StreamLogSink(LogOptions options = {});
    ~StreamLogSink() override;
    StreamLogSink(const StreamLogSink&) = delete;
    StreamLogSink& operator=(const StreamLogSink&) = delete;

    /// Any thread. Writes `line` with a UTC timestamp, trailing newlines trimmed.
    void write(std::string_view line) override;

  private:
    LogOptions options_;
    std::mutex mutex_;
};

/// "2025-06-01T12:00:00.123Z" for `secondsSince1970`. Pure.
TOVREL_EXPORT std::string formatLogTimestamp(double secondsSince1970);

/// Alerts for a host without a screen: each alert is written to the log with its buttons, and the host
/// (or an operator through it) answers it with answer(). A real dialog comes with a toolkit backend.
class TOVREL_EXPORT LogAlertPresenter final : public platform::AlertPresenter {
  public:
    struct Shown {
        platform::AlertId id = 0;
        std::optional<std::string> title;
        std::string message;
        std::vector<std::string> buttons;  ///< in index order: the cancel button first, when there is one
    };

    LogAlertPresenter(std::shared_ptr<platform::MainLoop> loop, std::shared_ptr<platform::LogSink> log);

    /// Main thread. Logs the alert and keeps it until it is answered or dismissed; then tells the
    /// show observer.
    platform::AlertId show(platform::AlertSpec alert) override;
    /// Main thread. The alert's onDismiss runs with `buttonIndex`; unknown ids are ignored.
    void dismiss(platform::AlertId id, int buttonIndex, bool animated) override;

    /// Any thread. Presses button `buttonIndex` of alert `id` on the main loop (posted).
    void answer(platform::AlertId id, int buttonIndex);
    /// Any thread. The alerts waiting for an answer, oldest first.
    [[nodiscard]] std::vector<Shown> pending() const;
    /// Any thread. Called on the main thread after each alert is shown (a host may answer from it).
    void setShowObserver(std::function<void(const Shown&)> observer);

  private:
    std::shared_ptr<platform::MainLoop> loop_;
    std::shared_ptr<platform::LogSink> log_;
    mutable std::mutex mutex_;
    std::map<platform::AlertId, std::pair<Shown, std::function<void(int)>>> alerts_;
    platform::AlertId nextId_ = 1;
    std::function<void(const Shown&)> observer_;
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace tovrel::linuxbackend
