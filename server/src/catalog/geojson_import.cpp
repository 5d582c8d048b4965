#include <algorithm>
#include <cctype>
#include <charconv>
#include <chrono>
#include <cmath>
#include <initializer_list>
#include <istream>
#include <iterator>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "catalog/catalog_data.h"
#include "common/field_limits.h"

namespace tovrel::server {
namespace {

using nlohmann::json;

constexpr int64_t kMaxId = 2147483647;

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

// A fault found while checking one feature (or the collection): where, and the whole message line.
struct Fault {
    std::string member;
    std::string message;
};

// A place in the file, readable ("places.geojson: feature 3: offer 2") and as a JSON Pointer.
struct Where {
    std::string text;
    std::string pointer;
    Where sub(const std::string& part, const std::string& member) const {
        return {text + ": " + part, pointer + member};
    }
};

[[noreturn]] void fail(const Where& where, std::string_view member, const std::string& what) {
    throw Fault{where.pointer + std::string(member), where.text + ": " + what};
}

/// A control character as "U+001F".
std::string codePoint(unsigned char c) {
    constexpr std::string_view kHex = "0123456789ABCDEF";
    return std::string("U+00") + kHex[c >> 4] + kHex[c & 0xF];
}

bool isControl(char c) {
    const auto u = static_cast<unsigned char>(c);
    return u < 0x20 || u == 0x7F;
}

/// `value` between `mark`s for a message, control characters written as \u001F. Longer than
/// limits::kQuotedValue bytes, it is cut between two UTF-8 characters and followed by "…" and its
/// whole length, so that no message grows with the file.
std::string quote(std::string_view value, char mark = '"') {
    std::size_t shown = value.size();
    if (shown > limits::kQuotedValue) {
        shown = limits::kQuotedValue;
        // Continuation bytes (10xxxxxx) belong to the character before them.
        for (int back = 0; back < 3 && (static_cast<unsigned char>(value[shown]) & 0xC0) == 0x80; ++back) {
            --shown;
        }
    }
    std::string out(1, mark);
    for (const char c : value.substr(0, shown)) {
        out += isControl(c) ? "\\u" + codePoint(static_cast<unsigned char>(c)).substr(2) : std::string(1, c);
    }
    if (shown == value.size()) {
        return out + mark;
    }
    return out + "…" + mark + " (" + std::to_string(value.size()) + " bytes)";
}

/// The JSON Pointer of `key` in the object at `object`: the object's own when the key is too long to
/// repeat (an unknown member's name can be as long as the file).
std::string memberPointer(const std::string& object, const std::string& key) {
    return key.size() > limits::kQuotedValue ? object : object + (json::json_pointer() / key).to_string();
}

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
        std::string message = "unknown member " + quote(key) + " in " + what;
        for (const std::string_view name : allowed) {
            if (lower(name) == lower(key)) {
                message += " (did you mean \"" + std::string(name) + "\"?)";
            }
        }
        fail(where, memberPointer("", key), message);
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

// "properties.placeId" as a JSON Pointer suffix: "/properties/placeId".
std::string pointerOf(const std::string& path) {
    std::string out = "/" + path;
    std::replace(out.begin(), out.end(), '.', '/');
    return out;
}

int64_t requireId(const json& object, const char* name, const Where& where, const std::string& path) {
    const json* v = member(object, name);
    if (!v) {
        fail(where, pointerOf(path), "missing " + path);
    }
    const auto id = asId(*v);
    if (!id) {
        fail(where, pointerOf(path),
             path + " must be a whole number from 1 to 2147483647 (or such a number as a string)");
    }
    return *id;
}

/// What a text member may hold: at most maxBytes bytes, and no control character but, where
/// lineBreaks, newline and tab.
struct TextRule {
    std::size_t maxBytes;
    bool lineBreaks = false;
};

constexpr TextRule kAppKey{limits::kSdkKey};
constexpr TextRule kAppName{limits::kAppName};
constexpr TextRule kCampaignName{limits::kCampaignName};
constexpr TextRule kDate{limits::kDate};
constexpr TextRule kPlaceName{limits::kPlaceName};
constexpr TextRule kOfferEventName{limits::kOfferEventName};
constexpr TextRule kAlertText{limits::kAlertText, true};
constexpr TextRule kMediaType{limits::kMediaType};
constexpr TextRule kMediaUrl{limits::kMediaUrl};

void checkLength(std::string_view text, std::size_t maxBytes, const Where& where, const std::string& path) {
    if (text.size() > maxBytes) {
        fail(where, pointerOf(path),
             path + " is " + std::to_string(text.size()) + " bytes long; at most " +
                 std::to_string(maxBytes) + " are allowed");
    }
}

void checkText(std::string_view text, TextRule rule, const Where& where, const std::string& path) {
    checkLength(text, rule.maxBytes, where, path);
    const auto control = std::find_if(text.begin(), text.end(), [&](char c) {
        return isControl(c) && !(rule.lineBreaks && (c == '\n' || c == '\t'));
    });
    if (control != text.end()) {
        fail(where, pointerOf(path),
             path + " must not contain control characters" +
                 (rule.lineBreaks ? " other than newline and tab" : "") + " (" +
                 codePoint(static_cast<unsigned char>(*control)) + " at byte offset " +
                 std::to_string(control - text.begin()) + ")");
    }
}

std::string optionalString(const json& object, const char* name, const Where& where, const std::string& path,
                           const std::string& fallback) {
    const json* v = member(object, name);
    if (!v) {
        return fallback;
    }
    if (!v->is_string()) {
        fail(where, pointerOf(path), path + " must be a string");
    }
    return v->get<std::string>();
}

/// The string member `name`, or fallback when there is none; refused when it breaks `rule`.
std::string optionalString(const json& object, const char* name, const Where& where, const std::string& path,
                           const std::string& fallback, TextRule rule) {
    std::string text = optionalString(object, name, where, path, fallback);
    checkText(text, rule, where, path);
    return text;
}

std::string requireString(const json& object, const char* name, const Where& where, const std::string& path,
                          TextRule rule) {
    if (!member(object, name)) {
        fail(where, pointerOf(path), "missing " + path);
    }
    return optionalString(object, name, where, path, "", rule);
}

CampaignDef parseCampaign(const json& c, const Where& where) {
    if (!c.is_object()) {
        fail(where, "", "a campaign must be an object");
    }
    onlyMembers(
        c, {"name", "startDate", "endDate", "perDeviceCap", "schedule", "caps", "priority", "controlGroup"},
        where, "a campaign");
    CampaignDef def;
    def.name = requireString(c, "name", where, "name", kCampaignName);
    if (def.name.empty()) {
        fail(where, "/name", "name must not be empty");
    }
    def.startDate = optionalString(c, "startDate", where, "startDate", "", kDate);
    def.endDate = optionalString(c, "endDate", where, "endDate", "", kDate);
    if (!def.startDate.empty()) {
        def.startTime = parseIsoTime(def.startDate, false);
        if (!def.startTime) {
            fail(where, "/startDate",
                 "startDate " + quote(def.startDate) +
                     " is not a date like 2020-01-31 or 2020-01-31T08:00:00Z");
        }
    }
    if (!def.endDate.empty()) {
        def.endTime = parseIsoTime(def.endDate, true);
        if (!def.endTime) {
            fail(where, "/endDate",
                 "endDate " + quote(def.endDate) + " is not a date like 2035-12-31 or 2035-12-31T20:00:00Z");
        }
    }
    if (def.startTime && def.endTime && *def.startTime > *def.endTime) {
        fail(where, "/endDate", "endDate is before startDate");
    }
    if (const json* cap = member(c, "perDeviceCap"); cap && !cap->is_null()) {
        if (!cap->is_number_integer() || cap->get<int64_t>() < 0 ||
            (cap->is_number_unsigned() && cap->get<uint64_t>() > 1000000000u)) {
            fail(where, "/perDeviceCap", "perDeviceCap must be a whole number of 0 or more");
        }
        def.perDeviceCap = cap->get<int64_t>();
    }
    try {
        def.rules = parseCampaignRules(c);
    } catch (const RuleError& e) {
        fail(where, e.member, e.what());
    }
    return def;
}

/// Identifiers (1..2^31-1) to 32-bit values by open addressing: 8 bytes a slot, where a std::map
/// node costs ~64. Holds a million places or offers in ~16 MB.
class IdMap {
  public:
    /// The value held for id, after storing `value` when there was none; second: whether it was stored.
    std::pair<uint32_t, bool> emplace(int64_t id, uint32_t value) {
        if ((used_ + 1) * 2 > slots_.size()) {
            grow();
        }
        Slot& slot = find(static_cast<uint32_t>(id));
        if (slot.id != 0) {
            return {slot.value, false};
        }
        slot = {static_cast<uint32_t>(id), value};
        ++used_;
        return {value, true};
    }

  private:
    struct Slot {
        uint32_t id = 0;  // 0: empty (identifiers start at 1)
        uint32_t value = 0;
    };
    Slot& find(uint32_t id) {
        const std::size_t mask = slots_.size() - 1;
        std::size_t i = (id * 0x9E3779B97F4A7C15ull) >> 20 & mask;
        while (slots_[i].id != 0 && slots_[i].id != id) {
            i = (i + 1) & mask;
        }
        return slots_[i];
    }
    void grow() {
        std::vector<Slot> old(std::max<std::size_t>(64, slots_.size() * 2));
        old.swap(slots_);
        for (const Slot& s : old) {
            if (s.id != 0) {
                find(s.id) = s;
            }
        }
    }
    std::vector<Slot> slots_;
    std::size_t used_ = 0;
};

/// One step into a JSON value: a member's name, or an array's element when index is set.
struct Step {
    std::string name;
    std::optional<std::size_t> index;
};

/// Where a path into the file leads, in the words and pointers of the other problems.
struct Located {
    Where where;         ///< "places.geojson: feature 1: offer 2", "/features/0/properties/offers/1"
    std::string member;  ///< within it, dotted, elements as [i]: "geometry.coordinates[0]"
    std::optional<std::size_t> feature;
};

/// Names features, and the offers, campaigns and apps within them and the collection, by number as
/// the checks do; any other step becomes part of the member. A name too long to repeat ends the path
/// at the object that holds it.
Located locate(const std::vector<Step>& steps, const std::string& label) {
    static const std::map<std::string, std::string> kNumbered{{"features", "feature"},
                                                              {"properties.offers", "offer"},
                                                              {"properties.campaigns", "campaign"},
                                                              {"properties.apps", "app"}};
    Located at{{label, ""}, "", std::nullopt};
    for (const Step& step : steps) {
        if (step.index) {
            at.where.pointer += "/" + std::to_string(*step.index);
            const auto numbered = kNumbered.find(at.member);
            if (numbered == kNumbered.end()) {
                at.member += "[" + std::to_string(*step.index) + "]";
                continue;
            }
            at.where.text += ": " + numbered->second + " " + std::to_string(*step.index + 1);
            if (numbered->first == "features") {
                at.feature = *step.index + 1;
            }
            at.member.clear();
            continue;
        }
        if (step.name.size() > limits::kQuotedValue) {
            break;
        }
        if (at.member == "campaign") {
            // An offer's own campaign object, named as its checks name it.
            at.where.text += ": campaign";
            at.member.clear();
        }
        at.where.pointer = memberPointer(at.where.pointer, step.name);
        at.member += (at.member.empty() ? "" : ".") + step.name;
    }
    return at;
}

/// A line and column of the file, counted from 1.
struct TextPosition {
    std::size_t line;
    std::size_t column;
};

/// Checks the collection's members and one feature at a time, and gathers what is valid into a
/// PlaceCatalog. Campaign names used before the collection's properties are read (keys written in
/// alphabetical order put "features" first) are resolved at the end.
class Checker {
  public:
    explicit Checker(std::string label) : label_(std::move(label)), top_{label_, ""} {}

    void type(const json& value) {
        typeSeen_ = true;
        if (!value.is_string()) {
            fatal("/type", top_.text + ": type must be a string");
        } else if (value.get_ref<const std::string&>() != "FeatureCollection") {
            fatal("/type", top_.text + ": \"type\" must be \"FeatureCollection\"");
        }
    }

    void properties(const json& props) {
        propertiesSeen_ = true;
        if (props.is_null()) {
            return;
        }
        if (!props.is_object()) {
            fatal("/properties", top_.text + ": properties must be an object");
            return;
        }
        const Where where{label_, "/properties"};
        collection([&] { onlyMembers(props, {"apps", "campaigns"}, where, "the collection's properties"); });
        if (const json* apps = member(props, "apps")) {
            if (!apps->is_array()) {
                fatal("/properties/apps",
                      top_.text + ": properties.apps must be an array of {\"key\", \"name\"} objects");
            } else {
                std::size_t n = 0;
                for (const json& a : *apps) {
                    const Where at = where.sub("app " + std::to_string(n + 1), "/apps/" + std::to_string(n));
                    ++n;
                    collection([&] { parseApp(a, at); });
                }
            }
        }
        if (const json* list = member(props, "campaigns")) {
            if (!list->is_array()) {
                fatal("/properties/campaigns",
                      top_.text + ": properties.campaigns must be an array of campaign objects");
            } else {
                std::size_t n = 0;
                for (const json& c : *list) {
                    const Where at =
                        where.sub("campaign " + std::to_string(n + 1), "/campaigns/" + std::to_string(n));
                    ++n;
                    if (c.is_object()) {
                        if (const json* name = member(c, "name"); name && name->is_string()) {
                            // Known even when faulty, so that its offers are not also reported.
                            named_.insert(name->get<std::string>());
                        }
                    }
                    collection([&] { addCampaign(parseCampaign(c, at), at); });
                }
            }
        }
    }

    void featuresNotAnArray() {
        fatal("/features", top_.text + ": missing features (an array of Point features)");
    }
    void featuresStart() { featuresSeen_ = true; }
    /// How many features were read so far (the next one's index).
    std::size_t featuresRead() const { return features_; }

    void feature(const json& f) {
        const auto number = static_cast<uint32_t>(++features_);
        try {
            parseFeature(f, number);
        } catch (const Fault& fault) {
            problems_.push_back({number, fault.member, fault.message});
        }
    }

    void notAnObject() { rootNotObject_ = true; }

    /// The file ends at a number beyond a double's range (the parser stops there); `steps` lead to it.
    void numberTooLarge(const std::vector<Step>& steps, const std::string& number,
                        std::optional<TextPosition> position) {
        const Located at = locate(steps, label_);
        const std::string where = position ? " at line " + std::to_string(position->line) + ", column " +
                                                 std::to_string(position->column)
                                           : "";
        syntax_ = {at.feature, at.where.pointer,
                   at.where.text + (at.member.empty() ? "" : ": " + at.member) + ": the number " +
                       quote(number) + where + " is out of range (numbers must lie within about ±1.8e308)"};
    }

    /// The parser's own error; `token` is what it read last, which its message repeats.
    void syntaxError(const nlohmann::detail::exception& e, const std::string& token) {
        std::string text = e.what();
        if (dynamic_cast<const json::parse_error*>(&e) == nullptr) {
            syntax_ = {std::nullopt, "", label_ + ": not usable JSON (" + text + ")"};
            return;
        }
        if (token.size() > limits::kQuotedValue) {
            // An unterminated string is read to the end of the file: its message must not be as long.
            const std::string lastRead = "; last read: '" + token + "'";
            if (const auto at = text.find(lastRead); at != std::string::npos) {
                text.replace(at, lastRead.size(), "; last read: " + quote(token, '\''));
            }
        }
        // "[json.exception.parse_error.101] parse error at line 3, column 16: syntax error ..."
        std::string where;
        if (const auto at = text.find("parse error at "); at != std::string::npos) {
            const auto colon = text.find(": ", at);
            where = text.substr(at + 15, colon - at - 15) + ": ";
            text = colon == std::string::npos ? "" : text.substr(colon + 2);
        } else if (const auto p = text.find(": ", text.find("parse error")); p != std::string::npos) {
            text = text.substr(p + 2);
        }
        syntax_ = {std::nullopt, "", label_ + ": " + where + "not valid JSON (" + text + ")"};
    }

    PlaceFileCheck finish() {
        PlaceFileCheck result;
        if (syntax_) {
            result.problems.push_back(std::move(*syntax_));
            return result;
        }
        if (rootNotObject_) {
            result.problems.push_back(
                {std::nullopt, "", top_.text + ": the file must hold a GeoJSON FeatureCollection object"});
            return result;
        }
        if (!typeSeen_) {
            fatal("/type", top_.text + ": \"type\" must be \"FeatureCollection\"");
        }
        if (!featuresSeen_) {
            featuresNotAnArray();
        }
        if (fatal_) {
            result.problems.push_back(std::move(*fatal_));
            return result;
        }
        resolvePending();
        result.problems = std::move(collection_);
        result.problems.insert(result.problems.end(), std::make_move_iterator(problems_.begin()),
                               std::make_move_iterator(problems_.end()));
        if (result.problems.empty()) {
            for (auto& [name, c] : campaigns_) {
                data_.campaigns.push_back(c);
            }
            result.catalog = std::move(data_);
        }
        return result;
    }

  private:
    // The first fault that makes the file unusable as a collection; it is then the only one reported.
    // The rank keeps the order of the checks whatever the order of the members in the file.
    void fatal(const std::string& pointer, const std::string& message) {
        const int rank = pointer == "/type" ? 0 : pointer == "/features" ? 2 : 1;
        if (!fatal_ || rank < fatalRank_) {
            fatal_ = PlaceFileProblem{std::nullopt, pointer, message};
            fatalRank_ = rank;
        }
    }

    template <typename F>
    void collection(F&& check) {
        try {
            check();
        } catch (const Fault& fault) {
            collection_.push_back({std::nullopt, fault.member, fault.message});
        }
    }

    void parseApp(const json& a, const Where& where) {
        if (!a.is_object()) {
            fail(where, "", "an app must be an object with \"key\" and \"name\"");
        }
        onlyMembers(a, {"key", "name", "quietHours", "dailyOfferCap"}, where, "an app");
        AppDef app{requireString(a, "key", where, "key", kAppKey),
                   optionalString(a, "name", where, "name", "", kAppName),
                   {}};
        try {
            app.rules = parseAppRules(a);
        } catch (const RuleError& e) {
            fail(where, e.member, e.what());
        }
        if (app.key.empty()) {
            fail(where, "/key", "key must not be empty");
        }
        data_.apps.push_back(std::move(app));
    }

    void addCampaign(const CampaignDef& def, const Where& where) {
        named_.insert(def.name);
        const auto [it, added] = campaigns_.emplace(def.name, def);
        if (!added && !(it->second == def)) {
            fail(where, "", "campaign " + quote(def.name) + " is already defined with other values");
        }
    }

    // Offers naming a campaign before the collection's properties were read: checked at the end.
    void resolvePending() {
        std::vector<PlaceFileProblem> late;
        for (const auto& [name, uses] : pending_) {
            if (named_.contains(name)) {
                continue;
            }
            for (const auto& [feature, offer] : uses) {
                late.push_back({feature,
                                "/features/" + std::to_string(feature - 1) + "/properties/offers/" +
                                    std::to_string(offer - 1) + "/campaign",
                                label_ + ": feature " + std::to_string(feature) + ": offer " +
                                    std::to_string(offer) + ": unknown campaign " + quote(name) +
                                    " (define it in properties.campaigns)"});
            }
        }
        if (late.empty()) {
            return;
        }
        // One problem per feature, in feature order, as if found while reading.
        std::vector<PlaceFileProblem> merged;
        merged.reserve(problems_.size() + late.size());
        std::stable_sort(late.begin(), late.end(),
                         [](const auto& a, const auto& b) { return *a.feature < *b.feature; });
        std::size_t i = 0;
        for (PlaceFileProblem& p : late) {
            while (i < problems_.size() && *problems_[i].feature < *p.feature) {
                merged.push_back(std::move(problems_[i++]));
            }
            const bool taken = (i < problems_.size() && *problems_[i].feature == *p.feature) ||
                               (!merged.empty() && *merged.back().feature == *p.feature);
            if (!taken) {
                merged.push_back(std::move(p));
            }
        }
        while (i < problems_.size()) {
            merged.push_back(std::move(problems_[i++]));
        }
        problems_ = std::move(merged);
    }

    void parseFeature(const json& f, uint32_t number) {
        const Where where{label_ + ": feature " + std::to_string(number),
                          "/features/" + std::to_string(number - 1)};
        if (!f.is_object()) {
            fail(where, "", "a feature must be an object");
        }
        if (optionalString(f, "type", where, "type", "") != "Feature") {
            fail(where, "/type", "\"type\" must be \"Feature\"");
        }
        const json* geometry = member(f, "geometry");
        if (!geometry || !geometry->is_object()) {
            fail(where, "/geometry", "missing geometry");
        }
        if (optionalString(*geometry, "type", where, "geometry.type", "") != "Point") {
            fail(where, "/geometry/type", "geometry.type must be \"Point\" (one feature per place)");
        }
        const json* coords = member(*geometry, "coordinates");
        if (!coords || !coords->is_array() || coords->size() < 2 || coords->size() > 3 ||
            !(*coords)[0].is_number() || !(*coords)[1].is_number()) {
            fail(where, "/geometry/coordinates", "geometry.coordinates must be [longitude, latitude]");
        }
        PlaceDef place;
        place.lon = (*coords)[0].get<double>();
        place.lat = (*coords)[1].get<double>();
        if (!(place.lon >= -180 && place.lon <= 180 && place.lat >= -90 && place.lat <= 90)) {
            fail(where, "/geometry/coordinates",
                 "geometry.coordinates [" + (*coords)[0].dump() + ", " + (*coords)[1].dump() +
                     "] out of range: longitude must be -180..180, latitude -90..90");
        }
        const json* props = member(f, "properties");
        if (!props || !props->is_object()) {
            fail(where, "/properties", "missing properties");
        }
        const Where pw{where.text, where.pointer + "/properties"};
        onlyMembers(*props, {"placeId", "name", "radius", "offers"}, pw, "properties");
        place.id = requireId(*props, "placeId", where, "properties.placeId");
        if (const auto [first, added] = placeFeature_.emplace(place.id, number); !added) {
            fail(where, "/properties/placeId",
                 "placeId " + std::to_string(place.id) + " is already used by feature " +
                     std::to_string(first));
        }
        place.name = optionalString(*props, "name", where, "properties.name", "", kPlaceName);
        const json* radius = member(*props, "radius");
        if (!radius) {
            fail(where, "/properties/radius", "missing properties.radius");
        }
        if (!radius->is_number() || !(radius->get<double>() > 0) || !std::isfinite(radius->get<double>())) {
            fail(where, "/properties/radius", "properties.radius must be a number of metres above 0");
        }
        place.radius = radius->get<double>();
        const json* offers = member(*props, "offers");
        if (!offers) {
            fail(where, "/properties/offers", "missing properties.offers");
        }
        if (!offers->is_array()) {
            fail(where, "/properties/offers", "properties.offers must be an array");
        }
        uint32_t n = 0;
        for (const json& o : *offers) {
            const Where ow =
                where.sub("offer " + std::to_string(n + 1), "/properties/offers/" + std::to_string(n));
            ++n;
            const int64_t id = parseOffer(o, ow, number, n);
            if (std::find(place.offers.begin(), place.offers.end(), id) != place.offers.end()) {
                fail(ow, "/eventId", "eventId " + std::to_string(id) + " appears twice in this place");
            }
            place.offers.push_back(id);
        }
        data_.addPlace(place);
    }

    int64_t parseOffer(const json& o, const Where& where, uint32_t featureNumber, uint32_t offerNumber) {
        if (!o.is_object()) {
            fail(where, "", "an offer must be an object");
        }
        onlyMembers(o,
                    {"eventId", "campaign", "eventName", "alertText", "mediaType", "mediaUrl", "tags",
                     "dwellTime", "eventTypeId"},
                    where, "an offer");
        OfferDef offer;
        offer.id = requireId(o, "eventId", where, "eventId");
        const json* campaign = member(o, "campaign");
        if (!campaign) {
            fail(where, "/campaign", "missing campaign (a campaign name, or a campaign object)");
        }
        if (campaign->is_string()) {
            offer.campaign = campaign->get<std::string>();
            if (!named_.contains(offer.campaign)) {
                if (propertiesSeen_) {
                    fail(
                        where, "/campaign",
                        "unknown campaign " + quote(offer.campaign) + " (define it in properties.campaigns)");
                }
                pending_[offer.campaign].emplace_back(featureNumber, offerNumber);
            }
        } else if (campaign->is_object()) {
            const CampaignDef def = parseCampaign(*campaign, where.sub("campaign", "/campaign"));
            addCampaign(def, where);
            offer.campaign = def.name;
        } else {
            fail(where, "/campaign", "campaign must be a campaign name or a campaign object");
        }
        offer.eventName = requireString(o, "eventName", where, "eventName", kOfferEventName);
        offer.alertText = requireString(o, "alertText", where, "alertText", kAlertText);
        offer.mediaType = optionalString(o, "mediaType", where, "mediaType", "html", kMediaType);
        offer.mediaUrl = optionalString(o, "mediaUrl", where, "mediaUrl", "", kMediaUrl);
        if (!offer.mediaUrl.empty() && offer.mediaUrl.front() != '/' &&
            offer.mediaUrl.rfind("http://", 0) != 0 && offer.mediaUrl.rfind("https://", 0) != 0) {
            fail(where, "/mediaUrl",
                 "mediaUrl " + quote(offer.mediaUrl) +
                     " must start with \"/\" (a page of the content folder) or be an http(s) URL");
        }
        if (const json* tags = member(o, "tags")) {
            offer.tags = parseTags(*tags, where);
        }
        if (const json* dwell = member(o, "dwellTime")) {
            if (!dwell->is_number_integer() || dwell->get<int64_t>() < 0 || dwell->get<int64_t>() > 1440 ||
                (dwell->is_number_unsigned() && dwell->get<uint64_t>() > 1440u)) {
                fail(where, "/dwellTime", "dwellTime must be a whole number of minutes from 0 to 1440");
            }
            offer.dwellTime = dwell->get<int>();
        }
        const json* type = member(o, "eventTypeId");
        if (!type) {
            fail(where, "/eventTypeId", "missing eventTypeId");
        }
        if (!type->is_number_integer() || type->get<int64_t>() < 1 || type->get<int64_t>() > 3 ||
            (type->is_number_unsigned() && type->get<uint64_t>() > 3u)) {
            fail(where, "/eventTypeId", "eventTypeId must be 1, 2 or 3");
        }
        offer.eventType = type->get<int>();

        const auto [index, added] = offerIndex_.emplace(offer.id, static_cast<uint32_t>(data_.offerCount()));
        if (added) {
            data_.addOffer(offer, featureNumber);
        } else if (!data_.sameOffer(index, offer)) {
            fail(where, "",
                 "eventId " + std::to_string(offer.id) + " is already defined differently in feature " +
                     std::to_string(data_.offerFeature(index)));
        }
        return offer.id;
    }

    static std::string parseTags(const json& tags, const Where& where) {
        if (tags.is_string()) {
            checkLength(tags.get_ref<const std::string&>(), limits::kOfferTags, where, "tags");
            return tags.get<std::string>();
        }
        if (!tags.is_array()) {
            fail(where, "/tags", "tags must be a string or an array of strings");
        }
        std::string joined;
        for (const json& t : tags) {
            if (!t.is_string()) {
                fail(where, "/tags", "tags must be a string or an array of strings");
            }
            joined += (joined.empty() ? "" : ",") + t.get<std::string>();
        }
        checkLength(joined, limits::kOfferTags, where, "tags");
        return joined;
    }

    std::string label_;
    Where top_;
    PlaceCatalog data_;
    std::size_t features_ = 0;
    bool typeSeen_ = false;
    bool propertiesSeen_ = false;
    bool featuresSeen_ = false;
    bool rootNotObject_ = false;
    std::optional<PlaceFileProblem> syntax_;  ///< a syntax error or a number out of range: the only problem
    std::optional<PlaceFileProblem> fatal_;
    int fatalRank_ = 0;
    std::vector<PlaceFileProblem> collection_;
    std::vector<PlaceFileProblem> problems_;
    std::map<std::string, CampaignDef> campaigns_;
    std::set<std::string> named_;
    std::map<std::string, std::vector<std::pair<uint32_t, uint32_t>>> pending_;
    IdMap placeFeature_;
    IdMap offerIndex_;
};

/// Builds one JSON value from SAX events (a feature, or one of the collection's small members).
class TreeBuilder {
  public:
    void value(json&& v) {
        if (stack_.empty()) {
            root_ = std::move(v);
        } else if (stack_.back()->is_array()) {
            stack_.back()->push_back(std::move(v));
        } else {
            (*stack_.back())[key_] = std::move(v);
        }
    }
    void open(json&& container) {
        json* slot = nullptr;
        if (stack_.empty()) {
            root_ = std::move(container);
            slot = &root_;
        } else if (stack_.back()->is_array()) {
            stack_.back()->push_back(std::move(container));
            slot = &stack_.back()->back();
        } else {
            slot = &((*stack_.back())[key_] = std::move(container));
        }
        stack_.push_back(slot);
    }
    void close() { stack_.pop_back(); }
    void key(std::string&& k) { key_ = std::move(k); }
    /// The steps from the value being built to where its next value goes.
    std::vector<Step> path() const {
        std::vector<Step> steps;
        for (std::size_t i = 1; i < stack_.size(); ++i) {
            steps.push_back(stepTo(*stack_[i - 1], stack_[i]));
        }
        if (!stack_.empty()) {
            steps.push_back(stack_.back()->is_array() ? Step{"", stack_.back()->size()}
                                                      : Step{key_, std::nullopt});
        }
        return steps;
    }
    json take() {
        stack_.clear();
        return std::move(root_);
    }

  private:
    // Open containers are the last element of an array, or found by address (only when a problem
    // needs the path).
    static Step stepTo(const json& parent, const json* child) {
        if (parent.is_array()) {
            return {"", parent.size() - 1};
        }
        for (auto it = parent.begin(); it != parent.end(); ++it) {
            if (&*it == child) {
                return {it.key(), std::nullopt};
            }
        }
        return {};
    }

    json root_;
    std::vector<json*> stack_;
    std::string key_;
};

/// The SAX handler: follows the collection's top level, materialises "type", "properties" and one
/// feature at a time, and skips every other member without building it.
class Reader {
  public:
    explicit Reader(Checker& checker) : checker_(checker) {}

    bool null() { return scalar(json(nullptr)); }
    bool boolean(bool v) { return scalar(json(v)); }
    bool number_integer(json::number_integer_t v) { return scalar(json(v)); }
    bool number_unsigned(json::number_unsigned_t v) { return scalar(json(v)); }
    bool number_float(json::number_float_t v, const std::string&) { return scalar(json(v)); }
    bool string(std::string& v) { return scalar(json(std::move(v))); }
    bool binary(json::binary_t&) { return true; }
    bool start_object(std::size_t) { return open(json::object()); }
    bool start_array(std::size_t) { return open(json::array()); }
    bool end_object() { return close(); }
    bool end_array() { return close(); }
    bool key(std::string& k) {
        if (building_) {
            builder_.key(std::move(k));
        } else if (depth_ == 1) {
            topKey_ = std::move(k);
        }
        return true;
    }
    /// nlohmann passes its lexer's position, with line and column, where the SAX interface declares a
    /// byte offset.
    template <typename Position>
    bool parse_error(const Position& position, const std::string& token,
                     const nlohmann::detail::exception& e) {
        if (dynamic_cast<const json::out_of_range*>(&e) != nullptr && e.id == 406) {
            std::optional<TextPosition> start;
            if constexpr (requires { position.lines_read + position.chars_read_current_line; }) {
                // The lexer stands on the number's last character.
                start = TextPosition{position.lines_read + 1,
                                     position.chars_read_current_line + 1 -
                                         std::min(token.size(), position.chars_read_current_line)};
            }
            checker_.numberTooLarge(path(), token, start);
        } else {
            checker_.syntaxError(e, token);
        }
        return false;
    }

  private:
    enum class Slot { None, Top, Feature };

    /// The steps to where the parser is; inside a member that is skipped, to that member.
    std::vector<Step> path() const {
        if (depth_ == 0 || !rootIsObject_) {
            return {};
        }
        const bool inFeature = building_ ? slot_ == Slot::Feature : depth_ == 2 && inFeatures_;
        std::vector<Step> steps;
        if (inFeature) {
            steps = {{"features", std::nullopt}, {"", checker_.featuresRead()}};
        } else {
            steps = {{topKey_, std::nullopt}};
        }
        if (building_) {
            const std::vector<Step> inner = builder_.path();
            steps.insert(steps.end(), inner.begin(), inner.end());
        }
        return steps;
    }

    bool scalar(json&& v) {
        if (building_) {
            builder_.value(std::move(v));
        } else if (depth_ == 0) {
            checker_.notAnObject();
        } else if (depth_ == 1 && rootIsObject_) {
            top(std::move(v));
        } else if (depth_ == 2 && inFeatures_) {
            checker_.feature(v);
        }
        return true;
    }

    bool open(json&& container) {
        if (building_) {
            builder_.open(std::move(container));
        } else if (depth_ == 0) {
            rootIsObject_ = container.is_object();
            if (!rootIsObject_) {
                checker_.notAnObject();
            }
        } else if (depth_ == 1 && rootIsObject_) {
            if (topKey_ == "features") {
                if (container.is_array()) {
                    inFeatures_ = true;
                    checker_.featuresStart();
                } else {
                    checker_.featuresNotAnArray();
                }
            } else if (topKey_ == "type" || topKey_ == "properties") {
                capture(Slot::Top, std::move(container));
            }
        } else if (depth_ == 2 && inFeatures_) {
            capture(Slot::Feature, std::move(container));
        }
        ++depth_;
        return true;
    }

    bool close() {
        --depth_;
        if (building_) {
            builder_.close();
            if (depth_ == captureDepth_) {
                building_ = false;
                json value = builder_.take();
                if (slot_ == Slot::Feature) {
                    checker_.feature(value);
                } else {
                    top(std::move(value));
                }
            }
        } else if (depth_ == 1 && inFeatures_) {
            inFeatures_ = false;
        }
        return true;
    }

    void capture(Slot slot, json&& container) {
        building_ = true;
        slot_ = slot;
        captureDepth_ = depth_;
        builder_.open(std::move(container));
    }

    void top(json&& value) {
        if (topKey_ == "type") {
            checker_.type(value);
        } else if (topKey_ == "properties") {
            checker_.properties(value);
        } else if (topKey_ == "features") {
            checker_.featuresNotAnArray();
        }
    }

    Checker& checker_;
    TreeBuilder builder_;
    std::size_t depth_ = 0;
    std::size_t captureDepth_ = 0;
    bool building_ = false;
    bool rootIsObject_ = false;
    bool inFeatures_ = false;
    Slot slot_ = Slot::None;
    std::string topKey_;
};

/// An input iterator over an istream read in chunks, for nlohmann's parser.
class ChunkIterator {
  public:
    using iterator_category = std::input_iterator_tag;
    using value_type = char;
    using difference_type = std::ptrdiff_t;
    using pointer = const char*;
    using reference = const char&;

    struct Source {
        std::istream* in = nullptr;
        std::vector<char> buffer;
        std::size_t pos = 0;
        std::size_t size = 0;
        bool refill() {
            pos = 0;
            size = 0;
            if (in->good()) {
                in->read(buffer.data(), static_cast<std::streamsize>(buffer.size()));
                size = static_cast<std::size_t>(in->gcount());
            }
            return size > 0;
        }
    };

    ChunkIterator() = default;
    explicit ChunkIterator(Source* source) : source_(source) {
        if (source_->pos >= source_->size && !source_->refill()) {
            source_ = nullptr;
        }
    }
    const char& operator*() const { return source_->buffer[source_->pos]; }
    ChunkIterator& operator++() {
        if (++source_->pos >= source_->size && !source_->refill()) {
            source_ = nullptr;
        }
        return *this;
    }
    bool operator==(const ChunkIterator& other) const { return source_ == other.source_; }
    bool operator!=(const ChunkIterator& other) const { return source_ != other.source_; }

  private:
    Source* source_ = nullptr;
};

void putLength(std::string& out, std::size_t n) {
    while (n >= 0x80) {
        out += static_cast<char>((n & 0x7F) | 0x80);
        n >>= 7;
    }
    out += static_cast<char>(n);
}

std::string_view takeString(const char*& p) {
    std::size_t n = 0;
    for (int shift = 0;; shift += 7) {
        const auto byte = static_cast<unsigned char>(*p++);
        n |= static_cast<std::size_t>(byte & 0x7F) << shift;
        if (byte < 0x80) {
            break;
        }
    }
    const std::string_view text(p, n);
    p += n;
    return text;
}

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

uint64_t PlaceCatalog::store(std::initializer_list<std::string_view> strings, uint32_t& size) {
    scratch_.clear();
    for (const std::string_view s : strings) {
        putLength(scratch_, s.size());
        scratch_.append(s);
    }
    size = static_cast<uint32_t>(scratch_.size());
    if (used_ + scratch_.size() > kBlock || blocks_.empty()) {
        blocks_.push_back(std::make_unique<char[]>(std::max(kBlock, scratch_.size())));
        used_ = 0;
    }
    std::copy(scratch_.begin(), scratch_.end(), blocks_.back().get() + used_);
    const uint64_t handle = (static_cast<uint64_t>(blocks_.size() - 1) << 32) | used_;
    // A record larger than a block has a block of its own.
    used_ = scratch_.size() > kBlock ? kBlock : used_ + scratch_.size();
    return handle;
}

const char* PlaceCatalog::at(uint64_t handle) const {
    return blocks_[handle >> 32].get() + (handle & 0xFFFFFFFFu);
}

void PlaceCatalog::addOffer(const OfferDef& o, uint32_t featureNumber) {
    OfferRow row{static_cast<int32_t>(o.id),
                 static_cast<int16_t>(o.dwellTime),
                 static_cast<int8_t>(o.eventType),
                 0,
                 featureNumber,
                 0};
    row.text = store({o.campaign, o.eventName, o.alertText, o.mediaType, o.mediaUrl, o.tags}, row.size);
    offers_.push_back(row);
}

bool PlaceCatalog::sameOffer(std::size_t i, const OfferDef& o) const {
    const OfferDef stored = offer(i);
    return stored == o;
}

OfferDef PlaceCatalog::offer(std::size_t i) const {
    const OfferRow& row = offers_[i];
    const char* p = at(row.text);
    OfferDef o;
    o.id = row.id;
    o.campaign = takeString(p);
    o.eventName = takeString(p);
    o.alertText = takeString(p);
    o.mediaType = takeString(p);
    o.mediaUrl = takeString(p);
    o.tags = takeString(p);
    o.dwellTime = row.dwellTime;
    o.eventType = row.eventType;
    return o;
}

void PlaceCatalog::addPlace(const PlaceDef& p) {
    PlaceRow row{static_cast<int32_t>(p.id),
                 static_cast<uint32_t>(placeOffers_.size()),
                 static_cast<uint32_t>(p.offers.size()),
                 p.lat,
                 p.lon,
                 p.radius,
                 0};
    uint32_t size = 0;
    row.name = store({p.name}, size);
    for (const int64_t o : p.offers) {
        placeOffers_.push_back(static_cast<int32_t>(o));
    }
    places_.push_back(row);
}

PlaceDef PlaceCatalog::place(std::size_t i) const {
    const PlaceRow& row = places_[i];
    const char* p = at(row.name);
    PlaceDef place;
    place.id = row.id;
    place.name = takeString(p);
    place.lat = row.lat;
    place.lon = row.lon;
    place.radius = row.radius;
    place.offers.assign(placeOffers_.begin() + row.firstOffer,
                        placeOffers_.begin() + row.firstOffer + row.offerCount);
    return place;
}

CatalogData PlaceCatalog::expand() const {
    CatalogData data{apps, campaigns, {}, {}};
    data.offers.reserve(offerCount());
    for (std::size_t i = 0; i < offerCount(); ++i) {
        data.offers.push_back(offer(i));
    }
    data.places.reserve(placeCount());
    for (std::size_t i = 0; i < placeCount(); ++i) {
        data.places.push_back(place(i));
    }
    return data;
}

PlaceFileCheck checkPlaceFile(std::string_view text, const std::string& label) {
    Checker checker(label);
    Reader reader(checker);
    json::sax_parse(text.data(), text.data() + text.size(), &reader);
    return checker.finish();
}

PlaceFileCheck checkPlaceFile(std::istream& in, const std::string& label, std::size_t chunkSize) {
    Checker checker(label);
    Reader reader(checker);
    ChunkIterator::Source source{&in, std::vector<char>(std::max<std::size_t>(chunkSize, 1)), 0, 0};
    json::sax_parse(ChunkIterator(&source), ChunkIterator(), &reader);
    if (in.bad()) {
        return {{{std::nullopt, "", label + ": cannot read the file"}}, std::nullopt};
    }
    return checker.finish();
}

std::string describeProblems(const std::vector<PlaceFileProblem>& problems) {
    constexpr std::size_t kMaxListed = 50;
    std::string all;
    for (std::size_t i = 0; i < problems.size() && i < kMaxListed; ++i) {
        all += (i > 0 ? "\n" : "") + problems[i].message;
    }
    if (problems.size() > kMaxListed) {
        all += "\n(and " + std::to_string(problems.size() - kMaxListed) + " more)";
    }
    return all;
}

CatalogData parseGeoJson(const std::string& text, const std::string& label) {
    PlaceFileCheck check = checkPlaceFile(std::string_view(text), label);
    if (!check.problems.empty()) {
        throw ImportError(describeProblems(check.problems));
    }
    return check.catalog->expand();
}

}  // namespace tovrel::server
