#include "admin/admin_tokens.h"

#include <openssl/crypto.h>

#include <cctype>

#include "common/session_keys.h"

namespace tovrel::server {

namespace {

// Longer presented tokens are not hashed: no token made here or read from a file is this long.
constexpr std::size_t kLongestToken = 1024;

}  // namespace

AdminTokens::AdminTokens(std::string fileToken)
    : fileTokenHash_(fileToken.empty() ? std::string() : sessionKeyHash(fileToken)),
      known_(std::make_shared<const Known>()) {}

std::shared_ptr<const AdminTokens::Known> AdminTokens::known() const {
    tovrel::platform::Lock lock(mutex_);
    return known_;
}

std::optional<AdminIdentity> AdminTokens::find(std::string_view token) const {
    if (token.empty() || token.size() > kLongestToken) {
        return std::nullopt;
    }
    const std::string hash = sessionKeyHash(token);
    if (!fileTokenHash_.empty() && CRYPTO_memcmp(hash.data(), fileTokenHash_.data(), hash.size()) == 0) {
        return AdminIdentity{std::string(kFileTokenName), Role::admin};
    }
    const auto current = known();
    const auto found = current->byHash.find(hash);
    return found == current->byHash.end() ? std::nullopt : std::optional(found->second);
}

std::optional<Role> AdminTokens::roleOf(std::string_view name) const {
    if (name == kFileTokenName) {
        return fileTokenHash_.empty() ? std::nullopt : std::optional(Role::admin);
    }
    const auto current = known();
    const auto found = current->byName.find(std::string(name));
    return found == current->byName.end() ? std::nullopt : std::optional(found->second);
}

bool AdminTokens::any() const {
    return !fileTokenHash_.empty() || !known()->byHash.empty();
}

void AdminTokens::replace(const std::vector<StoredToken>& stored) {
    auto fresh = std::make_shared<Known>();
    for (const StoredToken& token : stored) {
        if (const auto role = roleNamed(token.role)) {
            fresh->byHash.emplace(token.hash, AdminIdentity{token.name, *role});
            fresh->byName.emplace(token.name, *role);
        }
    }
    tovrel::platform::Lock lock(mutex_);
    known_ = std::move(fresh);
}

std::string newAdminToken() {
    return "tvr_" + randomKey() + randomKey();
}

std::string tokenNameProblem(std::string_view name) {
    constexpr std::size_t kLongestName = 64;
    if (name.empty() || name.size() > kLongestName) {
        return "a token's name has 1 to 64 characters";
    }
    for (const char c : name) {
        if (std::isalnum(static_cast<unsigned char>(c)) == 0 && c != '.' && c != '_' && c != '-') {
            return "a token's name has only letters, digits, '.', '_' and '-'";
        }
    }
    if (name == AdminTokens::kFileTokenName) {
        return "\"" + std::string(name) + "\" names the token of --admin-token-file";
    }
    return "";
}

}  // namespace tovrel::server
