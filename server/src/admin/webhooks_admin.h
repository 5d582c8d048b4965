#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "admin/admin_reply.h"

namespace tovrel::server {

/// One request under /admin/v1/webhooks: its method, its path's segments after /admin/v1/ ("webhooks",
/// "3", "replay", ...), its whole target (for the query) and its body.
struct WebhookAdminRequest {
    std::string_view method;
    const std::vector<std::string>& parts;
    std::string_view target;
    const std::string& body;
    bool allowPrivate = false;  ///< endpoints may be on loopback, link-local or private addresses
    StoreTransact transact;
    double now = 0;  ///< the server's clock
};

using WebhookAdminReply = AdminJsonReply;

/// Lists, adds, changes and removes webhook endpoints, rotates their secrets, queues a test event, sends
/// messages again and lists the latest attempts (the routes are documented in docs/webhooks.md). A secret
/// is answered whole only when it is made. Throws ApiError for what the request gets wrong. Caller's thread
/// (the admin thread, or the command line).
WebhookAdminReply webhooksRequest(const WebhookAdminRequest& r);

}  // namespace tovrel::server
