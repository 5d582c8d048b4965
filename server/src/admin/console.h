#pragma once

#include <string>
#include <string_view>

#include "admin/admin_tokens.h"
#include "admin/console_sessions.h"
#include "http/http_server.h"
#include "http/static_files.h"

namespace tovrel::server {

/// The campaign console on the admin listener: its pages under /console/ (the built bundle's folder)
/// and its sign-in at /console/api/session, where an admin token is exchanged for a session cookie
/// (HttpOnly, SameSite=Strict, Secure over TLS) and an anti-forgery token. With that cookie the page
/// uses the admin API like a script with the bearer token; each change must also carry the token in
/// the X-CSRF-Token header and come from the console's own origin. Thread-safe.
class Console {
  public:
    static constexpr std::string_view kPrefix = "/console/";
    static constexpr std::string_view kApiPrefix = "/console/api/";
    /// The server's content folder (offers' media pages), for the previews.
    static constexpr std::string_view kContentPrefix = "/console/content/";
    static constexpr std::string_view kSessionPath = "/console/api/session";

    /// `folder` empty: the console is not installed (its pages are 404). `tokens`: the admin tokens that
    /// may sign in, which outlive the console. `content`: the pages the public listener serves (may be
    /// empty).
    Console(const std::string& folder, const AdminTokens& tokens, const std::string& content = {});

    /// Whether `path` is the console's.
    static bool owns(std::string_view path);

    /// Answers a request for the console's pages or its sign-in. `now` is the steady clock; `signedIn`
    /// (when given) is set to who signed in, for the audit trail. Any thread.
    HttpReply handle(const HttpRequest& request, double now,
                     std::optional<AdminIdentity>* signedIn = nullptr);

    enum class Access {
        none,     ///< no console session: the bearer token decides
        granted,  ///< a live session, and for a change the right anti-forgery token from the console's origin
        forged,   ///< a live session's cookie without the rest: refused
    };
    /// How an admin API request stands with the console's sessions; `who` is set to the session's token
    /// when there is a live one. A session whose token was revoked has ended. Any thread.
    Access check(const HttpRequest& request, double now, AdminIdentity* who = nullptr);

  private:
    HttpReply signIn(const HttpRequest& request, double now, std::optional<AdminIdentity>* signedIn);
    HttpReply page(const HttpRequest& request) const;

    StaticFiles files_;
    StaticFiles content_;
    const bool installed_;
    const AdminTokens& tokens_;
    ConsoleSessions sessions_;
};

/// Whether a request's Origin header, when it has one, names the server it was sent to. Pure.
bool sameOrigin(const HttpRequest& request);

}  // namespace tovrel::server
