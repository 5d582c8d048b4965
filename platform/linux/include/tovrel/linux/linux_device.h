#pragma once

#include <filesystem>
#include <mutex>
#include <string>

#include "tovrel/export.h"
#include "tovrel/platform/device.h"

namespace tovrel::linuxbackend {

struct TOVREL_EXPORT LinuxDeviceOptions {
    std::string applicationId = "org.tovrel.host";
    /// Where the identifier's salt is kept; empty: applicationDataDirectory(applicationId).
    std::filesystem::path dataDirectory{};
    /// The machine's identity; empty: /etc/machine-id, then /var/lib/dbus/machine-id.
    std::filesystem::path machineIdFile{};
    /// DMI product name; empty: /sys/class/dmi/id/product_name.
    std::filesystem::path productNameFile{};
    /// Overrides the kernel release as the system version (empty: uname's release).
    std::string systemVersion{};
    /// False: the user limited ad tracking, and advertisingIdentifier() is empty.
    bool advertisingIdentifierEnabled = true;
};

/// The device as Linux describes it. The advertising identifier is a name-based (SHA-1, version 5)
/// UUID over the machine id, the application id and a stored salt, so it is stable for one
/// application on one machine, differs between applications, and changes when reset.
class TOVREL_EXPORT LinuxDevice final : public platform::Device {
  public:
    explicit LinuxDevice(LinuxDeviceOptions options = {});

    /// Any thread. DMI product name, or "Linux" when the machine does not say.
    [[nodiscard]] std::string model() const override;
    /// Any thread. "Linux".
    [[nodiscard]] std::string systemName() const override;
    /// Any thread. The kernel release ("6.1.0-18-amd64") unless overridden.
    [[nodiscard]] std::string systemVersion() const override;
    /// Any thread. 36 upper-case characters, or "" when disabled or no identity can be had.
    [[nodiscard]] std::string advertisingIdentifier() const override;

    /// Any thread. Stores a new random salt: later calls answer a new identifier.
    void resetAdvertisingIdentifier();

  private:
    [[nodiscard]] std::string readOrCreateSalt() const;

    LinuxDeviceOptions options_;
    std::filesystem::path saltFile_;
    mutable std::mutex mutex_;
};

/// A version-5 UUID (upper case, 8-4-4-4-12) for `name` in this backend's namespace. Pure.
TOVREL_EXPORT std::string nameBasedIdentifier(const std::string& name);

}  // namespace tovrel::linuxbackend
