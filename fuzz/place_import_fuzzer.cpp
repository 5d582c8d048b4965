// Feeds arbitrary text to the place file reader (GeoJSON), whole and as a stream read in small
// chunks, and to the readers of campaign and app rules as the database holds them. A file is read or
// refused with problems naming the faults; both ways must agree, and nothing may crash, hang or trip a
// sanitizer.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>

#include "catalog/catalog_data.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const tovrel::server::PlaceFileCheck whole =
        tovrel::server::checkPlaceFile(std::string_view(text), "fuzz.geojson");
    std::istringstream in(text);
    const tovrel::server::PlaceFileCheck streamed =
        tovrel::server::checkPlaceFile(in, "fuzz.geojson", 1 + size % 13);
    if (whole.problems.size() != streamed.problems.size() ||
        whole.catalog.has_value() != streamed.catalog.has_value() ||
        whole.catalog.has_value() == !whole.problems.empty()) {
        std::abort();
    }
    for (std::size_t i = 0; i < whole.problems.size(); ++i) {
        if (whole.problems[i].message != streamed.problems[i].message ||
            whole.problems[i].member != streamed.problems[i].member) {
            std::abort();
        }
    }
    if (whole.catalog) {
        const tovrel::server::CatalogData a = whole.catalog->expand();
        const tovrel::server::CatalogData b = streamed.catalog->expand();
        if (a.offers != b.offers || a.campaigns != b.campaigns || a.places.size() != b.places.size()) {
            std::abort();
        }
    }
    // Stored rules read back the same when written again.
    const tovrel::server::CampaignRules rules = tovrel::server::campaignRulesFrom(text);
    if (tovrel::server::campaignRulesFrom(tovrel::server::rulesText(rules)) != rules) {
        std::abort();
    }
    const tovrel::server::AppRules app = tovrel::server::appRulesFrom(text);
    if (tovrel::server::appRulesFrom(tovrel::server::rulesText(app)) != app) {
        std::abort();
    }
    if (rules.schedule) {
        (void)rules.schedule->contains(static_cast<double>(size) * 3600.5);
    }
    try {
        (void)tovrel::server::parseGeoJson(text, "fuzz.geojson");
    } catch (const tovrel::server::ImportError&) {
    }
    return 0;
}
