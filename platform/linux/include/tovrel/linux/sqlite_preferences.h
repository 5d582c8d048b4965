#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "tovrel/export.h"
#include "tovrel/platform/preferences.h"

namespace tovrel::linuxbackend {

/// How hard a committed write is pushed to the disk.
enum class PreferencesDurability {
    /// synchronous=FULL: the write-ahead log is synced at every commit, so a committed value survives a
    /// power cut as well as a killed process. The default: preferences change a few times a minute at
    /// most, and devices in vehicles and kiosks lose power without warning.
    kPowerLoss,
    /// synchronous=NORMAL: a committed value survives the process being killed at any moment, but the
    /// last commits may roll back after a power cut. For hosts that write often on slow flash.
    kProcessCrash,
};

struct TOVREL_EXPORT SqlitePreferencesOptions {
    PreferencesDurability durability = PreferencesDurability::kPowerLoss;
    /// How long a write waits for another process holding the database.
    int busyTimeoutMilliseconds = 5000;
    /// Receives a sentence for each write or read that failed (disk full, corrupt file); any thread.
    std::function<void(const std::string&)> onError;
};

/// The preferences store in an SQLite database (write-ahead log), one row per key with the value as
/// JSON text. Each setObject/removeObject is one committed transaction when it returns. Thread-safe.
class TOVREL_EXPORT SqlitePreferences final : public platform::PreferencesStore {
  public:
    /// Any thread. Opens or creates the database at `file`, creating its directory (mode 0700).
    /// Throws std::runtime_error when the file cannot be opened or set up.
    explicit SqlitePreferences(const std::filesystem::path& file, SqlitePreferencesOptions options = {});
    ~SqlitePreferences() override;
    SqlitePreferences(const SqlitePreferences&) = delete;
    SqlitePreferences& operator=(const SqlitePreferences&) = delete;

    /// The usual place: applicationDataDirectory(applicationId)/preferences.sqlite.
    static std::filesystem::path defaultFile(std::string_view applicationId);

    /// Any thread. The stored value, or nullopt when absent or unreadable.
    [[nodiscard]] std::optional<nlohmann::json> objectForKey(std::string_view key) const override;
    /// Any thread. Replaces the value; committed when this returns (failures go to onError).
    void setObject(std::string_view key, const nlohmann::json& value) override;
    /// Any thread. Committed when this returns.
    void removeObject(std::string_view key) override;

    /// Any thread. Every key, sorted.
    [[nodiscard]] std::vector<std::string> keys() const;
    [[nodiscard]] const std::filesystem::path& file() const { return file_; }

    class Impl;

  private:
    std::filesystem::path file_;
    std::unique_ptr<Impl> impl_;
};

}  // namespace tovrel::linuxbackend
