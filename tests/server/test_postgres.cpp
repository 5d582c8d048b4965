#include "test_postgres.h"

#include <fcntl.h>
#include <glob.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <libpq-fe.h>
#include <netinet/in.h>
#include <pwd.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include "store/store.h"
#include "support/loopback_port.h"

namespace tovrel::server::test {

namespace fs = std::filesystem;

namespace {

std::string& reason() {
    static std::string text;
    return text;
}

// The folder of the newest PostgreSQL installed the Debian way, "" when there is none.
std::string binaries() {
    glob_t found{};
    std::string folder;
    if (glob("/usr/lib/postgresql/*/bin/postgres", 0, nullptr, &found) == 0 && found.gl_pathc > 0) {
        folder = fs::path(found.gl_pathv[found.gl_pathc - 1]).parent_path().string();
    }
    globfree(&found);
    return folder;
}

// Runs argv as `user` (nullptr: as ourselves) with output to logFile; returns the child's pid.
int spawn(const std::vector<std::string>& args, const passwd* user, const std::string& logFile) {
    std::vector<char*> argv;
    for (const std::string& a : args) {
        argv.push_back(const_cast<char*>(a.c_str()));
    }
    argv.push_back(nullptr);
    const pid_t pid = ::fork();
    if (pid < 0) {
        throw std::runtime_error("fork failed");
    }
    if (pid == 0) {
        const int log = ::open(logFile.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        if (log >= 0) {
            ::dup2(log, 1);
            ::dup2(log, 2);
        }
        if (user != nullptr &&
            (::setgroups(0, nullptr) != 0 || ::setgid(user->pw_gid) != 0 || ::setuid(user->pw_uid) != 0)) {
            ::_exit(126);
        }
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    return pid;
}

int waitFor(int pid) {
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128;
}

std::string readFile(const std::string& path) {
    std::string text;
    if (FILE* f = std::fopen(path.c_str(), "rb")) {
        char buffer[4096];
        for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, f)) > 0;) {
            text.append(buffer, n);
        }
        std::fclose(f);
    }
    return text;
}

// Runs one statement on the server's "postgres" database; throws with the server's message.
void execute(const std::string& address, const std::string& sql) {
    std::unique_ptr<PGconn, void (*)(PGconn*)> conn(PQconnectdb(address.c_str()), PQfinish);
    if (PQstatus(conn.get()) != CONNECTION_OK) {
        throw std::runtime_error(PQerrorMessage(conn.get()));
    }
    std::unique_ptr<PGresult, void (*)(PGresult*)> r(PQexec(conn.get(), sql.c_str()), PQclear);
    if (PQresultStatus(r.get()) != PGRES_COMMAND_OK && PQresultStatus(r.get()) != PGRES_TUPLES_OK) {
        throw std::runtime_error(PQresultErrorMessage(r.get()));
    }
}

std::unique_ptr<TestPostgres>& instance() {
    static std::unique_ptr<TestPostgres> server;
    return server;
}

// Stops the server after the program's last test.
class Environment : public ::testing::Environment {
  public:
    void TearDown() override { instance().reset(); }
};

[[maybe_unused]] const auto* const kEnvironment = ::testing::AddGlobalTestEnvironment(new Environment);

}  // namespace

TestPostgres* TestPostgres::shared() {
    static bool tried = false;
    if (!tried) {
        tried = true;
        std::unique_ptr<TestPostgres> server(new TestPostgres);
        try {
            server->start();
            instance() = std::move(server);
        } catch (const std::exception& e) {
            reason() = e.what();
        }
    }
    return instance().get();
}

const std::string& TestPostgres::unavailableReason() {
    return reason();
}

void TestPostgres::start() {
    const std::string bin = binaries();
    if (bin.empty()) {
        throw std::runtime_error(
            "PostgreSQL is not installed (no /usr/lib/postgresql/*/bin/postgres; scripts/setup.sh installs "
            "it)");
    }
    std::string pattern = (fs::temp_directory_path() / "tovrel-pg-XXXXXX").string();
    if (!::mkdtemp(pattern.data())) {
        throw std::runtime_error("mkdtemp failed");
    }
    folder_ = pattern;
    const passwd* user = nullptr;
    if (::geteuid() == 0) {
        // PostgreSQL refuses to run as root.
        user = ::getpwnam("nobody");
        if (user == nullptr) {
            throw std::runtime_error("running as root and there is no user \"nobody\" to run PostgreSQL as");
        }
        fs::permissions(folder_, fs::perms::owner_all);
        if (::chown(folder_.c_str(), user->pw_uid, user->pw_gid) != 0) {
            throw std::runtime_error("cannot give " + folder_ + " to nobody");
        }
    }
    const std::string data = folder_ + "/data";
    const std::string log = folder_ + "/server.log";
    const int initdb = waitFor(spawn(
        {bin + "/initdb", "-D", data, "-A", "trust", "-U", "postgres", "-E", "UTF8", "--locale=C", "-N"},
        user, log));
    if (initdb != 0) {
        throw std::runtime_error("initdb failed: " + readFile(log));
    }
    for (int attempt = 0; attempt < 5 && pid_ < 0; ++attempt) {
        port_ = tovrel::test::freeLoopbackPort();
        const int pid = spawn({bin + "/postgres", "-D", data, "-k", folder_, "-p", std::to_string(port_),
                               "-c", "listen_addresses=127.0.0.1", "-c", "fsync=off", "-c",
                               "synchronous_commit=off", "-c", "full_page_writes=off"},
                              user, log);
        const std::string ping =
            "host=127.0.0.1 port=" + std::to_string(port_) + " user=postgres dbname=postgres";
        for (int i = 0; i < 300; ++i) {
            if (PQping(ping.c_str()) == PQPING_OK) {
                pid_ = pid;
                break;
            }
            int status = 0;
            if (::waitpid(pid, &status, WNOHANG) == pid) {
                break;  // it stopped, most likely because another program took the port: try another
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        if (pid_ < 0 && ::kill(pid, 0) == 0) {
            ::kill(pid, SIGKILL);
            waitFor(pid);
        }
    }
    if (pid_ < 0) {
        throw std::runtime_error("PostgreSQL did not start: " + readFile(log));
    }
    execute(address("postgres"), "CREATE DATABASE tovrel_template");
    try {
        openStore(address("tovrel_template"));
    } catch (const std::exception& e) {
        throw std::runtime_error(std::string("the server's schema cannot be made: ") + e.what());
    }
}

std::string TestPostgres::address(const std::string& database) const {
    return "postgresql://postgres@127.0.0.1:" + std::to_string(port_) + "/" + database;
}

std::string TestPostgres::newDatabase() {
    const std::string name = "test" + std::to_string(++databases_);
    // The template's last connections may still be closing.
    for (int attempt = 0;; ++attempt) {
        try {
            execute(address("postgres"), "CREATE DATABASE " + name + " TEMPLATE tovrel_template");
            return address(name);
        } catch (const std::runtime_error& e) {
            if (attempt == 100 || std::string(e.what()).find("being accessed") == std::string::npos) {
                throw;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    }
}

void TestPostgres::stop() {
    if (pid_ > 0) {
        ::kill(pid_, SIGINT);  // fast shutdown
        for (int i = 0; i < 200; ++i) {
            if (::waitpid(pid_, nullptr, WNOHANG) == pid_) {
                pid_ = -1;
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            waitFor(pid_);
            pid_ = -1;
        }
    }
    if (!folder_.empty()) {
        std::error_code ec;
        fs::remove_all(folder_, ec);
    }
}

TestPostgres::~TestPostgres() {
    stop();
}

}  // namespace tovrel::server::test
