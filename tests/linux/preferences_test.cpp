#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iostream>
#include <random>
#include <sstream>
#include <thread>

#include "process_support.h"
#include "tovrel/linux/sqlite_preferences.h"
#include "tovrel/linux/xdg_paths.h"

namespace tovrel::linuxbackend {
namespace {

using test::TempDir;

class SqlitePreferencesTest : public ::testing::Test {
  protected:
    TempDir directory;
    std::filesystem::path file() const { return directory.path() / "app" / "preferences.sqlite"; }
};

TEST_F(SqlitePreferencesTest, StoresEveryJsonKindAndReadsItBackAfterReopening) {
    const nlohmann::json location = {{"latitude", 48.137}, {"longitude", 11.575}, {"timestamp", 1.75e9}};
    {
        SqlitePreferences prefs(file());
        prefs.setObject("adid", "6D92078A-8246-4BA4-AE5B-76104861E7DC");
        prefs.setObject("currentLocation", location);
        prefs.setObject("checkedPath", 2);
        prefs.setObject("flag", true);
        prefs.setObject("nothing", nullptr);
        prefs.setObject("checkedPath", 3);
        prefs.setObject("text", "caf\xc3\xa9 \"quoted\"");
    }
    SqlitePreferences prefs(file());
    EXPECT_EQ(prefs.objectForKey("adid"), nlohmann::json("6D92078A-8246-4BA4-AE5B-76104861E7DC"));
    EXPECT_EQ(prefs.objectForKey("currentLocation"), location);
    EXPECT_EQ(prefs.objectForKey("checkedPath"), nlohmann::json(3));
    EXPECT_EQ(prefs.objectForKey("flag"), nlohmann::json(true));
    EXPECT_EQ(prefs.objectForKey("nothing"), nlohmann::json(nullptr));
    EXPECT_EQ(prefs.objectForKey("text"), nlohmann::json("caf\xc3\xa9 \"quoted\""));
    EXPECT_EQ(prefs.objectForKey("missing"), std::nullopt);
    EXPECT_EQ(prefs.keys(), (std::vector<std::string>{"adid", "checkedPath", "currentLocation", "flag",
                                                      "nothing", "text"}));
}

TEST_F(SqlitePreferencesTest, RemoveIsPermanentAndHarmlessForMissingKeys) {
    {
        SqlitePreferences prefs(file());
        prefs.setObject("sessionid", "abc");
        prefs.removeObject("sessionid");
        prefs.removeObject("never-there");
    }
    SqlitePreferences prefs(file());
    EXPECT_EQ(prefs.objectForKey("sessionid"), std::nullopt);
}

TEST_F(SqlitePreferencesTest, UsesWriteAheadLogAndOwnerOnlyDirectory) {
    SqlitePreferences prefs(file());
    prefs.setObject("k", 1);
    EXPECT_TRUE(std::filesystem::exists(file().string() + "-wal"));
    const auto perms = std::filesystem::status(file().parent_path()).permissions();
    EXPECT_EQ(perms & std::filesystem::perms::all, std::filesystem::perms::owner_all);
}

TEST_F(SqlitePreferencesTest, CorruptValueReadsAsAbsentAndIsReported) {
    {
        SqlitePreferences prefs(file());
        prefs.setObject("k", 1);
    }
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(file().c_str(), &db), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(db, "UPDATE preferences SET value = '{broken' WHERE key = 'k';", nullptr, nullptr,
                           nullptr),
              SQLITE_OK);
    sqlite3_close(db);
    std::vector<std::string> errors;
    SqlitePreferencesOptions options;
    options.onError = [&](const std::string& message) { errors.push_back(message); };
    SqlitePreferences prefs(file(), options);
    EXPECT_EQ(prefs.objectForKey("k"), std::nullopt);
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_NE(errors[0].find("\"k\""), std::string::npos);
}

TEST_F(SqlitePreferencesTest, UnopenableFileThrowsWithThePath) {
    const auto blocker = directory.path() / "not-a-directory";
    { std::ofstream(blocker) << "x"; }
    try {
        SqlitePreferences prefs(blocker / "preferences.sqlite");
        FAIL() << "expected an exception";
    } catch (const std::runtime_error& error) {
        EXPECT_NE(std::string(error.what()).find(blocker.string()), std::string::npos);
    }
}

TEST_F(SqlitePreferencesTest, ConcurrentWritersFromManyThreadsAllLand) {
    SqlitePreferences prefs(file());
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&prefs, t] {
            for (int i = 0; i < 50; ++i) {
                prefs.setObject("t" + std::to_string(t) + "-" + std::to_string(i), i);
                (void)prefs.objectForKey("t0-0");
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(prefs.keys().size(), 200u);
}

TEST(XdgPathsTest, DataHomeFollowsXdgThenHome) {
    const char* oldXdg = std::getenv("XDG_DATA_HOME");
    const std::string savedXdg = oldXdg != nullptr ? oldXdg : "";
    const char* oldHome = std::getenv("HOME");
    const std::string savedHome = oldHome != nullptr ? oldHome : "";

    ::setenv("XDG_DATA_HOME", "/srv/data", 1);
    EXPECT_EQ(applicationDataDirectory("com.example.shop"),
              std::filesystem::path("/srv/data/tovrel/com.example.shop"));
    ::setenv("XDG_DATA_HOME", "relative/ignored", 1);
    ::setenv("HOME", "/home/kiosk", 1);
    EXPECT_EQ(xdgDataHome(), std::filesystem::path("/home/kiosk/.local/share"));
    ::unsetenv("XDG_DATA_HOME");
    EXPECT_EQ(SqlitePreferences::defaultFile("a/b"),
              std::filesystem::path("/home/kiosk/.local/share/tovrel/a_b/preferences.sqlite"));
    EXPECT_EQ(applicationDataDirectory(".hidden"),
              std::filesystem::path("/home/kiosk/.local/share/tovrel/_hidden"));

    savedXdg.empty() ? ::unsetenv("XDG_DATA_HOME") : ::setenv("XDG_DATA_HOME", savedXdg.c_str(), 1);
    savedHome.empty() ? ::unsetenv("HOME") : ::setenv("HOME", savedHome.c_str(), 1);
}

/// The child: commits numbered writes as fast as it can and reports each commit on `reportFd` once
/// setObject has returned. Never returns.
[[noreturn]] void writeUntilKilled(const std::filesystem::path& file, int reportFd, int firstNumber) {
    try {
        SqlitePreferences prefs(file);
        std::mt19937 random(static_cast<unsigned>(firstNumber));
        for (int n = firstNumber;; ++n) {
            // Values of varying size spread commits over one or several pages.
            const std::string pad(random() % 6000, static_cast<char>('a' + n % 26));
            prefs.setObject("n" + std::to_string(n), {{"n", n}, {"pad", pad}});
            prefs.setObject("last", n);
            if (n % 7 == 0) {
                prefs.removeObject("n" + std::to_string(n - 3));
            }
            const std::string line = std::to_string(n) + "\n";
            if (::write(reportFd, line.data(), line.size()) < 0) {
                ::_exit(3);
            }
        }
    } catch (...) {
        ::_exit(2);
    }
}

TEST_F(SqlitePreferencesTest, EveryReportedCommitSurvivesKillNineOfTheWriter) {
    constexpr int kKills = 100;
    std::mt19937 random(20250601);
    int nextNumber = 0;
    int lastReported = -1;
    int totalCommits = 0;
    for (int run = 0; run < kKills; ++run) {
        int pipeFds[2];
        ASSERT_EQ(::pipe(pipeFds), 0);
        const int first = nextNumber;
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            ::close(pipeFds[0]);
            writeUntilKilled(file(), pipeFds[1], first);
        }
        ::close(pipeFds[1]);
        // Let it commit for a random while, reading its reports, then kill it mid-flight.
        const auto killAt =
            std::chrono::steady_clock::now() + std::chrono::microseconds(2000 + random() % 80000);
        std::string pending;
        while (std::chrono::steady_clock::now() < killAt) {
            char buffer[4096];
            pollfd fd{pipeFds[0], POLLIN, 0};
            if (::poll(&fd, 1, 1) > 0) {
                const ssize_t got = ::read(pipeFds[0], buffer, sizeof buffer);
                if (got <= 0) {
                    break;
                }
                pending.append(buffer, static_cast<std::size_t>(got));
            }
        }
        ::kill(child, SIGKILL);
        int status = 0;
        ::waitpid(child, &status, 0);
        ASSERT_TRUE(WIFSIGNALED(status)) << "the writer ended by itself with status " << status;
        char buffer[4096];
        ssize_t got = 0;
        while ((got = ::read(pipeFds[0], buffer, sizeof buffer)) > 0) {
            pending.append(buffer, static_cast<std::size_t>(got));
        }
        ::close(pipeFds[0]);
        std::istringstream lines(pending);
        std::string line;
        int reportedThisRun = first - 1;
        while (std::getline(lines, line)) {
            reportedThisRun = std::stoi(line);
        }
        totalCommits += reportedThisRun - first + 1;

        SqlitePreferences check(file());
        const auto last = check.objectForKey("last");
        if (reportedThisRun >= first) {
            ASSERT_TRUE(last.has_value());
            EXPECT_GE(last->get<int>(), reportedThisRun) << "run " << run;
            lastReported = reportedThisRun;
        }
        for (int n = std::max(0, first - 3); n <= reportedThisRun; ++n) {
            // Commit n+3 removes n when n+3 is a multiple of 7; the first unreported commit may have done so
            // too.
            const bool removed = n + 3 >= first && (n + 3) % 7 == 0 && n + 3 <= reportedThisRun;
            const bool maybeRemoved = n + 3 == reportedThisRun + 1 && (n + 3) % 7 == 0;
            const auto value = check.objectForKey("n" + std::to_string(n));
            if (removed) {
                EXPECT_FALSE(value.has_value()) << "n" << n << " was removed in a reported commit";
            } else if (n >= first && !maybeRemoved) {
                ASSERT_TRUE(value.has_value()) << "run " << run << ": reported commit n" << n << " is lost";
                EXPECT_EQ((*value)["n"], n);
            }
        }
        // The next writer continues after everything that may have been committed unreported.
        nextNumber = std::max(reportedThisRun, last ? last->get<int>() : -1) + 1;
    }
    EXPECT_GT(totalCommits, kKills) << "the writers committed too little to test anything";
    EXPECT_GE(lastReported, 0);
    std::cout << "kill -9 runs: " << kKills << ", reported commits checked: " << totalCommits
              << ", lost: 0\n";
}

}  // namespace
}  // namespace tovrel::linuxbackend
