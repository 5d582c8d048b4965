#include "store/postgres/pg_group_commit.h"

#include <vector>

namespace tovrel::server {

namespace {

/// A committed write's error: its ifNoRow when its statement returned no row.
void checkRow(PgWrite& write, const PgResult& result, std::exception_ptr& error) {
    if (write.ifNoRow && result.rows() == 0) {
        error = std::move(write.ifNoRow);
    }
}

}  // namespace

void PgGroupCommit::commit(std::span<Write* const> writes) {
    auto conn = pool_.acquire();
    std::vector<const PgStatement*> statements;
    statements.reserve(writes.size());
    for (const Write* write : writes) {
        statements.push_back(&write->item.statement);
    }
    std::vector<PgResult> rows;
    const std::optional<PgRefusal> refusal = conn->execTogether(statements, &rows);
    if (!refusal) {
        for (std::size_t i = 0; i < writes.size() && i < rows.size(); ++i) {
            checkRow(writes[i]->item, rows[i], writes[i]->error);
        }
        return;
    }
    if (writes.size() == 1) {
        writes.front()->error = std::make_exception_ptr(refusal->error);
        return;
    }
    for (Write* write : writes) {
        try {
            checkRow(write->item, conn->execParams(write->item.statement.sql, write->item.statement.params),
                     write->error);
        } catch (...) {
            write->error = std::current_exception();
        }
    }
}

}  // namespace tovrel::server
