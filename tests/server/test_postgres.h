#pragma once

#include <cstdint>
#include <string>

namespace tovrel::server::test {

/// A PostgreSQL server of the test program's own: a cluster made by initdb in a temporary folder (as
/// the unprivileged user "nobody" when the tests run as root), listening on a free port of 127.0.0.1,
/// started on first use and removed when the program's tests end. Not thread-safe: tests call it
/// from their main thread.
class TestPostgres {
  public:
    /// The shared server, started now if it is not yet; nullptr when PostgreSQL (or PostGIS) is not
    /// installed here: unavailableReason() then says why.
    static TestPostgres* shared();
    static const std::string& unavailableReason();

    /// A new, empty database with the server's schema, as a postgresql:// address.
    std::string newDatabase();
    uint16_t port() const { return port_; }

    TestPostgres(const TestPostgres&) = delete;
    TestPostgres& operator=(const TestPostgres&) = delete;
    ~TestPostgres();

  private:
    TestPostgres() = default;
    void start();
    void stop();
    std::string address(const std::string& database) const;

    std::string folder_;
    int pid_ = -1;
    uint16_t port_ = 0;
    int databases_ = 0;
};

}  // namespace tovrel::server::test
