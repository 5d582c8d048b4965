#include "observability/log.h"

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <ctime>
#include <mutex>
#include <nlohmann/json.hpp>

namespace tovrel::server {

namespace {

constexpr const char* kLevelNames[] = {"debug", "info", "warn", "error", "off"};

void appendTime(std::string& out, double unixSeconds) {
    const auto whole = static_cast<std::time_t>(std::floor(unixSeconds));
    const int millis =
        std::clamp(static_cast<int>((unixSeconds - static_cast<double>(whole)) * 1000), 0, 999);
    std::tm utc{};
    gmtime_r(&whole, &utc);
    char text[40];
    const int n = std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", utc.tm_year + 1900,
                                utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec, millis);
    out.append(text, static_cast<std::size_t>(std::max(0, n)));
}

void appendString(std::string& out, std::string_view value) {
    out += nlohmann::json(std::string(value)).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace

std::optional<LogLevel> parseLogLevel(std::string_view text) {
    for (int i = 0; i <= static_cast<int>(LogLevel::off); ++i) {
        if (text == kLevelNames[i]) {
            return static_cast<LogLevel>(i);
        }
    }
    return std::nullopt;
}

LogLine::LogLine(LogLevel level, std::string_view event, double unixSeconds) {
    text_.reserve(160);
    text_ += "{\"time\":\"";
    appendTime(text_, unixSeconds);
    text_ += "\",\"level\":\"";
    text_ += kLevelNames[static_cast<int>(level)];
    text_ += "\",\"event\":";
    appendString(text_, event);
}

void LogLine::key(std::string_view name) {
    text_ += ',';
    appendString(text_, name);
    text_ += ':';
}

LogLine& LogLine::add(std::string_view name, std::string_view value) {
    key(name);
    appendString(text_, value);
    return *this;
}

LogLine& LogLine::add(std::string_view name, std::int64_t value) {
    key(name);
    text_ += std::to_string(value);
    return *this;
}

LogLine& LogLine::add(std::string_view name, std::uint64_t value) {
    key(name);
    text_ += std::to_string(value);
    return *this;
}

LogLine& LogLine::add(std::string_view name, double value) {
    key(name);
    text_ += std::isfinite(value) ? nlohmann::json(value).dump() : "null";
    return *this;
}

LogLine& LogLine::add(std::string_view name, bool value) {
    key(name);
    text_ += value ? "true" : "false";
    return *this;
}

std::string LogLine::finish() && {
    text_ += "}\n";
    return std::move(text_);
}

Logger::Logger(LogLevel level, Sink sink, bool accessLog)
    : level_(level), sink_(std::move(sink)), accessLog_(accessLog) {}

LogLine Logger::line(LogLevel level, std::string_view event) const {
    using namespace std::chrono;
    return LogLine(level, event, duration<double>(system_clock::now().time_since_epoch()).count());
}

void Logger::write(LogLevel level, LogLine&& line) const {
    if (enabled(level)) {
        const std::string text = std::move(line).finish();
        sink_(text);
    }
}

Logger::Sink Logger::descriptorSink(int fd) {
    auto mutex = std::make_shared<std::mutex>();
    return [fd, mutex](std::string_view line) {
        std::lock_guard lock(*mutex);
        while (!line.empty()) {
            const ssize_t n = ::write(fd, line.data(), line.size());
            if (n < 0 && errno == EINTR) {
                continue;
            }
            if (n <= 0) {
                return;
            }
            line.remove_prefix(static_cast<std::size_t>(n));
        }
    };
}

}  // namespace tovrel::server
