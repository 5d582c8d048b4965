#include "admin/console.h"

#include <openssl/crypto.h>

#include <cmath>

#include "common/request_fields.h"

namespace tovrel::server {

namespace {

// The pages load nothing from elsewhere but map tiles and the media pages an offer preview frames;
// no inline script runs and no other site may frame the console.
constexpr const char* kPagePolicy =
    "default-src 'self'; img-src 'self' data: http: https:; frame-src http: https:; object-src 'none'; "
    "base-uri 'none'; form-action 'self'; frame-ancestors 'none'";
constexpr std::size_t kMaxTokenBytes = 1024;

HttpReply reply(unsigned status, const nlohmann::json& body) {
    HttpReply out;
    out.status = status;
    out.body = body.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    out.route = Route::admin;
    out.headers.emplace_back("Cache-Control", "no-store");
    return out;
}

HttpReply refusal(unsigned status, const std::string& message) {
    HttpReply out = reply(status, nlohmann::json::object());
    out.body = errorJson(message);
    return out;
}

std::string sessionCookie(std::string_view value, bool secure, bool expired) {
    std::string cookie(ConsoleSessions::kCookie);
    cookie += '=';
    cookie += value;
    cookie += "; Path=/; HttpOnly; SameSite=Strict";
    if (expired) {
        cookie += "; Max-Age=0";
    }
    if (secure) {
        cookie += "; Secure";
    }
    return cookie;
}

bool equalSecrets(std::string_view a, std::string_view b) {
    return a.size() == b.size() && CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

}  // namespace

bool sameOrigin(const HttpRequest& request) {
    if (request.origin.empty()) {
        return true;
    }
    const std::string_view scheme = request.tls ? "https://" : "http://";
    return request.origin.size() == scheme.size() + request.host.size() &&
           request.origin.substr(0, scheme.size()) == scheme &&
           request.origin.substr(scheme.size()) == request.host;
}

Console::Console(const std::string& folder, const AdminTokens& tokens, const std::string& content)
    : files_(folder), content_(content), installed_(!folder.empty()), tokens_(tokens) {}

bool Console::owns(std::string_view path) {
    return path == kPrefix.substr(0, kPrefix.size() - 1) || path.substr(0, kPrefix.size()) == kPrefix;
}

HttpReply Console::handle(const HttpRequest& request, double now, std::optional<AdminIdentity>* signedIn) {
    if (request.path == kSessionPath) {
        if (request.method == "POST") {
            return signIn(request, now, signedIn);
        }
        const std::string_view id = cookieValue(request.cookie, ConsoleSessions::kCookie);
        if (request.method == "GET") {
            const auto session = sessions_.touch(id, now);
            const std::optional<Role> role = session ? tokens_.roleOf(session->token) : std::nullopt;
            if (!role) {
                sessions_.close(id);
                return refusal(401, "sign in with an admin token");
            }
            return reply(200,
                         {{"csrf", session->csrf}, {"token", session->token}, {"role", roleName(*role)}});
        }
        if (request.method == "DELETE") {
            if (check(request, now) != Access::granted) {
                return refusal(403, "the request did not come from a signed-in console");
            }
            sessions_.close(id);
            HttpReply out = reply(200, nlohmann::json::object());
            out.headers.emplace_back("Set-Cookie", sessionCookie("", request.tls, true));
            return out;
        }
        HttpReply out = refusal(405, "use GET, POST or DELETE for " + std::string(kSessionPath));
        out.allow = "GET, POST, DELETE";
        return out;
    }
    if (request.path.substr(0, kApiPrefix.size()) == kApiPrefix) {
        return refusal(404, "there is no console endpoint " + std::string(request.path));
    }
    return page(request);
}

Console::Access Console::check(const HttpRequest& request, double now, AdminIdentity* who) {
    const std::string_view id = cookieValue(request.cookie, ConsoleSessions::kCookie);
    if (id.empty()) {
        return Access::none;
    }
    const auto session = sessions_.touch(id, now);
    if (!session) {
        return Access::none;
    }
    const std::optional<Role> role = tokens_.roleOf(session->token);
    if (!role) {
        sessions_.close(id);
        return Access::none;
    }
    if (who != nullptr) {
        *who = AdminIdentity{session->token, *role};
    }
    if (request.method == "GET" || request.method == "HEAD") {
        return Access::granted;
    }
    return sameOrigin(request) && equalSecrets(request.csrf, session->csrf) ? Access::granted
                                                                            : Access::forged;
}

HttpReply Console::signIn(const HttpRequest& request, double now, std::optional<AdminIdentity>* signedIn) {
    if (!tokens_.any()) {
        return refusal(403, "the admin API is off: start tovrel-server with --admin-token-file");
    }
    if (!sameOrigin(request)) {
        return refusal(403, "the request did not come from the console");
    }
    if (const double wait = sessions_.signInDelay(request.remote, now); wait > 0) {
        HttpReply out = refusal(429, "too many wrong tokens from this address; try again in " +
                                         std::to_string(static_cast<int>(std::ceil(wait))) + " s");
        out.retryAfter = "60";
        return out;
    }
    std::string token;
    try {
        token = requireString(parseObjectBody(request.body), "token", kMaxTokenBytes);
    } catch (const ApiError& e) {
        return refusal(e.status(), e.what());
    }
    const std::optional<AdminIdentity> who = tokens_.find(token);
    if (!who) {
        sessions_.signInFailed(request.remote, now);
        return refusal(401, "the token was not accepted");
    }
    if (signedIn != nullptr) {
        *signedIn = who;
    }
    const ConsoleSessions::Session session = sessions_.open(now, who->name);
    HttpReply out = reply(200, {{"csrf", session.csrf}, {"token", who->name}, {"role", roleName(who->role)}});
    out.headers.emplace_back("Set-Cookie", sessionCookie(session.id, request.tls, false));
    return out;
}

HttpReply Console::page(const HttpRequest& request) const {
    HttpReply out;
    out.route = Route::page;
    if (request.method != "GET" && request.method != "HEAD") {
        out = refusal(405, "use GET for the console's pages");
        out.allow = "GET, HEAD";
        return out;
    }
    if (!installed_) {
        return refusal(404, "the console is not installed with this server");
    }
    const bool content = request.path.substr(0, kContentPrefix.size()) == kContentPrefix;
    const std::string_view rest = request.target.substr(
        std::min(request.target.size(), (content ? kContentPrefix.size() : kPrefix.size()) - 1));
    const StaticTarget target = (content ? content_ : files_).resolve(rest.empty() ? "/" : rest);
    if (target.status != 200) {
        return refusal(target.status, target.error);
    }
    out.file = target.file;
    out.fileType = target.contentType;
    out.headOnly = request.method == "HEAD";
    // A media page runs as an opaque origin even when opened on its own: it is not the console's code.
    out.headers.emplace_back("Content-Security-Policy",
                             content ? std::string(kPagePolicy) + "; sandbox" : kPagePolicy);
    out.headers.emplace_back("X-Content-Type-Options", "nosniff");
    out.headers.emplace_back("Referrer-Policy", "no-referrer");
    // The bundle's names change with its content; the page itself must be asked for again.
    out.headers.emplace_back("Cache-Control", !content && rest.substr(0, 8) == "/assets/"
                                                  ? "max-age=31536000, immutable"
                                                  : "no-cache");
    return out;
}

}  // namespace tovrel::server
