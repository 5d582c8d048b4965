#include "webhooks/retry_schedule.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <ctime>

#include "common/text.h"

namespace tovrel::server::webhooks {

namespace {

constexpr double kLongestWait = 86400;
constexpr double kJitter = 0.1;

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

/// Reads exactly `count` digits from the front of `text`.
bool number(std::string_view& text, std::size_t count, int& value) {
    if (text.size() < count) {
        return false;
    }
    value = 0;
    for (std::size_t i = 0; i < count; ++i) {
        if (!isDigit(text[i])) {
            return false;
        }
        value = value * 10 + (text[i] - '0');
    }
    text.remove_prefix(count);
    return true;
}

bool literal(std::string_view& text, std::string_view expected) {
    if (!text.starts_with(expected)) {
        return false;
    }
    text.remove_prefix(expected.size());
    return true;
}

/// Month 1..12 from its three-letter name (case as HTTP writes it).
bool month(std::string_view& text, int& value) {
    static constexpr std::array<std::string_view, 12> kMonths{"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                              "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    for (std::size_t i = 0; i < kMonths.size(); ++i) {
        if (literal(text, kMonths[i])) {
            value = static_cast<int>(i) + 1;
            return true;
        }
    }
    return false;
}

bool weekday(std::string_view& text, bool longName) {
    static constexpr std::array<std::string_view, 7> kShort{"Mon", "Tue", "Wed", "Thu", "Fri", "Sat", "Sun"};
    static constexpr std::array<std::string_view, 7> kLong{"Monday", "Tuesday",  "Wednesday", "Thursday",
                                                           "Friday", "Saturday", "Sunday"};
    const auto& names = longName ? kLong : kShort;
    return std::any_of(names.begin(), names.end(),
                       [&](std::string_view name) { return literal(text, name); });
}

/// "HH:MM:SS".
bool timeOfDay(std::string_view& text, int& hour, int& minute, int& second) {
    return number(text, 2, hour) && literal(text, ":") && number(text, 2, minute) && literal(text, ":") &&
           number(text, 2, second);
}

struct Date {
    int year = 0;
    int month = 0;
    int day = 0;
    int hour = 0;
    int minute = 0;
    int second = 0;
};

/// "Sun, 06 Nov 1994 08:49:37 GMT", "Sunday, 06-Nov-94 08:49:37 GMT" or "Sun Nov  6 08:49:37 1994".
bool httpDate(std::string_view text, int nowYear, Date& date) {
    std::string_view rest = text;
    if (weekday(rest, false) && literal(rest, ", ")) {
        return number(rest, 2, date.day) && literal(rest, " ") && month(rest, date.month) &&
               literal(rest, " ") && number(rest, 4, date.year) && literal(rest, " ") &&
               timeOfDay(rest, date.hour, date.minute, date.second) && literal(rest, " GMT") && rest.empty();
    }
    rest = text;
    if (weekday(rest, true) && literal(rest, ", ")) {
        int shortYear = 0;
        if (!(number(rest, 2, date.day) && literal(rest, "-") && month(rest, date.month) &&
              literal(rest, "-") && number(rest, 2, shortYear) && literal(rest, " ") &&
              timeOfDay(rest, date.hour, date.minute, date.second) && literal(rest, " GMT") &&
              rest.empty())) {
            return false;
        }
        // A two-digit year more than 50 years ahead is in the past century.
        date.year = nowYear / 100 * 100 + shortYear;
        if (date.year > nowYear + 50) {
            date.year -= 100;
        }
        return true;
    }
    rest = text;
    if (weekday(rest, false) && literal(rest, " ") && month(rest, date.month) && literal(rest, " ")) {
        if (literal(rest, " ")) {
            if (!number(rest, 1, date.day)) {
                return false;
            }
        } else if (!number(rest, 2, date.day)) {
            return false;
        }
        return literal(rest, " ") && timeOfDay(rest, date.hour, date.minute, date.second) &&
               literal(rest, " ") && number(rest, 4, date.year) && rest.empty();
    }
    return false;
}

bool isLeap(int year) {
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

int daysInMonth(int year, int month) {
    static constexpr std::array<int, 12> kDays{31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return month == 2 && isLeap(year) ? 29 : kDays[static_cast<std::size_t>(month - 1)];
}

/// Days from 1970-01-01 to a date of the proleptic Gregorian calendar.
int64_t daysFromCivil(int64_t year, int month, int day) {
    year -= month <= 2 ? 1 : 0;
    const int64_t era = (year >= 0 ? year : year - 399) / 400;
    const int64_t yearOfEra = year - era * 400;
    const int64_t dayOfYear = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
    const int64_t dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
    return era * 146097 + dayOfEra - 719468;
}

int yearOf(double unixSeconds) {
    // Clamped to ±30000 years so that the conversion to time_t is defined.
    const auto seconds = static_cast<std::time_t>(std::clamp(unixSeconds, -1e12, 1e12));
    std::tm utc{};
    if (gmtime_r(&seconds, &utc) == nullptr) {
        return 1970;
    }
    return utc.tm_year + 1900;
}

}  // namespace

std::optional<double> retryDelay(int failedAttempts, double unit) {
    if (failedAttempts < 1) {
        return 0.0;
    }
    if (static_cast<std::size_t>(failedAttempts) > kRetryDelays.size()) {
        return std::nullopt;
    }
    // NaN falls to 0 as well: a bad draw still gives a delay inside the band.
    const double draw = unit >= 0 ? std::min(unit, 1.0) : 0.0;
    const double scale = 1 - kJitter + 2 * kJitter * draw;
    return kRetryDelays[static_cast<std::size_t>(failedAttempts - 1)] * scale;
}

std::optional<double> parseRetryAfter(std::string_view value, double now) {
    value = trimBlanks(value);
    if (value.empty()) {
        return std::nullopt;
    }
    if (std::all_of(value.begin(), value.end(), isDigit)) {
        double seconds = 0;
        for (const char c : value) {
            seconds = std::min(seconds * 10 + (c - '0'), kLongestWait);
        }
        return seconds;
    }
    Date date;
    if (!std::isfinite(now) || !httpDate(value, yearOf(now), date) || date.month < 1 || date.day < 1 ||
        date.day > daysInMonth(date.year, date.month) || date.hour > 23 || date.minute > 59 ||
        date.second > 60) {
        return std::nullopt;
    }
    const double at = static_cast<double>(daysFromCivil(date.year, date.month, date.day)) * 86400 +
                      date.hour * 3600 + date.minute * 60 + date.second;
    return std::clamp(at - now, 0.0, kLongestWait);
}

}  // namespace tovrel::server::webhooks
