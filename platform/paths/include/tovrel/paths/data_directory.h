#pragma once

#include <dlfcn.h>

#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace tovrel::paths {

/// The file (program or shared library) that holds the code at `address`; empty when unknown.
/// Any thread.
inline std::filesystem::path moduleHolding(const void* address) {
    Dl_info info{};
    if (dladdr(address, &info) == 0 || info.dli_fname == nullptr) {
        return {};
    }
    std::error_code error;
    auto path = std::filesystem::canonical(info.dli_fname, error);
    return error ? std::filesystem::path(info.dli_fname) : path;
}

/// The folder of the data that Tovrel installs under share/tovrel (places, routes, content pages, the
/// resource bundle): $TOVREL_DATA_DIR when set, else the nearest share/tovrel found going up from the
/// program or library that calls this (<prefix>/bin, <prefix>/lib/<arch> and the build tree, which
/// mirrors the layout). Empty when there is none. Nothing is compiled in, so an installed tree can be
/// moved. Any thread.
inline std::filesystem::path dataDirectory() {
    if (const char* fromEnvironment = std::getenv("TOVREL_DATA_DIR");
        fromEnvironment != nullptr && *fromEnvironment) {
        return fromEnvironment;
    }
    // The address of this inline function lies in the caller's own module.
    auto directory = moduleHolding(reinterpret_cast<const void*>(&dataDirectory)).parent_path();
    for (int up = 0; up < 4 && !directory.empty(); ++up) {
        std::error_code error;
        if (const auto candidate = directory / "share" / "tovrel";
            std::filesystem::is_directory(candidate, error)) {
            return candidate;
        }
        if (directory == directory.parent_path()) {
            break;
        }
        directory = directory.parent_path();
    }
    return {};
}

}  // namespace tovrel::paths
