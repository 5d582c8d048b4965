#pragma once

#include <cstddef>
#include <nlohmann/json.hpp>
#include <optional>

#include "store/store.h"

namespace tovrel::server {

/// At most this many places go into one export; a larger catalogue is asked for area by area.
inline constexpr std::size_t kMaxExportedPlaces = 100'000;

/// What the service offers now, as a place file the importer reads back: its campaigns with their rules,
/// and each enabled place (in `area` when given) with its enabled offers of enabled campaigns. Apps stay
/// out: their keys are credentials. Throws ApiError 422 when more than `maxPlaces` places would go in.
/// Caller's thread, inside one read of the store.
nlohmann::json exportCatalogue(Store& store, const std::optional<PlaceArea>& area,
                               std::size_t maxPlaces = kMaxExportedPlaces);

/// The catalogue `live` (a place file, as exportCatalogue writes it) as it would be after importing `file`
/// over it: places and offers by id, campaigns by name, a place's offers those of the file, and nothing
/// the file does not mention removed. Throws ApiError 400 when `file` is no FeatureCollection. Pure.
nlohmann::json mergeImport(nlohmann::json live, const nlohmann::json& file);

}  // namespace tovrel::server
