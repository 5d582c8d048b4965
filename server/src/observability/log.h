#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace tovrel::server {

/// How much the server says, least to most severe; `off` says nothing.
enum class LogLevel { debug, info, warn, error, off };

/// "debug", "info", "warn", "error" or "off"; nullopt for anything else. Pure.
std::optional<LogLevel> parseLogLevel(std::string_view text);

/// One structured log line: a JSON object with "time" (UTC, milliseconds), "level", "event" and the
/// members added. Values from requests may hold any bytes: text that is not UTF-8 is replaced, so a
/// line is always valid JSON. Not thread-safe; build one per line.
class LogLine {
  public:
    LogLine(LogLevel level, std::string_view event, double unixSeconds);
    LogLine& add(std::string_view name, std::string_view value);
    LogLine& add(std::string_view name, const char* value) { return add(name, std::string_view(value)); }
    LogLine& add(std::string_view name, const std::string& value) {
        return add(name, std::string_view(value));
    }
    LogLine& add(std::string_view name, std::int64_t value);
    LogLine& add(std::string_view name, int value) { return add(name, static_cast<std::int64_t>(value)); }
    LogLine& add(std::string_view name, std::uint64_t value);
    LogLine& add(std::string_view name, double value);
    LogLine& add(std::string_view name, bool value);
    /// The line with its closing brace and newline.
    std::string finish() &&;

  private:
    void key(std::string_view name);
    std::string text_;
};

/// Where the server's log lines go, with the least level written. The default writes nothing (an
/// embedded server stays quiet). Thread-safe: lines from several threads never interleave.
class Logger {
  public:
    using Sink = std::function<void(std::string_view line)>;

    Logger() = default;
    Logger(LogLevel level, Sink sink, bool accessLog);

    /// True when a line of this level would be written. Any thread.
    bool enabled(LogLevel level) const { return sink_ && level >= level_ && level != LogLevel::off; }
    /// True when each request is logged (the access log). Any thread.
    bool accessLog() const { return accessLog_ && enabled(LogLevel::info); }
    /// Starts a line of this level now. Any thread.
    LogLine line(LogLevel level, std::string_view event) const;
    /// Writes a line unless its level is below the least. Any thread.
    void write(LogLevel level, LogLine&& line) const;
    void write(LogLevel level, LogLine& line) const { write(level, std::move(line)); }

    /// A sink writing each line to a file descriptor with one write(2), for stdout or stderr.
    static Sink descriptorSink(int fd);

  private:
    LogLevel level_ = LogLevel::off;
    Sink sink_;
    bool accessLog_ = false;
};

}  // namespace tovrel::server
