#pragma once

#include <libpq-fe.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "store/sql_source.h"
#include "store/store.h"

namespace tovrel::server {

/// How long a lost connection waits before it is opened again: the first time, and at most after
/// each failed attempt doubled it.
inline constexpr std::chrono::milliseconds kPgFirstBackoff{100};
inline constexpr std::chrono::milliseconds kPgMaxBackoff{5000};

/// A statement PostgreSQL refused for a reason other than unavailability; `sqlState` is its code.
class PgError : public std::runtime_error {
  public:
    PgError(const std::string& message, std::string sqlState)
        : std::runtime_error(message), sqlState_(std::move(sqlState)) {}
    const std::string& sqlState() const { return sqlState_; }

  private:
    std::string sqlState_;
};

/// The rows of one statement, as text. Not thread-safe.
class PgResult {
  public:
    explicit PgResult(PGresult* result) : result_(result, PQclear) {}
    int rows() const { return PQntuples(result_.get()); }
    bool isNull(int row, int col) const { return PQgetisnull(result_.get(), row, col) != 0; }
    std::string text(int row, int col) const;
    int64_t integer(int row, int col) const;
    double real(int row, int col) const;
    bool boolean(int row, int col) const;
    /// Rows an INSERT, UPDATE or DELETE changed.
    int64_t changes() const;
    const PGresult* native() const { return result_.get(); }

  private:
    std::unique_ptr<PGresult, void (*)(PGresult*)> result_;
};

/// A parameter of a statement: its text, or SQL NULL.
using PgParam = std::optional<std::string>;

inline PgParam pgParam(int64_t v) {
    return std::to_string(v);
}
inline PgParam pgParam(int v) {
    return std::to_string(v);
}
inline PgParam pgParam(bool v) {
    return std::string(v ? "t" : "f");
}
PgParam pgParam(double v);
inline PgParam pgParam(const std::string& v) {
    return v;
}
inline PgParam pgParam(const char* v) {
    return std::string(v);
}
template <typename T>
PgParam pgParam(const std::optional<T>& v) {
    return v ? pgParam(*v) : std::nullopt;
}

/// A PostgreSQL array literal of numbers, for a parameter such as ANY(CAST($n AS bigint[])). Pure.
template <typename Number>
std::string numberArray(const std::vector<Number>& values) {
    std::string out = "{";
    for (const Number v : values) {
        if (out.size() > 1) {
            out += ',';
        }
        out += *pgParam(v);
    }
    return out + "}";
}

/// One statement with parameters $1..$n, to be run later.
struct PgStatement {
    std::string sql;
    std::vector<PgParam> params;
};

/// A statement of `sql` with these parameters.
template <typename... Args>
PgStatement statement(std::string sql, const Args&... args) {
    return {std::move(sql), {pgParam(args)...}};
}

/// The statements' addresses, for PgConnection::execTogether() and execPipelined(). Pure.
inline std::vector<const PgStatement*> statementPointers(const std::vector<PgStatement>& statements) {
    std::vector<const PgStatement*> out;
    out.reserve(statements.size());
    for (const PgStatement& s : statements) {
        out.push_back(&s);
    }
    return out;
}

/// The statement that made a pipelined transaction fail, and PostgreSQL's words.
struct PgRefusal {
    std::size_t index = 0;
    PgError error;
};

/// One connection to PostgreSQL. Not thread-safe; a pool hands it to one user at a time.
class PgConnection {
  public:
    /// Connects; throws DatabaseBusy when the server cannot be reached or refuses the connection (a
    /// running server that did not is not answered with a final error). lockTimeoutMs bounds waits
    /// for row locks.
    PgConnection(const std::string& location, int lockTimeoutMs);
    ~PgConnection();
    PgConnection(const PgConnection&) = delete;
    PgConnection& operator=(const PgConnection&) = delete;

    /// Runs one statement with parameters $1..$n (or, without parameters, several statements).
    template <typename... Args>
    PgResult exec(std::string_view sql, const Args&... args) {
        return execParams(sql, {pgParam(args)...});
    }
    PgResult execParams(std::string_view sql, const std::vector<PgParam>& params);
    /// Sends every statement at once (pipeline mode) and runs them as one transaction, committed when
    /// the last one succeeded and rolled back when one failed: one round trip and one commit for all.
    /// nullopt when they committed; else the statement refused (nothing was written). Throws
    /// DatabaseBusy when the connection fails or a refusal means "not now".
    /// The statements' rows go to `rows` when given, in order.
    std::optional<PgRefusal> execTogether(std::span<const PgStatement* const> statements,
                                          std::vector<PgResult>* rows = nullptr);
    /// Sends every statement at once (pipeline mode) in the transaction the caller began, and returns
    /// their rows in order: one round trip for all. Throws as exec() does for the first statement
    /// refused; the transaction is then aborted, and the statements after it did not run.
    std::vector<PgResult> execPipelined(std::span<const PgStatement* const> statements);
    /// Starts `COPY ... FROM STDIN` (see PgCopy); throws as exec() does.
    void beginCopy(std::string_view sql);
    /// Sends rows of the copy begun; throws DatabaseBusy when the connection fails.
    void putCopyData(std::string_view data);
    /// Ends the copy begun, or abandons it with `error` (its transaction then fails); the rows it wrote.
    /// Throws as exec() does when PostgreSQL refused the rows.
    int64_t endCopy(const char* error = nullptr);
    /// False once the connection was lost, or the server said it is closing it; it is then replaced.
    bool healthy() const { return PQstatus(conn_) == CONNECTION_OK && !closing_; }
    /// The connection's socket, for waiting on notifications.
    int socket() const { return PQsocket(conn_); }
    /// Reads what the server sent (notifications among it) without waiting; false when the
    /// connection is lost.
    bool consumeInput() { return PQconsumeInput(conn_) == 1 && healthy(); }
    /// The notifications read so far, as (channel, payload), oldest first.
    std::vector<std::pair<std::string, std::string>> takeNotifications();
    /// healthy(), after reading what the server sent meanwhile (the notice of a server that closed the
    /// connection while it was idle). Does not wait.
    bool stillOpen();

  private:
    static void onNotice(void* self, const PGresult* notice);
    /// Throws what `raw` (a failed statement's result, or null) says went wrong.
    [[noreturn]] void fail(const PGresult* raw);
    /// What to throw when a pipeline broke; the connection is then not handed out again.
    DatabaseBusy pipelineLost(const char* what);
    /// A result a pipeline waits for: of statement `index`, or of its preparation.
    struct Expected {
        std::size_t index = 0;
        bool preparation = false;
    };
    /// Sends each statement (prepared first when this connection has not met its text; the texts it
    /// prepares go to `preparing`) and the sync. Per result to come, in order: what it is of.
    std::vector<Expected> sendPipeline(std::span<const PgStatement* const> statements,
                                       std::vector<std::string>& preparing);
    /// Reads the results up to the sync: the statement refused first, if any; `unavailable` is set
    /// when a failure means the database cannot take the work now. The statements' results go to
    /// `rows` when given.
    std::optional<PgRefusal> readPipeline(const std::vector<Expected>& expected,
                                          std::optional<DatabaseBusy>& unavailable,
                                          std::vector<PgResult>* rows = nullptr);
    /// Runs the statements as a pipeline and forgets the preparations of one that failed.
    std::optional<PgRefusal> runPipeline(std::span<const PgStatement* const> statements,
                                         std::vector<PgResult>* rows);

    PGconn* conn_ = nullptr;
    /// Statement names by text, of the statements execTogether() prepared on this connection.
    std::unordered_map<std::string, std::string> prepared_;
    std::uint64_t preparedCount_ = 0;
    bool closing_ = false;  ///< the server sent FATAL: its end of the stream may not have arrived yet
};

/// Rows written into one `COPY table(columns) FROM STDIN` in PostgreSQL's text format, sent a buffer
/// at a time: the fastest way in for many rows, with no statement per row to parse. A copy left
/// without finish() is abandoned, and the transaction holding it fails. Not thread-safe.
class PgCopy {
  public:
    /// Starts the copy on `conn`, which it uses alone until finish(); throws as PgConnection::exec().
    PgCopy(PgConnection& conn, std::string_view sql);
    ~PgCopy();
    PgCopy(const PgCopy&) = delete;
    PgCopy& operator=(const PgCopy&) = delete;

    PgCopy& field(int64_t v);
    PgCopy& field(int v) { return field(static_cast<int64_t>(v)); }
    /// The shortest text that reads back as the same double.
    PgCopy& field(double v);
    PgCopy& field(std::string_view v);
    PgCopy& field(const std::string& v) { return field(std::string_view(v)); }
    void endRow();
    /// Sends the rest and ends the copy; the rows written. Throws as PgConnection::exec().
    int64_t finish();

  private:
    void separate();

    PgConnection& conn_;
    std::string buffer_;
    bool rowStarted_ = false;
    bool finished_ = false;
};

/// BEGIN ... COMMIT on one connection; rolls back when left without commit().
class PgTransaction {
  public:
    explicit PgTransaction(PgConnection& conn, const char* begin = "BEGIN");
    ~PgTransaction();
    PgTransaction(const PgTransaction&) = delete;
    PgTransaction& operator=(const PgTransaction&) = delete;
    void commit();

  private:
    PgConnection& conn_;
    bool done_ = false;
};

/// A bounded set of connections to one database. A lost connection is opened again on a later
/// acquire, no sooner than a back-off that doubles after each failed attempt (up to a few seconds);
/// meanwhile acquire() throws DatabaseBusy at once. Thread-safe.
class PgPool {
  public:
    PgPool(std::string location, int lockTimeoutMs, std::size_t size);

    class Lease {
      public:
        Lease(PgPool& pool, std::unique_ptr<PgConnection> conn) : pool_(pool), conn_(std::move(conn)) {}
        ~Lease();
        Lease(const Lease&) = delete;
        Lease& operator=(const Lease&) = delete;
        PgConnection& operator*() { return *conn_; }
        PgConnection* operator->() { return conn_.get(); }

      private:
        PgPool& pool_;
        std::unique_ptr<PgConnection> conn_;
    };

    /// A connection for the caller alone; waits at most the lock timeout for one to come free. Throws
    /// DatabaseBusy when none does or the database cannot be reached.
    Lease acquire();
    /// True when a connection answers a read now; waits at most the lock timeout. Any thread.
    bool reachable();

  private:
    void release(std::unique_ptr<PgConnection> conn);

    std::string location_;
    int lockTimeoutMs_;
    std::size_t size_;
    std::mutex mutex_;
    std::condition_variable freed_;
    std::vector<std::unique_ptr<PgConnection>> idle_;
    std::size_t open_ = 0;  ///< connections idle or leased
    std::chrono::steady_clock::time_point retryAt_{};
    std::chrono::milliseconds backoff_{0};
};

/// The SQL that both dialects share, run on `conn` (the caller's for as long as the source is used).
SqlSource pgSource(PgConnection& conn);

/// `sql` with the shared SQL's `?` placeholders spelled $1..$n, as PostgreSQL takes them. The SQL has no
/// question mark inside a literal. Pure.
std::string numberedParameters(const std::string& sql);

}  // namespace tovrel::server
