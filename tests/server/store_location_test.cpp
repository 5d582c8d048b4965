// Which store a --db value names, and how it is shown in logs and messages.
#include <gtest/gtest.h>

#include "store/store.h"

namespace tovrel::server {
namespace {

TEST(StoreLocation, PostgresAddressesAreToldFromFiles) {
    EXPECT_TRUE(isPostgresLocation("postgresql://db.example/tovrel"));
    EXPECT_TRUE(isPostgresLocation("postgres://u@127.0.0.1:5432/t"));
    EXPECT_FALSE(isPostgresLocation("postgresql.db"));
    EXPECT_FALSE(isPostgresLocation("./postgresql://x"));
    EXPECT_FALSE(isPostgresLocation(":memory:"));
    EXPECT_FALSE(isPostgresLocation(""));
}

TEST(StoreLocation, PasswordsAreNeverShown) {
    EXPECT_EQ(displayLocation("postgresql://tovrel:s3cr:et@db.example:5432/tovrel"),
              "postgresql://tovrel@db.example:5432/tovrel");
    EXPECT_EQ(displayLocation("postgresql://tovrel@db.example/tovrel?password=x&sslmode=require"),
              "postgresql://tovrel@db.example/tovrel");
    EXPECT_EQ(displayLocation("postgresql://db.example:5432/tovrel"), "postgresql://db.example:5432/tovrel");
    EXPECT_EQ(displayLocation("postgresql://"), "postgresql://");
    EXPECT_EQ(displayLocation("/var/lib/tovrel/a:b@c.db"), "/var/lib/tovrel/a:b@c.db");
}

}  // namespace
}  // namespace tovrel::server
