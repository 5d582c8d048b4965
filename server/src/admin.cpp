#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "catalog_data.h"
#include "store.h"
#include "tovrel_server/server.h"

namespace tovrel_server {

std::string readPlaceFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        throw ImportError(path + ": cannot open the file (" + std::strerror(errno) + ")");
    }
    std::ostringstream text;
    text << in.rdbuf();
    if (in.bad()) {
        throw ImportError(path + ": cannot read the file");
    }
    return text.str();
}

ImportSummary importGeoJsonFile(const std::string& dbPath, const std::string& geojsonPath) {
    const CatalogData data = parseGeoJson(readPlaceFile(geojsonPath), geojsonPath);
    return openStore(dbPath)->writeCatalog(data, wallClock());
}

void addAppKey(const std::string& dbPath, const std::string& key, const std::string& name) {
    if (key.empty()) {
        throw std::invalid_argument("the app key must not be empty");
    }
    openStore(dbPath)->writeApp(AppDef{key, name}, wallClock());
}

Report readReport(const std::string& dbPath) {
    if (!isPostgresLocation(dbPath) && dbPath != ":memory:" && !std::filesystem::exists(dbPath)) {
        throw std::runtime_error("there is no database " + dbPath);
    }
    return openStore(dbPath)->report();
}

}  // namespace tovrel_server
