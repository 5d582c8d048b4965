#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "catalog/catalog_data.h"
#include "store/log_store.h"
#include "store/store.h"
#include "tovrel_server/server.h"

namespace tovrel::server {

PlaceFileCheck checkPlaceFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        throw ImportError(path + ": cannot open the file (" + std::strerror(errno) + ")");
    }
    return checkPlaceFile(in, path);
}

ImportSummary importGeoJsonFile(const std::string& dbPath, const std::string& geojsonPath) {
    // Read and checked as a stream, so a large file is never in memory whole.
    PlaceFileCheck check = checkPlaceFile(geojsonPath);
    if (!check.problems.empty()) {
        throw ImportError(describeProblems(check.problems));
    }
    return openStore(dbPath)->writePlaceCatalog(*check.catalog, wallClock());
}

void addAppKey(const std::string& dbPath, const std::string& key, const std::string& name) {
    if (key.empty()) {
        throw std::invalid_argument("the app key must not be empty");
    }
    openStore(dbPath)->addApp(key, name, wallClock(), nullptr);
}

namespace {

void requireDatabase(const std::string& dbPath) {
    if (!isPostgresLocation(dbPath) && dbPath != ":memory:" && !std::filesystem::exists(dbPath)) {
        throw std::runtime_error("there is no database " + dbPath);
    }
}

}  // namespace

Report readReport(const std::string& dbPath, const std::string& logDbPath) {
    requireDatabase(dbPath);
    Report report = openStore(dbPath)->report();
    report.logCounts = openLogStore(logDbPath.empty() ? dbPath : logDbPath)->countsByEvent();
    return report;
}

Funnel readFunnel(const std::string& dbPath, bool byDay) {
    requireDatabase(dbPath);
    return openStore(dbPath)->funnel(byDay);
}

}  // namespace tovrel::server
