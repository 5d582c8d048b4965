#include "tovrel/linux/log_alerts.h"

#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <ctime>

#include "tovrel/platform/thread_check.h"

namespace tovrel::linuxbackend {

std::string formatLogTimestamp(double secondsSince1970) {
    auto whole = static_cast<std::time_t>(std::floor(secondsSince1970));
    auto millis = static_cast<int>(std::lround((secondsSince1970 - static_cast<double>(whole)) * 1000.0));
    if (millis >= 1000) {
        whole += 1;
        millis -= 1000;
    }
    std::tm utc{};
    ::gmtime_r(&whole, &utc);
    char text[40];
    const std::size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc);
    char out[64];
    std::snprintf(out, sizeof out, "%.*s.%03dZ", static_cast<int>(length), text, millis);
    return out;
}

StreamLogSink::StreamLogSink(LogOptions options) : options_(std::move(options)) {
    if (options_.syslog) {
        ::openlog(options_.identity.c_str(), LOG_PID, LOG_USER);
    }
}

StreamLogSink::~StreamLogSink() {
    if (options_.syslog) {
        ::closelog();
    }
}

void StreamLogSink::write(std::string_view line) {
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) {
        line.remove_suffix(1);
    }
    const double now =
        std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
    const std::string stamp = formatLogTimestamp(now);
    std::lock_guard lock(mutex_);
    std::FILE* stream = options_.stream != nullptr ? options_.stream : stderr;
    std::fprintf(stream, "%s %s[%d]: %.*s\n", stamp.c_str(), options_.identity.c_str(),
                 static_cast<int>(::getpid()), static_cast<int>(line.size()), line.data());
    std::fflush(stream);
    if (options_.syslog) {
        ::syslog(LOG_INFO, "%.*s", static_cast<int>(line.size()), line.data());
    }
}

LogAlertPresenter::LogAlertPresenter(std::shared_ptr<platform::MainLoop> loop,
                                     std::shared_ptr<platform::LogSink> log)
    : loop_(std::move(loop)), log_(std::move(log)) {}

platform::AlertId LogAlertPresenter::show(platform::AlertSpec alert) {
    TOVREL_ASSERT_MAIN_THREAD(*loop_);
    Shown shown;
    shown.title = alert.title;
    shown.message = alert.message;
    if (alert.cancelButtonTitle) {
        shown.buttons.push_back(*alert.cancelButtonTitle);
    }
    shown.buttons.insert(shown.buttons.end(), alert.otherButtonTitles.begin(), alert.otherButtonTitles.end());
    std::function<void(const Shown&)> observer;
    {
        std::lock_guard lock(mutex_);
        shown.id = nextId_++;
        alerts_.emplace(shown.id, std::make_pair(shown, std::move(alert.onDismiss)));
        observer = observer_;
    }
    std::string line = "Alert " + std::to_string(shown.id) + ": ";
    if (shown.title) {
        line += "[" + *shown.title + "] ";
    }
    line += shown.message;
    for (std::size_t i = 0; i < shown.buttons.size(); ++i) {
        line += (i == 0 ? " | buttons: " : ", ") + std::to_string(i) + "=" + shown.buttons[i];
    }
    if (log_) {
        log_->write(line);
    }
    if (observer) {
        observer(shown);
    }
    return shown.id;
}

void LogAlertPresenter::dismiss(platform::AlertId id, int buttonIndex, bool /*animated*/) {
    TOVREL_ASSERT_MAIN_THREAD(*loop_);
    std::function<void(int)> onDismiss;
    {
        std::lock_guard lock(mutex_);
        const auto it = alerts_.find(id);
        if (it == alerts_.end()) {
            return;
        }
        onDismiss = std::move(it->second.second);
        alerts_.erase(it);
    }
    if (log_) {
        log_->write("Alert " + std::to_string(id) + " answered with button " + std::to_string(buttonIndex));
    }
    if (onDismiss) {
        onDismiss(buttonIndex);
    }
}

void LogAlertPresenter::answer(platform::AlertId id, int buttonIndex) {
    loop_->post([this, alive = std::weak_ptr<bool>(alive_), id, buttonIndex] {
        if (alive.lock()) {
            dismiss(id, buttonIndex, false);
        }
    });
}

std::vector<LogAlertPresenter::Shown> LogAlertPresenter::pending() const {
    std::lock_guard lock(mutex_);
    std::vector<Shown> out;
    for (const auto& [id, entry] : alerts_) {
        out.push_back(entry.first);
    }
    return out;
}

void LogAlertPresenter::setShowObserver(std::function<void(const Shown&)> observer) {
    std::lock_guard lock(mutex_);
    observer_ = std::move(observer);
}

}  // namespace tovrel::linuxbackend
