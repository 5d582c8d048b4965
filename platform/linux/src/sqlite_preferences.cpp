#include "tovrel/linux/sqlite_preferences.h"

#include <sqlite3.h>

#include <mutex>
#include <stdexcept>
#include <system_error>

#include "tovrel/linux/xdg_paths.h"
#include "tovrel/platform/json_text.h"

namespace tovrel::linuxbackend {
namespace {

struct StatementDeleter {
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using Statement = std::unique_ptr<sqlite3_stmt, StatementDeleter>;

}  // namespace

class SqlitePreferences::Impl {
  public:
    Impl(const std::filesystem::path& file, SqlitePreferencesOptions options) : options_(std::move(options)) {
        std::error_code ignored;
        if (file.has_parent_path() && !std::filesystem::exists(file.parent_path(), ignored)) {
            std::filesystem::create_directories(file.parent_path(), ignored);
            std::filesystem::permissions(file.parent_path(), std::filesystem::perms::owner_all,
                                         std::filesystem::perm_options::replace, ignored);
        }
        const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX;
        if (sqlite3_open_v2(file.c_str(), &db_, flags, nullptr) != SQLITE_OK) {
            const std::string message = db_ != nullptr ? sqlite3_errmsg(db_) : "out of memory";
            sqlite3_close(db_);
            throw std::runtime_error("cannot open preferences at " + file.string() + ": " + message);
        }
        sqlite3_busy_timeout(db_, options_.busyTimeoutMilliseconds);
        const char* synchronous = options_.durability == PreferencesDurability::kPowerLoss
                                      ? "PRAGMA synchronous=FULL;"
                                      : "PRAGMA synchronous=NORMAL;";
        try {
            exec("PRAGMA journal_mode=WAL;", file);
            exec(synchronous, file);
            exec(
                "CREATE TABLE IF NOT EXISTS preferences (key TEXT PRIMARY KEY NOT NULL, value TEXT NOT NULL) "
                "WITHOUT ROWID;",
                file);
            select_ = prepare("SELECT value FROM preferences WHERE key = ?1;", file);
            upsert_ = prepare(
                "INSERT INTO preferences (key, value) VALUES (?1, ?2) "
                "ON CONFLICT(key) DO UPDATE SET value = excluded.value;",
                file);
            delete_ = prepare("DELETE FROM preferences WHERE key = ?1;", file);
            keys_ = prepare("SELECT key FROM preferences ORDER BY key;", file);
        } catch (...) {
            select_.reset();
            upsert_.reset();
            delete_.reset();
            keys_.reset();
            sqlite3_close(db_);
            throw;
        }
    }

    ~Impl() {
        select_.reset();
        upsert_.reset();
        delete_.reset();
        keys_.reset();
        sqlite3_close(db_);
    }
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    std::optional<nlohmann::json> read(std::string_view key) {
        std::lock_guard lock(mutex_);
        sqlite3_stmt* statement = select_.get();
        sqlite3_reset(statement);
        sqlite3_bind_text(statement, 1, key.data(), static_cast<int>(key.size()), SQLITE_TRANSIENT);
        const int step = sqlite3_step(statement);
        std::optional<nlohmann::json> result;
        if (step == SQLITE_ROW) {
            const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement, 0));
            const int length = sqlite3_column_bytes(statement, 0);
            auto parsed = platform::parseJsonText(std::string_view(text, static_cast<std::size_t>(length)));
            if (!parsed.ok()) {
                report("the stored value of \"" + std::string(key) + "\" is not usable JSON (" +
                       parsed.error + ")");
            } else {
                result = std::move(parsed.value);
            }
        } else if (step != SQLITE_DONE) {
            report("reading \"" + std::string(key) + "\" failed: " + sqlite3_errmsg(db_));
        }
        sqlite3_reset(statement);
        sqlite3_clear_bindings(statement);
        return result;
    }

    void write(std::string_view key, const std::string* value) {
        std::lock_guard lock(mutex_);
        sqlite3_stmt* statement = value != nullptr ? upsert_.get() : delete_.get();
        sqlite3_reset(statement);
        sqlite3_bind_text(statement, 1, key.data(), static_cast<int>(key.size()), SQLITE_TRANSIENT);
        if (value != nullptr) {
            sqlite3_bind_text(statement, 2, value->data(), static_cast<int>(value->size()), SQLITE_TRANSIENT);
        }
        if (sqlite3_step(statement) != SQLITE_DONE) {
            report(std::string(value != nullptr ? "storing" : "removing") + " \"" + std::string(key) +
                   "\" failed: " + sqlite3_errmsg(db_));
        }
        sqlite3_reset(statement);
        sqlite3_clear_bindings(statement);
    }

    std::vector<std::string> allKeys() {
        std::lock_guard lock(mutex_);
        std::vector<std::string> out;
        sqlite3_stmt* statement = keys_.get();
        sqlite3_reset(statement);
        while (sqlite3_step(statement) == SQLITE_ROW) {
            out.emplace_back(reinterpret_cast<const char*>(sqlite3_column_text(statement, 0)),
                             static_cast<std::size_t>(sqlite3_column_bytes(statement, 0)));
        }
        sqlite3_reset(statement);
        return out;
    }

  private:
    void exec(const char* sql, const std::filesystem::path& file) {
        char* error = nullptr;
        if (sqlite3_exec(db_, sql, nullptr, nullptr, &error) != SQLITE_OK) {
            const std::string message = error != nullptr ? error : sqlite3_errmsg(db_);
            sqlite3_free(error);
            throw std::runtime_error("cannot set up preferences at " + file.string() + ": " + message);
        }
    }

    Statement prepare(const char* sql, const std::filesystem::path& file) {
        sqlite3_stmt* statement = nullptr;
        if (sqlite3_prepare_v3(db_, sql, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr) != SQLITE_OK) {
            throw std::runtime_error("cannot set up preferences at " + file.string() + ": " +
                                     sqlite3_errmsg(db_));
        }
        return Statement(statement);
    }

    void report(const std::string& message) const {
        if (options_.onError) {
            options_.onError("preferences: " + message);
        }
    }

    SqlitePreferencesOptions options_;
    sqlite3* db_ = nullptr;
    std::mutex mutex_;
    Statement select_;
    Statement upsert_;
    Statement delete_;
    Statement keys_;
};

SqlitePreferences::SqlitePreferences(const std::filesystem::path& file, SqlitePreferencesOptions options)
    : file_(file), impl_(std::make_unique<Impl>(file, std::move(options))) {}

SqlitePreferences::~SqlitePreferences() = default;

std::filesystem::path SqlitePreferences::defaultFile(std::string_view applicationId) {
    return applicationDataDirectory(applicationId) / "preferences.sqlite";
}

std::optional<nlohmann::json> SqlitePreferences::objectForKey(std::string_view key) const {
    return impl_->read(key);
}

void SqlitePreferences::setObject(std::string_view key, const nlohmann::json& value) {
    const std::string text = value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    impl_->write(key, &text);
}

void SqlitePreferences::removeObject(std::string_view key) {
    impl_->write(key, nullptr);
}

std::vector<std::string> SqlitePreferences::keys() const {
    return impl_->allKeys();
}

}  // namespace tovrel::linuxbackend
