#include "tovrel/linux/linux_device.h"

#include <sys/utsname.h>
#include <uuid/uuid.h>

#include <array>
#include <fstream>
#include <sstream>

#include "tovrel/linux/xdg_paths.h"

namespace tovrel::linuxbackend {
namespace {

// The namespace of this backend's name-based identifiers (itself a random UUID, fixed forever).
constexpr std::array<unsigned char, 16> kIdentifierNamespace = {
    0x5b, 0x0e, 0x8a, 0x3c, 0x71, 0x2d, 0x4f, 0x96, 0xa4, 0x1b, 0xc2, 0x6e, 0x90, 0x57, 0xd8, 0x13};

std::string firstLine(const std::filesystem::path& file) {
    std::ifstream in(file);
    std::string line;
    std::getline(in, line);
    while (!line.empty() &&
           (line.back() == '\n' || line.back() == '\r' || line.back() == ' ' || line.back() == '\t')) {
        line.pop_back();
    }
    return line;
}

std::string randomToken() {
    uuid_t value;
    uuid_generate_random(value);
    std::array<char, 37> text{};
    uuid_unparse_lower(value, text.data());
    return text.data();
}

}  // namespace

std::string nameBasedIdentifier(const std::string& name) {
    uuid_t space;
    std::copy(kIdentifierNamespace.begin(), kIdentifierNamespace.end(), space);
    uuid_t out;
    uuid_generate_sha1(out, space, name.data(), name.size());
    std::array<char, 37> text{};
    uuid_unparse_upper(out, text.data());
    return text.data();
}

LinuxDevice::LinuxDevice(LinuxDeviceOptions options) : options_(std::move(options)) {
    const auto directory = options_.dataDirectory.empty() ? applicationDataDirectory(options_.applicationId)
                                                          : options_.dataDirectory;
    saltFile_ = directory / "advertising-salt";
}

std::string LinuxDevice::model() const {
    const auto file = options_.productNameFile.empty()
                          ? std::filesystem::path("/sys/class/dmi/id/product_name")
                          : options_.productNameFile;
    std::string name = firstLine(file);
    return name.empty() ? "Linux" : name;
}

std::string LinuxDevice::systemName() const {
    return "Linux";
}

std::string LinuxDevice::systemVersion() const {
    if (!options_.systemVersion.empty()) {
        return options_.systemVersion;
    }
    utsname info{};
    if (::uname(&info) != 0) {
        return "";
    }
    return info.release;
}

std::string LinuxDevice::advertisingIdentifier() const {
    if (!options_.advertisingIdentifierEnabled) {
        return "";
    }
    std::string machine;
    if (!options_.machineIdFile.empty()) {
        machine = firstLine(options_.machineIdFile);
    } else {
        machine = firstLine("/etc/machine-id");
        if (machine.empty()) {
            machine = firstLine("/var/lib/dbus/machine-id");
        }
    }
    std::lock_guard lock(mutex_);
    const std::string salt = readOrCreateSalt();
    if (machine.empty() && salt.empty()) {
        return "";
    }
    return nameBasedIdentifier(machine + "\n" + options_.applicationId + "\n" + salt);
}

void LinuxDevice::resetAdvertisingIdentifier() {
    std::lock_guard lock(mutex_);
    std::error_code ignored;
    std::filesystem::create_directories(saltFile_.parent_path(), ignored);
    const auto temporary = saltFile_.string() + ".new";
    {
        std::ofstream out(temporary, std::ios::trunc);
        out << randomToken() << '\n';
    }
    std::filesystem::rename(temporary, saltFile_, ignored);
}

std::string LinuxDevice::readOrCreateSalt() const {
    std::string salt = firstLine(saltFile_);
    if (!salt.empty()) {
        return salt;
    }
    // The first identifier of a machine uses a fresh salt too, so an identifier can never be
    // recomputed from the machine id alone.
    std::error_code ignored;
    std::filesystem::create_directories(saltFile_.parent_path(), ignored);
    salt = randomToken();
    const auto temporary = saltFile_.string() + ".new";
    {
        std::ofstream out(temporary, std::ios::trunc);
        out << salt << '\n';
        if (!out) {
            return "";
        }
    }
    std::filesystem::rename(temporary, saltFile_, ignored);
    return firstLine(saltFile_);
}

}  // namespace tovrel::linuxbackend
