#pragma once

#include <string>
#include <string_view>

namespace tovrel::server {

/// What the database and the memory keep of a session key: its SHA-256 as 64 lowercase hex digits. A
/// copy of the database (a backup, a stolen file) then holds no key a client could present. Pure; any
/// thread.
std::string sessionKeyHash(std::string_view key);

/// A key of at most 32 bytes standing for `text` in a table kept in memory: `text` itself when it is that
/// short, else '#' and the first 16 bytes of its SHA-256. A table keyed by client data then holds a
/// bounded number of bytes per entry whatever the client sends. Pure; any thread.
std::string compactKey(std::string_view text);

/// HMAC-SHA256 of `text` under `key` as 64 lowercase hex digits: a stand-in for `text` that only a holder
/// of the key can make again. Pure; any thread.
std::string keyedHash(std::string_view key, std::string_view text);

/// A new secret: 32 lowercase hex digits (128 bits) from OpenSSL's random generator, for session keys
/// and generated app keys. Throws std::runtime_error when the generator fails. Any thread.
std::string randomKey();

}  // namespace tovrel::server
