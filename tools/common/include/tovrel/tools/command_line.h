#pragma once

#include <CLI/CLI.hpp>
#include <optional>
#include <string>

#include "tovrel/version.h"

namespace tovrel::tools {

/// The exit status of every usage error of Tovrel's programs.
inline constexpr int kUsageError = 2;

/// Adds --version ("<program> 1.2.4") to `app`. Main thread.
inline void addVersionFlag(CLI::App& app, const std::string& program) {
    app.set_version_flag("--version", program + " " + kVersion, "Print the version and exit");
}

/// Parses the command line. nullopt: go on; otherwise the program exits with the value: 0 after --help
/// or --version, kUsageError (with CLI11's message on stderr) for any usage error. Main thread.
inline std::optional<int> parseCommandLine(CLI::App& app, int argc, char** argv) {
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        const int status = app.exit(error);
        return status == 0 ? 0 : kUsageError;
    }
    return std::nullopt;
}

}  // namespace tovrel::tools
