#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "admin/admin_reply.h"

namespace tovrel::server {

/// One request under /admin/v1/tokens or /admin/v1/audit: its method, its path's segments after /admin/v1/,
/// its whole target (for the query), its body and the name of the token that makes it ("" from the
/// command line).
struct AccessAdminRequest {
    std::string_view method;
    const std::vector<std::string>& parts;
    std::string_view target;
    const std::string& body;
    std::string_view by;
    StoreTransact transact;
    double now = 0;
};

/// GET tokens (names and roles), POST tokens {"name", "role"} (201 with the token, answered this once;
/// 409 when the name is taken), DELETE tokens/NAME. Throws ApiError for what the request gets wrong.
/// Caller's thread (the admin thread, or the command line).
AdminJsonReply tokensRequest(const AccessAdminRequest& r);

/// GET audit?limit=N&before=ID: the audit trail, newest first, a page of at most N (default 100, at most
/// 1000) entries with ids below ID; "next" is the id to ask before for the page after. Caller's thread.
AdminJsonReply auditRequest(const AccessAdminRequest& r);

}  // namespace tovrel::server
