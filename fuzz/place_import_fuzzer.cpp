// Feeds arbitrary text to the place importer (GeoJSON). A file is imported or refused with an
// ImportError naming the fault; nothing may crash or trip a sanitizer.
#include <cstddef>
#include <cstdint>
#include <string>

#include "catalog_data.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    try {
        (void)tovrel_server::parseGeoJson(std::string(reinterpret_cast<const char*>(data), size),
                                          "fuzz.geojson");
    } catch (const tovrel_server::ImportError&) {
    }
    return 0;
}
