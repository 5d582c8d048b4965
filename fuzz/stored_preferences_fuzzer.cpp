// Feeds arbitrary stored preference values to every reader of the preferences store: the text
// decoding a persistent store applies, then each key's reader in the component. Nothing may crash,
// throw or trip a sanitizer.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "foundation/stored_values.h"
#include "foundation/value.h"
#include "tovrel/environment.h"
#include "tovrel/location_archive.h"
#include "tovrel/platform/json_text.h"
#include "tovrel/preferences_keys.h"
#include "tovrel/session_manager.h"
#include "tovrel/settings_controller.h"
#include "tovrel/virtual/virtual_platform.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // Values for the keys the component reads, separated by NUL bytes, in this order.
    static const char* const kKeys[] = {tovrel::prefs::kAdid, tovrel::prefs::kSessionId,
                                        tovrel::prefs::kCurrentLocation, tovrel::prefs::kDeviceEventId,
                                        tovrel::prefs::kCheckedPath};
    tovrel::virtualbackend::VirtualPlatform vp;
    std::string_view rest(reinterpret_cast<const char*>(data), size);
    for (const char* key : kKeys) {
        const auto end = rest.find('\0');
        const auto stored = tovrel::platform::parseJsonText(rest.substr(0, end));
        if (stored.ok()) {
            vp.preferences->setObject(key, stored.value);
        }
        rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
    }

    const auto& prefs = *vp.preferences;
    (void)tovrel::storedSessionKey(prefs);
    (void)tovrel::storedText(prefs, tovrel::prefs::kAdid);
    (void)tovrel::unarchiveLocation(prefs.objectForKey(tovrel::prefs::kCurrentLocation));
    (void)tovrel::integerValue(prefs.objectForKey(tovrel::prefs::kDeviceEventId).value_or(tovrel::Json()));
    (void)tovrel::SubViewController::unarchiveIndexPath(prefs.objectForKey(tovrel::prefs::kCheckedPath));

    tovrel::Environment environment(vp.platform(), {"http://fuzz.test", "http://fuzz.test"});
    tovrel::Environment::Scope scope(environment);
    vp.http->setResponder([](const auto&) {
        return tovrel::virtualbackend::Reply::json(200, {{"sessionKey", "k"}});
    });
    environment.sessionManager().startSession("sdk");
    vp.scheduler->runUntilIdle();
    return 0;
}
