#include "rules/rules.h"

#include <date/tz.h>

#include <array>
#include <chrono>
#include <cmath>
#include <nlohmann/json.hpp>

namespace tovrel::server {
namespace {

using nlohmann::json;

constexpr std::array<const char*, 7> kDays = {"mon", "tue", "wed", "thu", "fri", "sat", "sun"};
constexpr std::array<const char*, 7> kDayTitles = {"Mon", "Tue", "Wed", "Thu", "Fri", "Sat", "Sun"};
constexpr std::size_t kMaxWindows = 32;
constexpr std::size_t kMaxCaps = 8;
constexpr int kMaxPriority = 1000;
constexpr std::int64_t kMaxCount = 1000000;

struct Period {
    const char* name;
    std::int64_t seconds;
};
constexpr std::array<Period, 3> kPeriods = {{{"hour", 3600}, {"day", 86400}, {"week", 7 * 86400}}};

const json* member(const json& object, const char* name) {
    const auto it = object.find(name);
    return it == object.end() || it->is_null() ? nullptr : &*it;
}

void onlyMembers(const json& object, std::initializer_list<std::string_view> allowed, const std::string& at,
                 const std::string& what) {
    for (const auto& [name, value] : object.items()) {
        if (std::find(allowed.begin(), allowed.end(), name) == allowed.end()) {
            throw RuleError(at + "/" + name, what + " has no member \"" + name + "\"");
        }
    }
}

// "11:30" to 690; "24:00" only where an end is read.
int minutesOf(const json& value, const std::string& at, const char* name, bool end) {
    const std::string path = at + "/" + name;
    const std::string bad = std::string(name) + " must be a time of day like \"11:30\"";
    if (!value.is_string()) {
        throw RuleError(path, bad);
    }
    const std::string& s = value.get_ref<const std::string&>();
    if (s.size() != 5 || s[2] != ':' || !std::isdigit(static_cast<unsigned char>(s[0])) ||
        !std::isdigit(static_cast<unsigned char>(s[1])) || !std::isdigit(static_cast<unsigned char>(s[3])) ||
        !std::isdigit(static_cast<unsigned char>(s[4]))) {
        throw RuleError(path, bad);
    }
    const int hours = (s[0] - '0') * 10 + (s[1] - '0');
    const int minutes = (s[3] - '0') * 10 + (s[4] - '0');
    if (minutes > 59 || hours > 24 || (hours == 24 && (minutes != 0 || !end))) {
        throw RuleError(path, bad);
    }
    return hours * 60 + minutes;
}

std::string clock(int minutes) {
    const auto digit = [](int d) { return static_cast<char>('0' + d); };
    const int h = minutes / 60;
    const int m = minutes % 60;
    return {digit(h / 10), digit(h % 10), ':', digit(m / 10), digit(m % 10)};
}

const date::time_zone* zoneNamed(const json& value, const std::string& at) {
    if (!value.is_string() || value.get_ref<const std::string&>().empty() ||
        value.get_ref<const std::string&>().size() > 64) {
        throw RuleError(at + "/timeZone", "timeZone must be a time zone name like \"Europe/Berlin\"");
    }
    try {
        return date::locate_zone(value.get_ref<const std::string&>());
    } catch (const std::runtime_error&) {
        throw RuleError(at + "/timeZone", "timeZone \"" + value.get<std::string>() +
                                              "\" is not a time zone of the tz database");
    }
}

TimeWindow window(const json& w, const std::string& at, bool everyDay) {
    if (!w.is_object()) {
        throw RuleError(at, "a window must be an object with \"from\" and \"to\"");
    }
    TimeWindow out;
    if (everyDay) {
        out.days = 0x7f;
    } else {
        onlyMembers(w, {"days", "from", "to"}, at, "a window");
        const json* days = member(w, "days");
        if (!days || !days->is_array() || days->empty()) {
            throw RuleError(at + "/days", "days must list days of the week like [\"mon\", \"tue\"]");
        }
        for (std::size_t i = 0; i < days->size(); ++i) {
            const json& d = (*days)[i];
            const auto* found =
                d.is_string() ? std::find(kDays.begin(), kDays.end(), d.get<std::string>()) : kDays.end();
            if (found == kDays.end()) {
                throw RuleError(
                    at + "/days/" + std::to_string(i),
                    "a day must be one of \"mon\", \"tue\", \"wed\", \"thu\", \"fri\", \"sat\", \"sun\"");
            }
            out.days |= static_cast<std::uint8_t>(1u << (found - kDays.begin()));
        }
    }
    const json* from = member(w, "from");
    const json* to = member(w, "to");
    if (!from || !to) {
        throw RuleError(at + (from ? "/to" : "/from"), std::string("missing ") + (from ? "to" : "from"));
    }
    out.from = minutesOf(*from, at, "from", false);
    out.to = minutesOf(*to, at, "to", true);
    if (out.from == out.to) {
        throw RuleError(at + "/to", "to must differ from from");
    }
    return out;
}

Schedule schedule(const json& s, const std::string& at, bool quietHours) {
    if (!s.is_object()) {
        throw RuleError(at, quietHours ? "quietHours must be an object with \"timeZone\", \"from\" and \"to\""
                                       : "schedule must be an object with \"timeZone\" and \"windows\"");
    }
    onlyMembers(s,
                quietHours ? std::initializer_list<std::string_view>{"timeZone", "from", "to"}
                           : std::initializer_list<std::string_view>{"timeZone", "windows"},
                at, quietHours ? "quietHours" : "schedule");
    Schedule out;
    const json* zone = member(s, "timeZone");
    if (!zone) {
        throw RuleError(at + "/timeZone", "missing timeZone");
    }
    out.zone = zoneNamed(*zone, at);
    out.timeZone = out.zone->name();
    if (quietHours) {
        out.windows.push_back(window(s, at, true));
        return out;
    }
    const json* windows = member(s, "windows");
    if (!windows || !windows->is_array() || windows->empty() || windows->size() > kMaxWindows) {
        throw RuleError(at + "/windows", "windows must be a list of 1 to 32 windows");
    }
    for (std::size_t i = 0; i < windows->size(); ++i) {
        out.windows.push_back(window((*windows)[i], at + "/windows/" + std::to_string(i), false));
    }
    return out;
}

std::int64_t count(const json* value, const std::string& at, const char* name) {
    if (!value->is_number_integer() || value->get<std::int64_t>() < 0 ||
        (value->is_number_unsigned() && value->get<std::uint64_t>() > kMaxCount) ||
        value->get<std::int64_t>() > kMaxCount) {
        throw RuleError(at, std::string(name) + " must be a whole number from 0 to 1000000");
    }
    return value->get<std::int64_t>();
}

json scheduleJson(const Schedule& s, bool quietHours) {
    json out{{"timeZone", s.timeZone}};
    if (quietHours) {
        out["from"] = clock(s.windows.front().from);
        out["to"] = clock(s.windows.front().to);
        return out;
    }
    json windows = json::array();
    for (const TimeWindow& w : s.windows) {
        json days = json::array();
        for (std::size_t d = 0; d < kDays.size(); ++d) {
            if ((w.days >> d & 1u) != 0) {
                days.push_back(kDays[d]);
            }
        }
        windows.push_back({{"days", std::move(days)}, {"from", clock(w.from)}, {"to", clock(w.to)}});
    }
    out["windows"] = std::move(windows);
    return out;
}

// "Mon–Fri", "Sat, Sun", "every day".
std::string daysText(std::uint8_t days) {
    if (days == 0x7f) {
        return "every day";
    }
    std::string out;
    for (std::size_t d = 0; d < kDays.size();) {
        if ((days >> d & 1u) == 0) {
            ++d;
            continue;
        }
        std::size_t last = d;
        while (last + 1 < kDays.size() && (days >> (last + 1) & 1u) != 0) {
            ++last;
        }
        if (!out.empty()) {
            out += ", ";
        }
        out += kDayTitles[d];
        if (last >= d + 2) {
            out += "\u2013" + std::string(kDayTitles[last]);
        } else if (last == d + 1) {
            out += ", " + std::string(kDayTitles[last]);
        }
        d = last + 1;
    }
    return out;
}

}  // namespace

bool Schedule::contains(double unixTime) const {
    if (zone == nullptr) {
        return true;
    }
    using namespace std::chrono;
    const date::sys_seconds instant{seconds{static_cast<std::int64_t>(std::floor(unixTime))}};
    const date::local_seconds local = zone->to_local(instant);
    const date::local_days day = floor<days>(local);
    const int minute = static_cast<int>(floor<minutes>(local - day).count());
    const unsigned today = (date::weekday(day).iso_encoding() - 1) % 7;
    const unsigned yesterday = (today + 6) % 7;
    for (const TimeWindow& w : windows) {
        if (w.from < w.to) {
            if ((w.days >> today & 1u) != 0 && w.from <= minute && minute < w.to) {
                return true;
            }
        } else if (((w.days >> today & 1u) != 0 && minute >= w.from) ||
                   ((w.days >> yesterday & 1u) != 0 && minute < w.to)) {
            return true;
        }
    }
    return false;
}

std::string Schedule::describe() const {
    std::string out;
    for (const TimeWindow& w : windows) {
        if (!out.empty()) {
            out += ", ";
        }
        out += daysText(w.days) + " " + clock(w.from) + "\u2013" + clock(w.to);
    }
    return out + " " + timeZone;
}

CampaignRules parseCampaignRules(const json& c) {
    CampaignRules rules;
    if (const json* s = member(c, "schedule")) {
        rules.schedule = schedule(*s, "/schedule", false);
    }
    if (const json* caps = member(c, "caps")) {
        if (!caps->is_array() || caps->size() > kMaxCaps) {
            throw RuleError("/caps",
                            "caps must be a list of at most 8 caps like {\"count\": 1, \"per\": \"day\"}");
        }
        for (std::size_t i = 0; i < caps->size(); ++i) {
            const json& cap = (*caps)[i];
            const std::string at = "/caps/" + std::to_string(i);
            if (!cap.is_object()) {
                throw RuleError(at, "a cap must be an object like {\"count\": 1, \"per\": \"day\"}");
            }
            onlyMembers(cap, {"count", "per"}, at, "a cap");
            const json* n = member(cap, "count");
            const json* per = member(cap, "per");
            if (!n) {
                throw RuleError(at + "/count", "missing count");
            }
            FrequencyCap out;
            out.count = count(n, at + "/count", "count");
            for (const Period& p : kPeriods) {
                if (per && per->is_string() && per->get_ref<const std::string&>() == p.name) {
                    out.per = p.name;
                    out.seconds = p.seconds;
                }
            }
            if (out.seconds == 0) {
                throw RuleError(at + "/per", "per must be \"hour\", \"day\" or \"week\"");
            }
            rules.caps.push_back(std::move(out));
        }
    }
    if (const json* p = member(c, "priority")) {
        if (!p->is_number_integer() || p->get<std::int64_t>() < -kMaxPriority ||
            p->get<std::int64_t>() > kMaxPriority ||
            (p->is_number_unsigned() && p->get<std::uint64_t>() > 1000u)) {
            throw RuleError("/priority", "priority must be a whole number from -1000 to 1000");
        }
        rules.priority = p->get<int>();
    }
    if (const json* share = member(c, "controlGroup")) {
        if (!share->is_number() || !(share->get<double>() >= 0) || !(share->get<double>() < 1)) {
            throw RuleError("/controlGroup",
                            "controlGroup must be a share of devices from 0 up to 1, like 0.1");
        }
        rules.controlGroup = share->get<double>();
    }
    return rules;
}

AppRules parseAppRules(const json& a) {
    AppRules rules;
    if (const json* q = member(a, "quietHours")) {
        rules.quietHours = schedule(*q, "/quietHours", true);
    }
    if (const json* cap = member(a, "dailyOfferCap")) {
        rules.dailyOfferCap = count(cap, "/dailyOfferCap", "dailyOfferCap");
    }
    return rules;
}

void writeRules(json& c, const CampaignRules& rules) {
    if (rules.schedule) {
        c["schedule"] = scheduleJson(*rules.schedule, false);
    }
    if (!rules.caps.empty()) {
        json caps = json::array();
        for (const FrequencyCap& cap : rules.caps) {
            caps.push_back({{"count", cap.count}, {"per", cap.per}});
        }
        c["caps"] = std::move(caps);
    }
    if (rules.priority != 0) {
        c["priority"] = rules.priority;
    }
    if (rules.controlGroup != 0) {
        c["controlGroup"] = rules.controlGroup;
    }
}

void writeRules(json& a, const AppRules& rules) {
    if (rules.quietHours) {
        a["quietHours"] = scheduleJson(*rules.quietHours, true);
    }
    if (rules.dailyOfferCap) {
        a["dailyOfferCap"] = *rules.dailyOfferCap;
    }
}

std::string rulesText(const CampaignRules& rules) {
    json out = json::object();
    writeRules(out, rules);
    return out.empty() ? std::string() : out.dump();
}

std::string rulesText(const AppRules& rules) {
    json out = json::object();
    writeRules(out, rules);
    return out.empty() ? std::string() : out.dump();
}

CampaignRules campaignRulesFrom(std::string_view text) {
    if (text.empty()) {
        return {};
    }
    try {
        return parseCampaignRules(json::parse(text));
    } catch (const std::exception&) {
        return {};
    }
}

void addStoredRules(json& object, std::string_view text) {
    if (text.empty()) {
        return;
    }
    json rules = json::parse(text, nullptr, false);
    if (rules.is_object()) {
        object.update(rules);
    }
}

AppRules appRulesFrom(std::string_view text) {
    if (text.empty()) {
        return {};
    }
    try {
        return parseAppRules(json::parse(text));
    } catch (const std::exception&) {
        return {};
    }
}

}  // namespace tovrel::server
