#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "admin/admin_routes.h"
#include "store/access_store.h"
#include "tovrel/platform/thread_annotations.h"

namespace tovrel::server {

/// Who made an admin request: the name of its token and the token's role.
struct AdminIdentity {
    std::string name;
    Role role = Role::read;
};

/// The admin tokens a server accepts: the named tokens of the store, as their hashes, refreshed from it
/// (by the server every kRefreshSeconds, and at once after a change made here), and the token of
/// --admin-token-file as an `admin` named kFileTokenName. Thread-safe.
class AdminTokens {
  public:
    static constexpr std::string_view kFileTokenName = "admin-token-file";
    /// Seconds between two reads of the stored tokens: a token revoked on one replica stops working on
    /// the others within this (and one read).
    static constexpr double kRefreshSeconds = 0.25;

    /// `fileToken` empty: none.
    explicit AdminTokens(std::string fileToken);

    /// The identity of a presented token; nullopt when no token is it. Any thread.
    std::optional<AdminIdentity> find(std::string_view token) const;
    /// The role of the token named `name` now; nullopt when it was revoked. Any thread.
    std::optional<Role> roleOf(std::string_view name) const;
    /// Whether any token is accepted (else the admin API is off). Any thread.
    bool any() const;
    /// Takes the stored tokens as they are now (roles the program does not know are left out). Any thread.
    void replace(const std::vector<StoredToken>& stored);

  private:
    struct Known {
        std::unordered_map<std::string, AdminIdentity> byHash;
        std::unordered_map<std::string, Role> byName;
    };
    std::shared_ptr<const Known> known() const;

    const std::string fileTokenHash_;
    mutable tovrel::platform::Mutex mutex_;
    std::shared_ptr<const Known> known_ TOVREL_GUARDED_BY(mutex_);
};

/// A new admin token: "tvr_" and 64 hex digits (256 random bits). Any thread.
std::string newAdminToken();

/// Why `name` cannot name a token ("" when it can): 1 to 64 letters, digits, '.', '_' or '-', and not the
/// file token's name. Pure.
std::string tokenNameProblem(std::string_view name);

}  // namespace tovrel::server
