#include "store/postgres/pg_group_commit.h"

#include <vector>

namespace tovrel::server {

void PgGroupCommit::commit(std::span<Write* const> writes) {
    auto conn = pool_.acquire();
    std::vector<const PgStatement*> statements;
    statements.reserve(writes.size());
    for (const Write* write : writes) {
        statements.push_back(&write->item);
    }
    const std::optional<PgRefusal> refusal = conn->execTogether(statements);
    if (!refusal) {
        return;
    }
    if (writes.size() == 1) {
        writes.front()->error = std::make_exception_ptr(refusal->error);
        return;
    }
    for (Write* write : writes) {
        try {
            conn->execParams(write->item.sql, write->item.params);
        } catch (...) {
            write->error = std::current_exception();
        }
    }
}

}  // namespace tovrel::server
