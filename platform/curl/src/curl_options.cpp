#include "tovrel/curl/curl_options.h"

#include <string_view>

#include "tovrel/version.h"

namespace tovrel::curl {

std::string defaultUserAgent() {
    return "Tovrel/" TOVREL_VERSION_STRING;
}

std::string pinnedPublicKeyOption(const std::vector<std::string>& pins) {
    constexpr std::string_view kPrefix = "sha256//";
    std::string option;
    for (std::string_view pin : pins) {
        while (!pin.empty() && pin.front() == ' ') {
            pin.remove_prefix(1);
        }
        while (!pin.empty() && pin.back() == ' ') {
            pin.remove_suffix(1);
        }
        if (pin.starts_with(kPrefix)) {
            pin.remove_prefix(kPrefix.size());
        }
        if (pin.empty()) {
            continue;
        }
        if (!option.empty()) {
            option += ';';
        }
        option += kPrefix;
        option += pin;
    }
    return option;
}

}  // namespace tovrel::curl
