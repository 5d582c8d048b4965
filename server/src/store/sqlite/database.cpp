#include "store/sqlite/database.h"

#include <fcntl.h>
#include <unistd.h>

#include <stdexcept>
#include <utility>

#include "common/session_keys.h"

namespace tovrel::server {

Statement::Statement(sqlite3* db, std::string_view sql) : db_(db) {
    check(sqlite3_prepare_v2(db_, sql.data(), static_cast<int>(sql.size()), &stmt_, nullptr));
}

Statement::Statement(Database& owner, sqlite3_stmt* stmt) : db_(owner.db_), stmt_(stmt), owner_(&owner) {}

Statement::~Statement() {
    if (owner_ != nullptr && stmt_ != nullptr) {
        owner_->keep(stmt_);
    } else {
        sqlite3_finalize(stmt_);
    }
}

Statement::Statement(Statement&& other) noexcept
    : db_(other.db_), stmt_(std::exchange(other.stmt_, nullptr)), owner_(other.owner_) {}

namespace {

[[noreturn]] void throwFor(int rc, const std::string& message) {
    const int primary = rc & 0xff;
    if (primary == SQLITE_BUSY || primary == SQLITE_LOCKED) {
        throw DatabaseBusy("the database is busy: " + message);
    }
    throw std::runtime_error("database error: " + message);
}

}  // namespace

void Statement::check(int rc) const {
    if (rc != SQLITE_OK) {
        throwFor(rc, sqlite3_errmsg(db_));
    }
}

bool Statement::step() {
    const int rc = sqlite3_step(stmt_);
    if (rc == SQLITE_ROW) {
        return true;
    }
    if (rc == SQLITE_DONE) {
        return false;
    }
    const std::string message = sqlite3_errmsg(db_);
    sqlite3_reset(stmt_);
    throwFor(rc, message);
}

void Statement::run() {
    while (step()) {
    }
}

void Statement::reset() {
    sqlite3_reset(stmt_);
    sqlite3_clear_bindings(stmt_);
}

Statement& Statement::withTexts(const std::vector<std::optional<std::string>>& params) {
    reset();
    int i = 0;
    for (const auto& p : params) {
        bindOne(++i, p);
    }
    return *this;
}

int64_t Statement::integer(int col) const {
    return sqlite3_column_int64(stmt_, col);
}
double Statement::real(int col) const {
    return sqlite3_column_double(stmt_, col);
}
bool Statement::isNull(int col) const {
    return sqlite3_column_type(stmt_, col) == SQLITE_NULL;
}

std::string Statement::text(int col) const {
    const auto* p = sqlite3_column_text(stmt_, col);
    const int n = sqlite3_column_bytes(stmt_, col);
    return p ? std::string(reinterpret_cast<const char*>(p), static_cast<std::size_t>(n)) : std::string();
}

void Statement::bindOne(int i, int64_t v) {
    check(sqlite3_bind_int64(stmt_, i, v));
}
void Statement::bindOne(int i, double v) {
    check(sqlite3_bind_double(stmt_, i, v));
}
void Statement::bindOne(int i, std::nullopt_t) {
    check(sqlite3_bind_null(stmt_, i));
}
void Statement::bindOne(int i, std::string_view v) {
    check(sqlite3_bind_text64(stmt_, i, v.data(), v.size(), SQLITE_TRANSIENT, SQLITE_UTF8));
}

Database::Database(const std::string& path, int busyTimeoutMs, bool migrated) {
    // Session keys and device identifiers live here: a new file is the owner's alone (SQLite gives its
    // journal and WAL files the database file's mode).
    if (!path.empty() && path != ":memory:" && path.rfind("file:", 0) != 0) {
        const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (fd >= 0) {
            ::close(fd);
        }
    }
    const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX;
    if (sqlite3_open_v2(path.c_str(), &db_, flags, nullptr) != SQLITE_OK) {
        const std::string message = db_ ? sqlite3_errmsg(db_) : "out of memory";
        sqlite3_close(db_);
        db_ = nullptr;
        throw std::runtime_error("cannot open database " + path + ": " + message);
    }
    sqlite3_busy_timeout(db_, busyTimeoutMs);
    sqlite3_create_function(
        db_, "sha256_hex", 1, SQLITE_UTF8 | SQLITE_DETERMINISTIC, nullptr,
        [](sqlite3_context* context, int, sqlite3_value** values) {
            const auto* text = reinterpret_cast<const char*>(sqlite3_value_text(values[0]));
            const std::string hash = sessionKeyHash(
                std::string_view(text ? text : "", static_cast<std::size_t>(sqlite3_value_bytes(values[0]))));
            sqlite3_result_text(context, hash.c_str(), static_cast<int>(hash.size()), SQLITE_TRANSIENT);
        },
        nullptr, nullptr);
    try {
        if (path != ":memory:" && !path.empty()) {
            exec("PRAGMA journal_mode=WAL");
        }
        exec("PRAGMA synchronous=NORMAL; PRAGMA foreign_keys=ON");
        if (migrated) {
            migrate(*this);
        }
    } catch (const std::exception& e) {
        close();
        throw std::runtime_error("cannot use database " + path + ": " + e.what());
    }
}

Database::~Database() {
    close();
}

void Database::close() noexcept {
    // A connection with statements left open does not close.
    for (const auto& [sql, stmt] : kept_) {
        sqlite3_finalize(stmt);
    }
    kept_.clear();
    sqlite3_close(db_);
    db_ = nullptr;
}

Statement Database::prepare(std::string_view sql) {
    // Preparing compiles the SQL, a good part of a request's time; a kept statement only needs binding.
    if (const auto found = kept_.find(sql); found != kept_.end()) {
        sqlite3_stmt* stmt = found->second;
        kept_.erase(found);
        return Statement(*this, stmt);
    }
    Statement fresh(db_, sql);
    fresh.owner_ = this;
    return fresh;
}

void Database::keep(sqlite3_stmt* stmt) noexcept {
    sqlite3_reset(stmt);
    sqlite3_clear_bindings(stmt);
    const char* sql = sqlite3_sql(stmt);
    if (sql == nullptr || kept_.size() >= kKeptStatements) {
        sqlite3_finalize(stmt);
        return;
    }
    try {
        if (!kept_.try_emplace(sql, stmt).second) {
            sqlite3_finalize(stmt);  // the same SQL was prepared twice at once
        }
    } catch (...) {
        sqlite3_finalize(stmt);
    }
}

void Database::exec(const std::string& sql) {
    char* error = nullptr;
    if (const int rc = sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &error); rc != SQLITE_OK) {
        std::string message = error ? error : sqlite3_errmsg(db_);
        sqlite3_free(error);
        throwFor(rc, message);
    }
}

int Database::userVersion() {
    Statement st = prepare("PRAGMA user_version");
    return st.step() ? static_cast<int>(st.integer(0)) : 0;
}

// Kept statements: compiling these again for every transaction was a good part of a small write's time.
Transaction::Transaction(Database& db, Kind kind) : db_(db) {
    db_.prepare(kind == Kind::write ? "BEGIN IMMEDIATE" : "BEGIN").run();
}

Transaction::~Transaction() {
    if (!done_) {
        try {
            db_.prepare("ROLLBACK").run();
        } catch (...) {
            // The connection already rolled back on its own (for example after SQLITE_FULL).
        }
    }
}

void Transaction::commit() {
    db_.prepare("COMMIT").run();
    done_ = true;
}

}  // namespace tovrel::server
