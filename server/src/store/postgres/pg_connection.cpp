#include "store/postgres/pg_connection.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace tovrel::server {

namespace {

// A copy's rows are sent in pieces of about this many bytes: few calls, little memory.
constexpr std::size_t kCopyBuffer = 1 << 20;

// SQLSTATE classes that mean "not now": the connection, the server shutting down, locks, timeouts,
// conflicts between transactions. Nothing was written; the client may try again.
bool meansUnavailable(const std::string& state) {
    return state.rfind("08", 0) == 0 || state.rfind("57P", 0) == 0 || state == "40001" || state == "40P01" ||
           state == "55P03" || state == "57014" || state == "53300";
}

}  // namespace

std::string PgResult::text(int row, int col) const {
    return std::string(PQgetvalue(result_.get(), row, col),
                       static_cast<std::size_t>(PQgetlength(result_.get(), row, col)));
}

int64_t PgResult::integer(int row, int col) const {
    return std::strtoll(PQgetvalue(result_.get(), row, col), nullptr, 10);
}

double PgResult::real(int row, int col) const {
    return std::strtod(PQgetvalue(result_.get(), row, col), nullptr);
}

bool PgResult::boolean(int row, int col) const {
    return PQgetvalue(result_.get(), row, col)[0] == 't';
}

int64_t PgResult::changes() const {
    return std::strtoll(PQcmdTuples(result_.get()), nullptr, 10);
}

PgParam pgParam(double v) {
    char text[32];
    const auto end = std::to_chars(text, text + sizeof text, v).ptr;
    return std::string(text, end);
}

PgConnection::PgConnection(const std::string& location, int lockTimeoutMs) {
    // The address's own settings come last and win over these defaults.
    const char* keys[] = {"connect_timeout", "application_name", "dbname", nullptr};
    const char* values[] = {"3", "tovrel-server", location.c_str(), nullptr};
    conn_ = PQconnectdbParams(keys, values, 1);
    if (PQstatus(conn_) != CONNECTION_OK) {
        std::string message = conn_ ? PQerrorMessage(conn_) : "out of memory";
        message.erase(message.find_last_not_of("\n ") + 1);
        PQfinish(conn_);
        conn_ = nullptr;
        throw DatabaseBusy("cannot connect to " + displayLocation(location) + ": " + message);
    }
    PQsetNoticeReceiver(conn_, &PgConnection::onNotice, this);
    try {
        exec("SET lock_timeout = " + std::to_string(std::max(1, lockTimeoutMs)) +
             "; SET client_min_messages = warning; SET TIME ZONE 'UTC'");
    } catch (...) {
        PQfinish(conn_);
        throw;
    }
}

PgConnection::~PgConnection() {
    PQfinish(conn_);
}

void PgConnection::onNotice(void* self, const PGresult* notice) {
    // A server that ends a session while it is idle (a restart, pg_terminate_backend) says FATAL first:
    // from then on the connection must not be handed out, even before its end of stream is read.
    const char* severity = PQresultErrorField(notice, PG_DIAG_SEVERITY_NONLOCALIZED);
    if (severity != nullptr && (std::strcmp(severity, "FATAL") == 0 || std::strcmp(severity, "PANIC") == 0)) {
        static_cast<PgConnection*>(self)->closing_ = true;
        return;
    }
    std::fputs(PQresultErrorMessage(notice), stderr);
}

bool PgConnection::stillOpen() {
    // The first read takes the server's farewell message and PQisBusy parses it (reading alone does
    // not), so onNotice sees the FATAL even when the end of the stream has not arrived yet.
    if (PQconsumeInput(conn_) != 1) {
        return false;
    }
    PQisBusy(conn_);
    return PQconsumeInput(conn_) == 1 && healthy();
}

std::vector<std::pair<std::string, std::string>> PgConnection::takeNotifications() {
    std::vector<std::pair<std::string, std::string>> out;
    while (PGnotify* n = PQnotifies(conn_)) {
        out.emplace_back(n->relname, n->extra);
        PQfreemem(n);
    }
    return out;
}

PgResult PgConnection::execParams(std::string_view sql, const std::vector<PgParam>& params) {
    const std::string text(sql);
    PGresult* raw = nullptr;
    if (params.empty()) {
        raw = PQexec(conn_, text.c_str());
    } else {
        std::vector<const char*> values;
        values.reserve(params.size());
        for (const PgParam& p : params) {
            values.push_back(p ? p->c_str() : nullptr);
        }
        raw = PQexecParams(conn_, text.c_str(), static_cast<int>(params.size()), nullptr, values.data(),
                           nullptr, nullptr, 0);
    }
    PgResult result(raw);
    const ExecStatusType status = raw ? PQresultStatus(raw) : PGRES_FATAL_ERROR;
    if (status == PGRES_COMMAND_OK || status == PGRES_TUPLES_OK) {
        return result;
    }
    fail(raw);
}

void PgConnection::fail(const PGresult* raw) {
    const char* stateField = raw ? PQresultErrorField(raw, PG_DIAG_SQLSTATE) : nullptr;
    const std::string state = stateField ? stateField : "";
    std::string message = raw ? PQresultErrorMessage(raw) : PQerrorMessage(conn_);
    message.erase(message.find_last_not_of("\n ") + 1);
    if (!healthy() || state.empty() || meansUnavailable(state)) {
        throw DatabaseBusy("the database is unavailable: " + message);
    }
    throw PgError("database error: " + message, state);
}

void PgConnection::beginCopy(std::string_view sql) {
    const PgResult result(PQexec(conn_, std::string(sql).c_str()));
    if (!result.native() || PQresultStatus(result.native()) != PGRES_COPY_IN) {
        fail(result.native());
    }
}

void PgConnection::putCopyData(std::string_view data) {
    if (PQputCopyData(conn_, data.data(), static_cast<int>(data.size())) != 1) {
        closing_ = true;
        fail(nullptr);
    }
}

int64_t PgConnection::endCopy(const char* error) {
    if (PQputCopyEnd(conn_, error) != 1) {
        closing_ = true;
        fail(nullptr);
    }
    // The copy's result, then the null that ends every command's results.
    const PgResult result(PQgetResult(conn_));
    while (PGresult* more = PQgetResult(conn_)) {
        PQclear(more);
    }
    if (!result.native() || PQresultStatus(result.native()) != PGRES_COMMAND_OK) {
        fail(result.native());
    }
    return result.changes();
}

PgCopy::PgCopy(PgConnection& conn, std::string_view sql) : conn_(conn) {
    conn_.beginCopy(sql);
    buffer_.reserve(kCopyBuffer + 4096);
}

PgCopy::~PgCopy() {
    if (!finished_) {
        try {
            conn_.endCopy("abandoned");
        } catch (const std::exception&) {
            // The refusal asked for: the transaction is rolled back by its owner.
        }
    }
}

void PgCopy::separate() {
    if (rowStarted_) {
        buffer_ += '\t';
    }
    rowStarted_ = true;
}

PgCopy& PgCopy::field(int64_t v) {
    separate();
    char text[24];
    buffer_.append(text, std::to_chars(text, text + sizeof text, v).ptr);
    return *this;
}

PgCopy& PgCopy::field(double v) {
    separate();
    char text[32];
    buffer_.append(text, std::to_chars(text, text + sizeof text, v).ptr);
    return *this;
}

PgCopy& PgCopy::field(std::string_view v) {
    separate();
    for (const char c : v) {
        switch (c) {
            case '\\':
                buffer_ += "\\\\";
                break;
            case '\n':
                buffer_ += "\\n";
                break;
            case '\r':
                buffer_ += "\\r";
                break;
            case '\t':
                buffer_ += "\\t";
                break;
            default:
                buffer_ += c;
        }
    }
    return *this;
}

void PgCopy::endRow() {
    buffer_ += '\n';
    rowStarted_ = false;
    if (buffer_.size() >= kCopyBuffer) {
        conn_.putCopyData(buffer_);
        buffer_.clear();
    }
}

int64_t PgCopy::finish() {
    if (!buffer_.empty()) {
        conn_.putCopyData(buffer_);
        buffer_.clear();
    }
    finished_ = true;
    return conn_.endCopy();
}

DatabaseBusy PgConnection::pipelineLost(const char* what) {
    // Whatever the server still sends of this pipeline would be read by the next user: the connection
    // is not handed out again.
    closing_ = true;
    std::string message = PQerrorMessage(conn_);
    message.erase(message.find_last_not_of("\n ") + 1);
    return DatabaseBusy(std::string("the database is unavailable (") + what + "): " + message);
}

std::optional<PgRefusal> PgConnection::execTogether(std::span<const PgStatement* const> statements,
                                                    std::vector<PgResult>* rows) {
    return runPipeline(statements, rows);
}

std::vector<PgResult> PgConnection::execPipelined(std::span<const PgStatement* const> statements) {
    std::vector<PgResult> rows;
    rows.reserve(statements.size());
    if (std::optional<PgRefusal> refusal = runPipeline(statements, &rows)) {
        throw std::move(refusal->error);
    }
    return rows;
}

std::optional<PgRefusal> PgConnection::runPipeline(std::span<const PgStatement* const> statements,
                                                   std::vector<PgResult>* rows) {
    if (PQenterPipelineMode(conn_) != 1) {
        throw pipelineLost("pipeline");
    }
    struct Exit {
        PGconn* conn;
        ~Exit() { PQexitPipelineMode(conn); }
    } exitPipeline{conn_};
    std::vector<std::string> preparing;
    const std::vector<Expected> expected = sendPipeline(statements, preparing);
    std::optional<DatabaseBusy> unavailable;
    std::optional<PgRefusal> refusal = readPipeline(expected, unavailable, rows);
    if (unavailable || refusal) {
        for (const std::string& sql : preparing) {
            prepared_.erase(sql);
        }
    }
    if (unavailable) {
        throw *unavailable;
    }
    return refusal;
}

std::vector<PgConnection::Expected> PgConnection::sendPipeline(std::span<const PgStatement* const> statements,
                                                               std::vector<std::string>& preparing) {
    // Each text is parsed and planned once per connection: a statement of its own is sent before its
    // first use. Names are never reused, so a preparation lost with a failed pipeline cannot clash.
    std::vector<Expected> expected;
    std::vector<const char*> values;
    for (std::size_t index = 0; index < statements.size(); ++index) {
        const PgStatement* statement = statements[index];
        auto name = prepared_.find(statement->sql);
        if (name == prepared_.end()) {
            name = prepared_.emplace(statement->sql, "tovrel_" + std::to_string(++preparedCount_)).first;
            if (PQsendPrepare(conn_, name->second.c_str(), statement->sql.c_str(),
                              static_cast<int>(statement->params.size()), nullptr) != 1) {
                throw pipelineLost("prepare");
            }
            preparing.push_back(statement->sql);
            expected.push_back({index, true});
        }
        values.clear();
        for (const PgParam& p : statement->params) {
            values.push_back(p ? p->c_str() : nullptr);
        }
        if (PQsendQueryPrepared(conn_, name->second.c_str(), static_cast<int>(values.size()), values.data(),
                                nullptr, nullptr, 0) != 1) {
            throw pipelineLost("send");
        }
        expected.push_back({index, false});
    }
    // Without BEGIN, everything up to the sync is one transaction, committed at the sync.
    if (PQpipelineSync(conn_) != 1) {
        throw pipelineLost("sync");
    }
    return expected;
}

std::optional<PgRefusal> PgConnection::readPipeline(const std::vector<Expected>& expected,
                                                    std::optional<DatabaseBusy>& unavailable,
                                                    std::vector<PgResult>* rows) {
    std::optional<PgRefusal> refusal;
    std::size_t next = 0;
    // Results come in the order sent, each followed by a null, until the sync's. An error after the
    // last statement is the commit's.
    for (int nulls = 0;;) {
        PGresult* raw = PQgetResult(conn_);
        if (raw == nullptr) {
            if (++nulls > 2) {
                throw pipelineLost("result");
            }
            continue;
        }
        nulls = 0;
        PgResult result(raw);
        const ExecStatusType status = PQresultStatus(raw);
        if (status == PGRES_PIPELINE_SYNC) {
            return refusal;
        }
        const bool ofStatement = next < expected.size();
        const Expected of = ofStatement ? expected[next++] : Expected{};
        if (status == PGRES_TUPLES_OK || status == PGRES_COMMAND_OK) {
            if (rows != nullptr && ofStatement && !of.preparation) {
                rows->push_back(std::move(result));
            }
            continue;
        }
        if (status != PGRES_FATAL_ERROR || refusal || unavailable) {
            continue;
        }
        const char* stateField = PQresultErrorField(raw, PG_DIAG_SQLSTATE);
        const std::string state = stateField ? stateField : "";
        std::string message = PQresultErrorMessage(raw);
        message.erase(message.find_last_not_of("\n ") + 1);
        if (!ofStatement || state.empty() || meansUnavailable(state)) {
            unavailable.emplace("the database is unavailable: " + message);
        } else {
            refusal = PgRefusal{of.index, PgError("database error: " + message, state)};
        }
    }
}

PgTransaction::PgTransaction(PgConnection& conn, const char* begin) : conn_(conn) {
    conn_.exec(begin);
}

PgTransaction::~PgTransaction() {
    if (!done_) {
        try {
            conn_.exec("ROLLBACK");
        } catch (...) {
            // The connection is gone; the server rolled back on its own.
        }
    }
}

void PgTransaction::commit() {
    conn_.exec("COMMIT");
    done_ = true;
}

PgPool::PgPool(std::string location, int lockTimeoutMs, std::size_t size)
    : location_(std::move(location)), lockTimeoutMs_(lockTimeoutMs), size_(std::max<std::size_t>(1, size)) {}

bool PgPool::reachable() {
    try {
        auto conn = acquire();
        return conn->exec("SELECT 1").rows() == 1;
    } catch (const std::exception&) {
        return false;
    }
}

PgPool::Lease PgPool::acquire() {
    std::unique_lock lock(mutex_);
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(std::max(1, lockTimeoutMs_));
    while (idle_.empty() && open_ >= size_) {
        if (freed_.wait_until(lock, deadline) == std::cv_status::timeout && idle_.empty() && open_ >= size_) {
            throw DatabaseBusy("every database connection is in use");
        }
    }
    // A server that restarted closed the idle connections: they are dropped here rather than failing
    // a request.
    while (!idle_.empty()) {
        std::unique_ptr<PgConnection> conn = std::move(idle_.back());
        idle_.pop_back();
        if (conn->stillOpen()) {
            return Lease(*this, std::move(conn));
        }
        --open_;
    }
    if (std::chrono::steady_clock::now() < retryAt_) {
        throw DatabaseBusy("the database cannot be reached; trying again shortly");
    }
    ++open_;
    lock.unlock();
    try {
        auto conn = std::make_unique<PgConnection>(location_, lockTimeoutMs_);
        lock.lock();
        backoff_ = std::chrono::milliseconds(0);
        return Lease(*this, std::move(conn));
    } catch (...) {
        if (!lock.owns_lock()) {
            lock.lock();
        }
        --open_;
        backoff_ = std::clamp(backoff_ * 2, kPgFirstBackoff, kPgMaxBackoff);
        retryAt_ = std::chrono::steady_clock::now() + backoff_;
        freed_.notify_one();
        throw;
    }
}

void PgPool::release(std::unique_ptr<PgConnection> conn) {
    std::lock_guard lock(mutex_);
    if (conn && conn->healthy()) {
        idle_.push_back(std::move(conn));
    } else {
        --open_;
        // Every idle connection likely shares the fate of the one lost: check them on their next use.
        open_ -= std::erase_if(idle_, [](const auto& c) { return !c->healthy(); });
    }
    freed_.notify_one();
}

PgPool::Lease::~Lease() {
    pool_.release(std::move(conn_));
}

namespace {

SqlRows allRows(const PgResult& result) {
    SqlRows rows(static_cast<std::size_t>(result.rows()));
    const int columns = PQnfields(result.native());
    for (int i = 0; i < result.rows(); ++i) {
        for (int c = 0; c < columns; ++c) {
            rows[static_cast<std::size_t>(i)].push_back(result.text(i, c));
        }
    }
    return rows;
}

}  // namespace

std::string numberedParameters(const std::string& sql) {
    std::string out;
    out.reserve(sql.size() + 16);
    int n = 0;
    for (const char c : sql) {
        if (c == '?') {
            out += '$' + std::to_string(++n);
        } else {
            out += c;
        }
    }
    return out;
}

SqlSource pgSource(PgConnection& conn) {
    return SqlSource{[&conn](const std::string& sql) { return allRows(conn.exec(sql)); },
                     [](const std::string& seconds) {
                         return "to_char(to_timestamp(" + seconds + ") AT TIME ZONE 'UTC', 'YYYY-MM-DD')";
                     },
                     [&conn](const std::string& sql) { return conn.exec(sql).changes(); }, " FOR UPDATE",
                     [&conn](const std::string& sql, const std::vector<SqlParam>& params) {
                         return allRows(conn.execParams(numberedParameters(sql), params));
                     }};
}

}  // namespace tovrel::server
