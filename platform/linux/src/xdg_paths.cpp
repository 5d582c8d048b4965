#include "tovrel/linux/xdg_paths.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

namespace tovrel::linuxbackend {

std::filesystem::path xdgDataHome() {
    if (const char* data = std::getenv("XDG_DATA_HOME"); data != nullptr && data[0] == '/') {
        return data;
    }
    std::filesystem::path home;
    if (const char* value = std::getenv("HOME"); value != nullptr && value[0] != '\0') {
        home = value;
    } else {
        std::vector<char> buffer(16384);
        passwd entry{};
        passwd* found = nullptr;
        if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found != nullptr &&
            found->pw_dir != nullptr) {
            home = found->pw_dir;
        } else {
            home = "/tmp";
        }
    }
    return home / ".local" / "share";
}

std::filesystem::path applicationDataDirectory(std::string_view applicationId) {
    std::string name(applicationId.empty() ? std::string_view("default") : applicationId);
    for (char& c : name) {
        if (c == '/' || c == '\0') {
            c = '_';
        }
    }
    if (name.front() == '.') {
        name.front() = '_';
    }
    return xdgDataHome() / "tovrel" / name;
}

}  // namespace tovrel::linuxbackend
