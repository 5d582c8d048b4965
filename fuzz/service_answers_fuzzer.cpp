// Feeds arbitrary bytes to every reader of service answers and to the value conversions. Nothing may
// crash, throw or trip a sanitizer.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "foundation/value.h"
#include "tovrel/analytics_manager.h"
#include "tovrel/data_service.h"
#include "tovrel/environment.h"
#include "tovrel/place_record.h"
#include "tovrel/platform/json_scanner.h"
#include "tovrel/region.h"
#include "tovrel/session_manager.h"
#include "tovrel/virtual/virtual_platform.h"

namespace {

using tovrel::Json;
using tovrel::virtualbackend::Reply;

void convert(const Json& value) {
    (void)tovrel::integerValue(value);
    (void)tovrel::intValue(value);
    (void)tovrel::doubleValue(value);
    (void)tovrel::floatValue(value);
    (void)tovrel::describe(value);
    (void)tovrel::hRegion::fromPlaceRecord(value);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    // The first byte picks the status; the rest is the body, as the server sent it.
    static const int kStatuses[] = {200, 201, 204, 299, 301, 400, 401, 404, 413, 500, 503, 0};
    const int status = kStatuses[data[0] % std::size(kStatuses)];
    const std::string body(reinterpret_cast<const char*>(data + 1), size - 1);

    const auto text = tovrel::platform::parseJsonText(body);
    // The scanning reader and checker must agree with the full parser on every input, to the number kinds.
    const auto read = tovrel::platform::readJsonText(body);
    const auto checked = tovrel::platform::checkJsonText(body);
    const auto dump = [](const Json& value) {
        return value.dump(-1, ' ', false, Json::error_handler_t::replace);
    };
    if (read.ok() != text.ok() || read.problem != text.problem || read.error != text.error ||
        read.value.type() != text.value.type() || dump(read.value) != dump(text.value) ||
        checked.problem != text.problem || checked.error != text.error) {
        std::abort();
    }
    // Place answers read straight from the text give the records of the parsed tree.
    const tovrel::PlaceAnswer answer = tovrel::readPlaceAnswer(body);
    const Json* places = text.ok() && text.value.is_object() && text.value.contains("places")
                             ? &text.value["places"]
                             : nullptr;
    if (places != nullptr && !places->is_array()) {
        if (answer.placesKind != places->type_name() || !answer.places.empty()) {
            std::abort();
        }
    } else if (answer.places.size() != (places != nullptr ? places->size() : 0) ||
               !answer.placesKind.empty()) {
        std::abort();
    } else {
        for (std::size_t i = 0; i < answer.places.size(); ++i) {
            const tovrel::PlaceRecord tree = tovrel::PlaceRecord::read((*places)[i]);
            const tovrel::PlaceRecord& scanned = answer.places[i];
            if (dump(tree.eventId) != dump(scanned.eventId) || dump(tree.endDate) != dump(scanned.endDate) ||
                dump(tree.centroidLat) != dump(scanned.centroidLat) || tree.dwellTime != scanned.dwellTime ||
                tree.eventTypeId != scanned.eventTypeId || dump(tree.isLinked) != dump(scanned.isLinked)) {
                std::abort();
            }
        }
    }
    if (text.ok()) {
        const Json& parsed = text.value;
        convert(parsed);
        if (parsed.is_object()) {
            for (const auto& [key, value] : parsed.items()) {
                convert(value);
            }
        }
        if (parsed.is_array()) {
            for (const auto& value : parsed) {
                convert(value);
            }
        }
    }
    convert(Json(body));

    tovrel::virtualbackend::VirtualPlatform vp;
    tovrel::Environment environment(vp.platform(), {"http://fuzz.test", "http://fuzz.test"});
    tovrel::Environment::Scope scope(environment);
    const Reply reply = status == 0 ? Reply::failure(tovrel::platform::HttpErrorKind::kTransport, "refused")
                                    : Reply{status, body, "application/json", {}};
    vp.http->setResponder([&](const auto&) { return reply; });

    const tovrel::SessionKey key = std::string("k");
    auto& service = environment.dataService();
    tovrel::platform::Location location;
    service.getLocationsWithLocation(location, key,
                                     [](std::vector<tovrel::PlaceRecord> records, const auto&) {
                                         for (auto& record : records) {
                                             (void)tovrel::hRegion::fromRecord(std::move(record));
                                         }
                                     });
    service.sendDeviceLinkWithEventId(
        "1", "2", key, [](const Json&, const Json& id, const auto&) { (void)tovrel::intValue(id); });
    service.sendDeviceUpdateWithDeviceEventId("3", "ack", key, [](const Json&, const auto&) {});
    service.sendDeviceClearWithSessionKey(key, nullptr);
    service.addDeviceTagWithSessionKey(key, "t", "v", "g", nullptr);
    service.deleteDeviceTagWithSessionKey(key, "t", "g", nullptr);
    environment.analyticsManager().logMessage({{"e", Json::object()}}, "ADID", nullptr);
    environment.sessionManager().startSession("sdk");
    vp.scheduler->runUntilIdle();
    return 0;
}
