// "Places within 8047 m" on the same places: the server's in-memory grid against Redis GEOSEARCH.
//
//   tovrel_server_geo_bench [--places N] [--seconds S] [--radius M] [--redis-port P]
//
// Without --redis-port only the index is measured. run_index_vs_redis.sh starts a private Redis and
// passes its port.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "catalog/geo.h"
#include "catalog/spatial_index.h"

#ifdef TOVREL_WITH_HIREDIS
#include <hiredis/hiredis.h>
#endif

namespace {

using tovrel::server::SpatialIndex;
using Clock = std::chrono::steady_clock;

struct Options {
    std::size_t places = 1000000;
    double seconds = 5;
    double radius = 8047;
    int redisPort = 0;
};

struct Point {
    double lat;
    double lon;
};

// About 1000 km by 1000 km around southern Germany.
std::vector<Point> randomPoints(std::size_t n, uint32_t seed) {
    std::mt19937_64 rng(seed);
    std::uniform_real_distribution<double> lat(43.5, 52.5);
    std::uniform_real_distribution<double> lon(4.3, 17.7);
    std::vector<Point> points(n);
    for (Point& p : points) {
        p = {lat(rng), lon(rng)};
    }
    return points;
}

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

struct Measurement {
    double perSecond = 0;
    double averageHits = 0;
    double p50Micros = 0;
    double p99Micros = 0;
};

template <typename Query>
Measurement measure(const std::vector<Point>& queries, double seconds, Query&& query) {
    std::vector<double> latencies;
    std::size_t hits = 0;
    std::size_t done = 0;
    const auto start = Clock::now();
    while (secondsSince(start) < seconds) {
        const Point& q = queries[done % queries.size()];
        const auto t0 = Clock::now();
        hits += query(q);
        latencies.push_back(std::chrono::duration<double, std::micro>(Clock::now() - t0).count());
        ++done;
    }
    const double elapsed = secondsSince(start);
    std::sort(latencies.begin(), latencies.end());
    Measurement m;
    m.perSecond = static_cast<double>(done) / elapsed;
    m.averageHits = static_cast<double>(hits) / static_cast<double>(done);
    m.p50Micros = latencies[latencies.size() / 2];
    m.p99Micros = latencies[latencies.size() * 99 / 100];
    return m;
}

void print(const char* name, const Measurement& m) {
    std::printf("%-22s %10.0f queries/s   p50 %7.1f us   p99 %7.1f us   %.1f places per answer\n", name,
                m.perSecond, m.p50Micros, m.p99Micros, m.averageHits);
}

Options parse(int argc, char** argv) {
    Options o;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string flag = argv[i];
        const char* value = argv[i + 1];
        if (flag == "--places") {
            o.places = std::strtoull(value, nullptr, 10);
        } else if (flag == "--seconds") {
            o.seconds = std::atof(value);
        } else if (flag == "--radius") {
            o.radius = std::atof(value);
        } else if (flag == "--redis-port") {
            o.redisPort = std::atoi(value);
        } else {
            std::fprintf(stderr, "unknown option %s\n", flag.c_str());
            std::exit(2);
        }
    }
    return o;
}

#ifdef TOVREL_WITH_HIREDIS
class Redis {
  public:
    explicit Redis(int port) : ctx_(redisConnect("127.0.0.1", port)) {
        if (!ctx_ || ctx_->err) {
            std::fprintf(stderr, "cannot connect to Redis on 127.0.0.1:%d\n", port);
            std::exit(1);
        }
    }
    ~Redis() { redisFree(ctx_); }

    void load(const std::vector<Point>& places) {
        command("DEL places");
        constexpr std::size_t kBatch = 500;
        std::size_t pending = 0;
        for (std::size_t start = 0; start < places.size(); start += kBatch) {
            std::vector<std::string> args{"GEOADD", "places"};
            for (std::size_t i = start; i < std::min(places.size(), start + kBatch); ++i) {
                args.push_back(std::to_string(places[i].lon));
                args.push_back(std::to_string(places[i].lat));
                args.push_back(std::to_string(i));
            }
            std::vector<const char*> argv;
            std::vector<std::size_t> lengths;
            for (const std::string& a : args) {
                argv.push_back(a.c_str());
                lengths.push_back(a.size());
            }
            redisAppendCommandArgv(ctx_, static_cast<int>(argv.size()), argv.data(), lengths.data());
            if (++pending == 64) {
                drain(pending);
            }
        }
        drain(pending);
    }

    std::vector<uint32_t> within(const Point& q, double radius) {
        auto* reply = static_cast<redisReply*>(
            redisCommand(ctx_, "GEOSEARCH places FROMLONLAT %f %f BYRADIUS %f m ASC", q.lon, q.lat, radius));
        std::vector<uint32_t> ids;
        if (reply && reply->type == REDIS_REPLY_ARRAY) {
            for (std::size_t i = 0; i < reply->elements; ++i) {
                ids.push_back(static_cast<uint32_t>(std::strtoul(reply->element[i]->str, nullptr, 10)));
            }
        } else {
            std::fprintf(stderr, "GEOSEARCH failed: %s\n", reply && reply->str ? reply->str : ctx_->errstr);
            std::exit(1);
        }
        freeReplyObject(reply);
        return ids;
    }

  private:
    void command(const char* text) { freeReplyObject(redisCommand(ctx_, text)); }
    void drain(std::size_t& pending) {
        for (; pending > 0; --pending) {
            void* reply = nullptr;
            if (redisGetReply(ctx_, &reply) != REDIS_OK) {
                std::fprintf(stderr, "Redis load failed: %s\n", ctx_->errstr);
                std::exit(1);
            }
            freeReplyObject(reply);
        }
    }
    redisContext* ctx_;
};
#endif

}  // namespace

int main(int argc, char** argv) {
    const Options o = parse(argc, argv);
    const std::vector<Point> places = randomPoints(o.places, 1);
    const std::vector<Point> queries = randomPoints(20000, 2);
    std::printf("%zu places over ~1000 x 1000 km, queries for places within %.0f m, one client\n", o.places,
                o.radius);

    auto start = Clock::now();
    std::vector<SpatialIndex::Entry> entries(places.size());
    for (std::size_t i = 0; i < places.size(); ++i) {
        entries[i] = {places[i].lat, places[i].lon, static_cast<uint32_t>(i)};
    }
    const SpatialIndex index(entries);
    std::printf("index built in %.2f s\n", secondsSince(start));
    std::vector<SpatialIndex::Hit> hits;
    const Measurement grid = measure(queries, o.seconds, [&](const Point& q) {
        index.within(q.lat, q.lon, o.radius, hits);
        return hits.size();
    });
    print("server grid index", grid);

    if (o.redisPort == 0) {
        return 0;
    }
#ifdef TOVREL_WITH_HIREDIS
    Redis redis(o.redisPort);
    start = Clock::now();
    redis.load(places);
    std::printf("Redis loaded in %.2f s\n", secondsSince(start));
    const Measurement geo =
        measure(queries, o.seconds, [&](const Point& q) { return redis.within(q, o.radius).size(); });
    print("Redis GEOSEARCH", geo);

    // Both engines should find the same places, except within a few metres of the threshold where
    // Redis's geohash rounding differs from an exact haversine.
    std::size_t same = 0;
    std::size_t differing = 0;
    double worst = 0;
    for (std::size_t i = 0; i < 200; ++i) {
        index.within(queries[i].lat, queries[i].lon, o.radius, hits);
        std::set<uint32_t> a;
        for (const auto& h : hits) {
            a.insert(h.id);
        }
        const auto b = redis.within(queries[i], o.radius);
        const std::set<uint32_t> bs(b.begin(), b.end());
        std::vector<uint32_t> diff;
        std::set_symmetric_difference(a.begin(), a.end(), bs.begin(), bs.end(), std::back_inserter(diff));
        same += a.size() - std::min(a.size(), diff.size());
        differing += diff.size();
        for (uint32_t id : diff) {
            const double d = tovrel::server::haversineMetres(queries[i].lat, queries[i].lon, places[id].lat,
                                                             places[id].lon);
            worst = std::max(worst, std::abs(d - o.radius));
        }
    }
    std::printf(
        "answers compared on 200 queries: %zu of %zu places differ, all within %.2f m of the threshold\n",
        differing, same + differing, worst);
    std::printf("ratio grid / Redis: %.1fx\n", grid.perSecond / geo.perSecond);
#else
    std::fprintf(stderr, "built without hiredis (install libhiredis-dev and reconfigure)\n");
    return 1;
#endif
    return 0;
}
