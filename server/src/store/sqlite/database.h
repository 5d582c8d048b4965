#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "store/store.h"

namespace tovrel::server {

class Database;

/// A prepared SQLite statement. Not thread-safe; owned by the connection's user. One made by
/// Database::prepare goes back to the connection when it ends, to be bound afresh next time.
class Statement {
  public:
    Statement(sqlite3* db, std::string_view sql);
    ~Statement();
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;
    Statement(Statement&& other) noexcept;
    Statement& operator=(Statement&&) = delete;

    /// Binds parameters 1..n in order and clears any earlier state.
    template <typename... Args>
    Statement& with(const Args&... args) {
        reset();
        int i = 0;
        (bindOne(++i, args), ...);
        return *this;
    }
    /// Binds parameters 1..n from texts (NULL for nullopt) and clears any earlier state.
    Statement& withTexts(const std::vector<std::optional<std::string>>& params);
    /// Next row: true while a row is available, false when done. Throws on error.
    bool step();
    /// Steps to completion, for statements that return no rows.
    void run();
    void reset();

    /// Columns of the current row.
    int columns() const { return sqlite3_column_count(stmt_); }
    int64_t integer(int col) const;
    double real(int col) const;
    std::string text(int col) const;
    bool isNull(int col) const;

  private:
    void bindOne(int i, int64_t v);
    void bindOne(int i, int v) { bindOne(i, static_cast<int64_t>(v)); }
    void bindOne(int i, double v);
    void bindOne(int i, std::string_view v);
    void bindOne(int i, const std::string& v) { bindOne(i, std::string_view(v)); }
    void bindOne(int i, const char* v) { bindOne(i, std::string_view(v)); }
    void bindOne(int i, std::nullopt_t);
    template <typename T>
    void bindOne(int i, const std::optional<T>& v) {
        if (v) {
            bindOne(i, *v);
        } else {
            bindOne(i, std::nullopt);
        }
    }
    void check(int rc) const;

    friend class Database;
    Statement(Database& owner, sqlite3_stmt* stmt);

    sqlite3* db_;
    sqlite3_stmt* stmt_ = nullptr;
    Database* owner_ = nullptr;
};

/// One SQLite connection with the server's settings (WAL for files, foreign keys, busy timeout).
class Database {
  public:
    /// How long a statement waits for another connection's lock by default before DatabaseBusy.
    static constexpr int kDefaultBusyTimeoutMs = 5000;

    /// Opens or creates the database and brings the service's schema up to date unless `migrated` is
    /// false (a database that holds diagnostics alone). Throws std::runtime_error.
    explicit Database(const std::string& path, int busyTimeoutMs = kDefaultBusyTimeoutMs,
                      bool migrated = true);
    ~Database();
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    void exec(const std::string& sql);
    /// The statement for `sql`: one this connection prepared before and got back, or a new one.
    Statement prepare(std::string_view sql);
    /// A statement for `sql` that is finalized after its use, not kept: for SQL that spells its values
    /// and will not come again, which would otherwise push out the statements that do.
    Statement prepareOnce(std::string_view sql) { return Statement(db_, sql); }
    int64_t lastInsertId() const { return sqlite3_last_insert_rowid(db_); }
    /// Rows the last INSERT, UPDATE or DELETE changed.
    int64_t changes() const { return sqlite3_changes64(db_); }
    int userVersion();

  private:
    friend class Statement;
    /// At most this many finished statements wait for their SQL to come again (the requests' few
    /// dozen); others are finalized.
    static constexpr std::size_t kKeptStatements = 64;

    /// Takes back a statement made by prepare(): reset, unbound, and kept unless one is already kept.
    void keep(sqlite3_stmt* stmt) noexcept;
    /// Finalizes the kept statements and closes the connection.
    void close() noexcept;

    sqlite3* db_ = nullptr;
    std::map<std::string, sqlite3_stmt*, std::less<>> kept_;  ///< by SQL text
};

/// BEGIN IMMEDIATE ... COMMIT (a write), or BEGIN ... (a read of one consistent snapshot); rolls back
/// when left without commit().
class Transaction {
  public:
    enum class Kind { write, read };
    explicit Transaction(Database& db, Kind kind = Kind::write);
    ~Transaction();
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;
    void commit();

  private:
    Database& db_;
    bool done_ = false;
};

/// The schema version this program writes.
int currentSchemaVersion();

/// Applies the migrations that the database lacks. Throws when the database is newer than this program.
void migrate(Database& db);

}  // namespace tovrel::server
