#pragma once

#include <string>
#include <string_view>

#include "foundation/format.h"
#include "tovrel/platform/log_sink.h"

namespace tovrel {

/// The readable name of a function from __PRETTY_FUNCTION__: "SessionManager::startSession".
std::string functionName(std::string_view prettyFunction);

/// Writes "<function> [Line <line>] <message>".
void logLine(platform::LogSink& sink, std::string_view function, int line, std::string_view message);

}  // namespace tovrel

/// Logs a printf-style message with the calling function's name and source line.
#define TOVREL_LOG(sink, ...)                                                        \
    ::tovrel::logLine((sink), ::tovrel::functionName(__PRETTY_FUNCTION__), __LINE__, \
                      ::tovrel::strprintf(__VA_ARGS__))
