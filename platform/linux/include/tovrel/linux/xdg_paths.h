#pragma once

#include <filesystem>
#include <string_view>

#include "tovrel/export.h"

namespace tovrel::linuxbackend {

/// The user's data directory: $XDG_DATA_HOME when set to an absolute path, else ~/.local/share (the
/// home directory from $HOME, else the password database). Any thread.
TOVREL_EXPORT std::filesystem::path xdgDataHome();

/// Where one application keeps its files: <data home>/tovrel/<application id>. Characters that cannot
/// appear in a file name ('/', NUL) and a leading '.' are replaced by '_'. Any thread.
TOVREL_EXPORT std::filesystem::path applicationDataDirectory(std::string_view applicationId);

}  // namespace tovrel::linuxbackend
