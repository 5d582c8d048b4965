#include <algorithm>
#include <cctype>
#include <charconv>
#include <chrono>
#include <cmath>
#include <initializer_list>
#include <map>
#include <nlohmann/json.hpp>
#include <string_view>
#include <vector>

#include "catalog_data.h"

namespace tovrel_server {
namespace {

using nlohmann::json;

constexpr int64_t kMaxId = 2147483647;

[[noreturn]] void fail(const std::string& where, const std::string& what) {
    throw ImportError(where + ": " + what);
}

std::optional<int> digits(const std::string& s, std::size_t pos, std::size_t count) {
    if (pos + count > s.size()) {
        return std::nullopt;
    }
    int value = 0;
    for (std::size_t i = pos; i < pos + count; ++i) {
        if (s[i] < '0' || s[i] > '9') {
            return std::nullopt;
        }
        value = value * 10 + (s[i] - '0');
    }
    return value;
}

// A JSON path made readable: "feature 3: offer 2".
struct Where {
    std::string text;
    Where sub(const std::string& part) const { return {text + ": " + part}; }
};

/// Refuses a member outside `allowed`: a mistyped name ("dwelltime") would otherwise import as the
/// default silently. Names that differ only in case are suggested.
void onlyMembers(const json& object, std::initializer_list<std::string_view> allowed, const Where& where,
                 const std::string& what) {
    const auto lower = [](std::string_view text) {
        std::string out(text);
        std::transform(out.begin(), out.end(), out.begin(), [](unsigned char c) { return std::tolower(c); });
        return out;
    };
    for (const auto& [key, value] : object.items()) {
        if (std::find(allowed.begin(), allowed.end(), key) != allowed.end()) {
            continue;
        }
        std::string message = "unknown member \"" + key + "\" in " + what;
        for (const std::string_view name : allowed) {
            if (lower(name) == lower(key)) {
                message += " (did you mean \"" + std::string(name) + "\"?)";
            }
        }
        fail(where.text, message);
    }
}

const json* member(const json& object, const char* name) {
    const auto it = object.find(name);
    return it == object.end() ? nullptr : &*it;
}

std::optional<int64_t> asId(const json& v) {
    if (v.is_number_integer()) {
        const auto n = v.get<int64_t>();
        if (v.is_number_unsigned() && v.get<uint64_t>() > static_cast<uint64_t>(kMaxId)) {
            return std::nullopt;
        }
        return n >= 1 && n <= kMaxId ? std::optional(n) : std::nullopt;
    }
    if (v.is_string()) {
        const auto& s = v.get_ref<const std::string&>();
        int64_t n = 0;
        const auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), n);
        if (ec == std::errc() && end == s.data() + s.size() && !s.empty() && s[0] != '-' && n >= 1 &&
            n <= kMaxId) {
            return n;
        }
    }
    return std::nullopt;
}

int64_t requireId(const json& object, const char* name, const Where& where, const std::string& path) {
    const json* v = member(object, name);
    if (!v) {
        fail(where.text, "missing " + path);
    }
    const auto id = asId(*v);
    if (!id) {
        fail(where.text,
             path + " must be a whole number from 1 to 2147483647 (or such a number as a string)");
    }
    return *id;
}

std::string optionalString(const json& object, const char* name, const Where& where, const std::string& path,
                           const std::string& fallback) {
    const json* v = member(object, name);
    if (!v) {
        return fallback;
    }
    if (!v->is_string()) {
        fail(where.text, path + " must be a string");
    }
    return v->get<std::string>();
}

std::string requireString(const json& object, const char* name, const Where& where, const std::string& path) {
    if (!member(object, name)) {
        fail(where.text, "missing " + path);
    }
    return optionalString(object, name, where, path, "");
}

CampaignDef parseCampaign(const json& c, const Where& where) {
    if (!c.is_object()) {
        fail(where.text, "a campaign must be an object");
    }
    onlyMembers(c, {"name", "startDate", "endDate", "perDeviceCap"}, where, "a campaign");
    CampaignDef def;
    def.name = requireString(c, "name", where, "name");
    if (def.name.empty()) {
        fail(where.text, "name must not be empty");
    }
    def.startDate = optionalString(c, "startDate", where, "startDate", "");
    def.endDate = optionalString(c, "endDate", where, "endDate", "");
    if (!def.startDate.empty()) {
        def.startTime = parseIsoTime(def.startDate, false);
        if (!def.startTime) {
            fail(where.text,
                 "startDate \"" + def.startDate + "\" is not a date like 2020-01-31 or 2020-01-31T08:00:00Z");
        }
    }
    if (!def.endDate.empty()) {
        def.endTime = parseIsoTime(def.endDate, true);
        if (!def.endTime) {
            fail(where.text,
                 "endDate \"" + def.endDate + "\" is not a date like 2035-12-31 or 2035-12-31T20:00:00Z");
        }
    }
    if (def.startTime && def.endTime && *def.startTime > *def.endTime) {
        fail(where.text, "endDate is before startDate");
    }
    if (const json* cap = member(c, "perDeviceCap"); cap && !cap->is_null()) {
        if (!cap->is_number_integer() || cap->get<int64_t>() < 0 ||
            (cap->is_number_unsigned() && cap->get<uint64_t>() > 1000000000u)) {
            fail(where.text, "perDeviceCap must be a whole number of 0 or more");
        }
        def.perDeviceCap = cap->get<int64_t>();
    }
    return def;
}

class Parser {
  public:
    explicit Parser(std::string label) : label_(std::move(label)) {}

    CatalogData parse(const json& root) {
        const Where top{label_};
        if (!root.is_object()) {
            fail(top.text, "the file must hold a GeoJSON FeatureCollection object");
        }
        if (optionalString(root, "type", top, "type", "") != "FeatureCollection") {
            fail(top.text, "\"type\" must be \"FeatureCollection\"");
        }
        if (const json* props = member(root, "properties"); props && !props->is_null()) {
            if (!props->is_object()) {
                fail(top.text, "properties must be an object");
            }
            onlyMembers(*props, {"apps", "campaigns"}, top, "the collection's properties");
            parseApps(*props, top);
            parseCampaigns(*props, top);
        }
        const json* features = member(root, "features");
        if (!features || !features->is_array()) {
            fail(top.text, "missing features (an array of Point features)");
        }
        // Every feature is checked, so that one import names every fault of the file.
        std::size_t n = 0;
        for (const json& f : *features) {
            try {
                parseFeature(f, ++n);
            } catch (const ImportError& error) {
                errors_.emplace_back(error.what());
            }
        }
        if (!errors_.empty()) {
            std::string all;
            for (std::size_t i = 0; i < errors_.size() && i < kMaxListedErrors; ++i) {
                all += (i > 0 ? "\n" : "") + errors_[i];
            }
            if (errors_.size() > kMaxListedErrors) {
                all += "\n(and " + std::to_string(errors_.size() - kMaxListedErrors) + " more)";
            }
            throw ImportError(all);
        }
        for (auto& [name, c] : campaigns_) {
            data_.campaigns.push_back(c);
        }
        return std::move(data_);
    }

  private:
    void parseApps(const json& props, const Where& top) {
        const json* apps = member(props, "apps");
        if (!apps) {
            return;
        }
        if (!apps->is_array()) {
            fail(top.text, "properties.apps must be an array of {\"key\", \"name\"} objects");
        }
        std::size_t n = 0;
        for (const json& a : *apps) {
            const Where where = top.sub("app " + std::to_string(++n));
            if (!a.is_object()) {
                fail(where.text, "an app must be an object with \"key\" and \"name\"");
            }
            onlyMembers(a, {"key", "name"}, where, "an app");
            AppDef app{requireString(a, "key", where, "key"), optionalString(a, "name", where, "name", "")};
            if (app.key.empty()) {
                fail(where.text, "key must not be empty");
            }
            data_.apps.push_back(std::move(app));
        }
    }

    void parseCampaigns(const json& props, const Where& top) {
        const json* list = member(props, "campaigns");
        if (!list) {
            return;
        }
        if (!list->is_array()) {
            fail(top.text, "properties.campaigns must be an array of campaign objects");
        }
        std::size_t n = 0;
        for (const json& c : *list) {
            const Where where = top.sub("campaign " + std::to_string(++n));
            addCampaign(parseCampaign(c, where), where);
        }
    }

    void addCampaign(const CampaignDef& def, const Where& where) {
        const auto [it, added] = campaigns_.emplace(def.name, def);
        if (!added && !(it->second == def)) {
            fail(where.text, "campaign \"" + def.name + "\" is already defined with other values");
        }
    }

    void parseFeature(const json& f, std::size_t number) {
        const Where where{label_ + ": feature " + std::to_string(number)};
        if (!f.is_object()) {
            fail(where.text, "a feature must be an object");
        }
        if (optionalString(f, "type", where, "type", "") != "Feature") {
            fail(where.text, "\"type\" must be \"Feature\"");
        }
        const json* geometry = member(f, "geometry");
        if (!geometry || !geometry->is_object()) {
            fail(where.text, "missing geometry");
        }
        if (optionalString(*geometry, "type", where, "geometry.type", "") != "Point") {
            fail(where.text, "geometry.type must be \"Point\" (one feature per place)");
        }
        const json* coords = member(*geometry, "coordinates");
        if (!coords || !coords->is_array() || coords->size() < 2 || coords->size() > 3 ||
            !(*coords)[0].is_number() || !(*coords)[1].is_number()) {
            fail(where.text, "geometry.coordinates must be [longitude, latitude]");
        }
        PlaceDef place;
        place.lon = (*coords)[0].get<double>();
        place.lat = (*coords)[1].get<double>();
        if (!(place.lon >= -180 && place.lon <= 180 && place.lat >= -90 && place.lat <= 90)) {
            fail(where.text, "geometry.coordinates [" + (*coords)[0].dump() + ", " + (*coords)[1].dump() +
                                 "] out of range: longitude must be -180..180, latitude -90..90");
        }
        const json* props = member(f, "properties");
        if (!props || !props->is_object()) {
            fail(where.text, "missing properties");
        }
        onlyMembers(*props, {"placeId", "name", "radius", "offers"}, where, "properties");
        place.id = requireId(*props, "placeId", where, "properties.placeId");
        if (const auto [it, added] = placeFeature_.emplace(place.id, number); !added) {
            fail(where.text, "placeId " + std::to_string(place.id) + " is already used by feature " +
                                 std::to_string(it->second));
        }
        place.name = optionalString(*props, "name", where, "properties.name", "");
        const json* radius = member(*props, "radius");
        if (!radius) {
            fail(where.text, "missing properties.radius");
        }
        if (!radius->is_number() || !(radius->get<double>() > 0) || !std::isfinite(radius->get<double>())) {
            fail(where.text, "properties.radius must be a number of metres above 0");
        }
        place.radius = radius->get<double>();
        const json* offers = member(*props, "offers");
        if (!offers) {
            fail(where.text, "missing properties.offers");
        }
        if (!offers->is_array()) {
            fail(where.text, "properties.offers must be an array");
        }
        std::size_t n = 0;
        for (const json& o : *offers) {
            const Where ow = where.sub("offer " + std::to_string(++n));
            const int64_t id = parseOffer(o, ow, number);
            for (int64_t existing : place.offers) {
                if (existing == id) {
                    fail(ow.text, "eventId " + std::to_string(id) + " appears twice in this place");
                }
            }
            place.offers.push_back(id);
        }
        data_.places.push_back(std::move(place));
    }

    int64_t parseOffer(const json& o, const Where& where, std::size_t featureNumber) {
        if (!o.is_object()) {
            fail(where.text, "an offer must be an object");
        }
        onlyMembers(o,
                    {"eventId", "campaign", "eventName", "alertText", "mediaType", "mediaUrl", "tags",
                     "dwellTime", "eventTypeId"},
                    where, "an offer");
        OfferDef offer;
        offer.id = requireId(o, "eventId", where, "eventId");
        const json* campaign = member(o, "campaign");
        if (!campaign) {
            fail(where.text, "missing campaign (a campaign name, or a campaign object)");
        }
        if (campaign->is_string()) {
            offer.campaign = campaign->get<std::string>();
            if (!campaigns_.contains(offer.campaign)) {
                fail(where.text,
                     "unknown campaign \"" + offer.campaign + "\" (define it in properties.campaigns)");
            }
        } else if (campaign->is_object()) {
            const CampaignDef def = parseCampaign(*campaign, where.sub("campaign"));
            addCampaign(def, where);
            offer.campaign = def.name;
        } else {
            fail(where.text, "campaign must be a campaign name or a campaign object");
        }
        offer.eventName = requireString(o, "eventName", where, "eventName");
        offer.alertText = requireString(o, "alertText", where, "alertText");
        offer.mediaType = optionalString(o, "mediaType", where, "mediaType", "html");
        offer.mediaUrl = optionalString(o, "mediaUrl", where, "mediaUrl", "");
        if (!offer.mediaUrl.empty() && offer.mediaUrl.front() != '/' &&
            offer.mediaUrl.rfind("http://", 0) != 0 && offer.mediaUrl.rfind("https://", 0) != 0) {
            fail(where.text,
                 "mediaUrl \"" + offer.mediaUrl +
                     "\" must start with \"/\" (a page of the content folder) or be an http(s) URL");
        }
        if (const json* tags = member(o, "tags")) {
            offer.tags = parseTags(*tags, where);
        }
        if (const json* dwell = member(o, "dwellTime")) {
            if (!dwell->is_number_integer() || dwell->get<int64_t>() < 0 || dwell->get<int64_t>() > 1440 ||
                (dwell->is_number_unsigned() && dwell->get<uint64_t>() > 1440u)) {
                fail(where.text, "dwellTime must be a whole number of minutes from 0 to 1440");
            }
            offer.dwellTime = dwell->get<int>();
        }
        const json* type = member(o, "eventTypeId");
        if (!type) {
            fail(where.text, "missing eventTypeId");
        }
        if (!type->is_number_integer() || type->get<int64_t>() < 1 || type->get<int64_t>() > 3 ||
            (type->is_number_unsigned() && type->get<uint64_t>() > 3u)) {
            fail(where.text, "eventTypeId must be 1, 2 or 3");
        }
        offer.eventType = type->get<int>();

        const auto [it, added] = offerFeature_.emplace(offer.id, featureNumber);
        if (added) {
            data_.offers.push_back(offer);
            offerIndex_[offer.id] = data_.offers.size() - 1;
        } else if (!(data_.offers[offerIndex_[offer.id]] == offer)) {
            fail(where.text, "eventId " + std::to_string(offer.id) +
                                 " is already defined differently in feature " + std::to_string(it->second));
        }
        return offer.id;
    }

    static std::string parseTags(const json& tags, const Where& where) {
        if (tags.is_string()) {
            return tags.get<std::string>();
        }
        if (!tags.is_array()) {
            fail(where.text, "tags must be a string or an array of strings");
        }
        std::string joined;
        for (const json& t : tags) {
            if (!t.is_string()) {
                fail(where.text, "tags must be a string or an array of strings");
            }
            joined += (joined.empty() ? "" : ",") + t.get<std::string>();
        }
        return joined;
    }

    std::string label_;
    static constexpr std::size_t kMaxListedErrors = 50;

    CatalogData data_;
    std::vector<std::string> errors_;
    std::map<std::string, CampaignDef> campaigns_;
    std::map<int64_t, std::size_t> placeFeature_;
    std::map<int64_t, std::size_t> offerFeature_;
    std::map<int64_t, std::size_t> offerIndex_;
};

}  // namespace

std::optional<double> parseIsoTime(const std::string& s, bool endOfDay) {
    using namespace std::chrono;
    const auto y = digits(s, 0, 4);
    const auto mo = digits(s, 5, 2);
    const auto d = digits(s, 8, 2);
    if (!y || !mo || !d || s.size() < 10 || s[4] != '-' || s[7] != '-') {
        return std::nullopt;
    }
    const year_month_day ymd{year{*y}, month{static_cast<unsigned>(*mo)}, day{static_cast<unsigned>(*d)}};
    if (!ymd.ok()) {
        return std::nullopt;
    }
    const double day0 = static_cast<double>(sys_seconds{sys_days{ymd}}.time_since_epoch().count());
    if (s.size() == 10) {
        return endOfDay ? day0 + 86399 : day0;
    }
    const auto hh = digits(s, 11, 2);
    const auto mm = digits(s, 14, 2);
    if (s[10] != 'T' || !hh || !mm || s[13] != ':' || *hh > 23 || *mm > 59) {
        return std::nullopt;
    }
    std::size_t pos = 16;
    int ss = 0;
    if (pos < s.size() && s[pos] == ':') {
        const auto sec = digits(s, pos + 1, 2);
        if (!sec || *sec > 59) {
            return std::nullopt;
        }
        ss = *sec;
        pos += 3;
    }
    int offset = 0;
    if (pos + 1 == s.size() && s[pos] == 'Z') {
        offset = 0;
    } else if (pos + 6 == s.size() && (s[pos] == '+' || s[pos] == '-') && s[pos + 3] == ':') {
        const auto oh = digits(s, pos + 1, 2);
        const auto om = digits(s, pos + 4, 2);
        if (!oh || !om || *oh > 23 || *om > 59) {
            return std::nullopt;
        }
        offset = (s[pos] == '+' ? 1 : -1) * (*oh * 3600 + *om * 60);
    } else {
        return std::nullopt;
    }
    return day0 + *hh * 3600 + *mm * 60 + ss - offset;
}

CatalogData parseGeoJson(const std::string& text, const std::string& label) {
    json root;
    try {
        root = json::parse(text);
    } catch (const json::parse_error& e) {
        std::size_t line = 1;
        std::size_t column = 1;
        for (std::size_t i = 0; i + 1 < e.byte && i < text.size(); ++i) {
            if (text[i] == '\n') {
                ++line;
                column = 1;
            } else {
                ++column;
            }
        }
        std::string reason = e.what();
        if (const auto p = reason.find(": ", reason.find("parse error")); p != std::string::npos) {
            reason = reason.substr(p + 2);
        }
        throw ImportError(label + ": line " + std::to_string(line) + ", column " + std::to_string(column) +
                          ": not valid JSON (" + reason + ")");
    } catch (const json::exception& e) {
        throw ImportError(label + ": not usable JSON (" + std::string(e.what()) + ")");
    }
    return Parser(label).parse(root);
}

}  // namespace tovrel_server
