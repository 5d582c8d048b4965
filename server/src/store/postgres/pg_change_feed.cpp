#include "store/postgres/pg_change_feed.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <system_error>
#include <vector>

namespace tovrel::server {

PgChangeFeed::PgChangeFeed(std::string location, const StoreOptions& options, std::string origin,
                           ChangeListener& listener)
    : location_(std::move(location)), options_(options), origin_(std::move(origin)), listener_(listener) {
    wakeFd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (wakeFd_ < 0) {
        throw std::system_error(errno, std::generic_category(), "eventfd");
    }
    thread_ = std::thread([this] { run(); });
}

PgChangeFeed::~PgChangeFeed() {
    stopping_ = true;
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = ::write(wakeFd_, &one, sizeof one);
    thread_.join();
    ::close(wakeFd_);
}

bool PgChangeFeed::wait(int socket, Clock::time_point until) {
    pollfd fds[2] = {{wakeFd_, POLLIN, 0}, {socket, POLLIN, 0}};
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now()).count();
    const int timeout = static_cast<int>(std::clamp<decltype(left)>(left, 0, 60'000));
    ::poll(fds, socket >= 0 ? 2 : 1, timeout);
    return !stopping_;
}

bool PgChangeFeed::dispatch(PgConnection& conn) {
    bool catalog = false;
    std::vector<int64_t> devices;
    for (const auto& [channel, payload] : conn.takeNotifications()) {
        if (channel == kCatalogChannel) {
            catalog = true;
            continue;
        }
        const std::size_t space = payload.find(' ');
        if (space == std::string::npos || std::string_view(payload).substr(space + 1) == origin_) {
            continue;
        }
        int64_t device = 0;
        if (std::from_chars(payload.data(), payload.data() + space, device).ec == std::errc()) {
            devices.push_back(device);
        }
    }
    if (!devices.empty()) {
        listener_.devicesChanged(devices);
    }
    return catalog;
}

void PgChangeFeed::run() {
    const auto checkEvery = std::chrono::duration_cast<Clock::duration>(
        std::chrono::duration<double>(std::max(0.05, options_.changeCheckSeconds)));
    std::unique_ptr<PgConnection> conn;
    auto backoff = kPgFirstBackoff;
    auto nextCheck = Clock::now();
    while (!stopping_) {
        if (!conn) {
            try {
                conn = std::make_unique<PgConnection>(location_, options_.busyTimeoutMs);
                conn->exec(std::string("LISTEN ") + kCatalogChannel + "; LISTEN " + kDeviceChannel);
            } catch (const std::exception&) {
                conn.reset();
                if (!wait(-1, Clock::now() + backoff)) {
                    break;
                }
                backoff = std::min(backoff * 2, kPgMaxBackoff);
                continue;
            }
            backoff = kPgFirstBackoff;
            // Whatever was notified while nobody listened is lost: start again from the database.
            listener_.resynchronise();
            nextCheck = Clock::now();
        }
        const bool catalogChanged = dispatch(*conn);
        if (catalogChanged || Clock::now() >= nextCheck) {
            try {
                const PgResult version = conn->exec("SELECT version FROM tovrel_catalog_state");
                nextCheck = Clock::now() + checkEvery;
                listener_.catalogVersion(static_cast<std::uint64_t>(version.integer(0, 0)));
            } catch (const std::exception&) {
                conn.reset();
            }
            continue;
        }
        if (!wait(conn->socket(), nextCheck)) {
            break;
        }
        if (!conn->consumeInput()) {
            conn.reset();
        }
    }
}

}  // namespace tovrel::server
