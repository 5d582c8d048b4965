#include "api/place_query.h"

#include <charconv>
#include <cmath>

#include "common/field_limits.h"
#include "common/request_fields.h"
#include "tovrel/protocol.h"

namespace tovrel::server {
namespace {

namespace member = protocol::member;

/// A cursor over the body; every read fails rather than guess.
class PlainReader {
  public:
    explicit PlainReader(std::string_view text) : p_(text.data()), end_(text.data() + text.size()) {}

    void skipSpace() {
        while (p_ != end_ && (*p_ == ' ' || *p_ == '\n' || *p_ == '\r' || *p_ == '\t')) {
            ++p_;
        }
    }
    bool take(char c) {
        skipSpace();
        if (p_ == end_ || *p_ != c) {
            return false;
        }
        ++p_;
        return true;
    }
    [[nodiscard]] bool atEnd() {
        skipSpace();
        return p_ == end_;
    }

    /// A string of printable ASCII without escapes (anything else: the general reader decides).
    std::optional<std::string_view> string() {
        if (!take('"')) {
            return std::nullopt;
        }
        const char* start = p_;
        while (p_ != end_ && *p_ != '"') {
            const auto c = static_cast<unsigned char>(*p_);
            if (c < 0x20 || c > 0x7E || c == '\\') {
                return std::nullopt;
            }
            ++p_;
        }
        if (p_ == end_) {
            return std::nullopt;
        }
        return std::string_view(start, static_cast<std::size_t>(p_++ - start));
    }

    /// A JSON number, or a string holding one as requireNumber() reads it; finite and in [min, max].
    std::optional<double> number(double min, double max) {
        skipSpace();
        std::string_view text;
        if (p_ != end_ && *p_ == '"') {
            const auto inside = string();
            if (!inside || inside->empty()) {
                return std::nullopt;
            }
            text = *inside;
        } else {
            const char* start = p_;
            if (!numberToken()) {
                return std::nullopt;
            }
            text = std::string_view(start, static_cast<std::size_t>(p_ - start));
        }
        double value = 0;
        const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
        if (ec != std::errc() || end != text.data() + text.size() || !std::isfinite(value) || value < min ||
            value > max) {
            return std::nullopt;
        }
        return value;
    }

  private:
    bool digits() {
        const char* start = p_;
        while (p_ != end_ && *p_ >= '0' && *p_ <= '9') {
            ++p_;
        }
        return p_ != start;
    }
    /// -?(0|[1-9][0-9]*)(.[0-9]+)?([eE][+-]?[0-9]+)?
    bool numberToken() {
        if (p_ != end_ && *p_ == '-') {
            ++p_;
        }
        if (p_ != end_ && *p_ == '0') {
            ++p_;
        } else if (!digits()) {
            return false;
        }
        if (p_ != end_ && *p_ == '.') {
            ++p_;
            if (!digits()) {
                return false;
            }
        }
        if (p_ != end_ && (*p_ == 'e' || *p_ == 'E')) {
            ++p_;
            if (p_ != end_ && (*p_ == '+' || *p_ == '-')) {
                ++p_;
            }
            if (!digits()) {
                return false;
            }
        }
        return true;
    }

    const char* p_;
    const char* end_;
};

/// [{"lat": ..., "lon": ...}]: exactly one object with exactly those two members.
bool readCoordinates(PlainReader& in, PlaceQuery& query) {
    if (!in.take('[') || !in.take('{')) {
        return false;
    }
    bool lat = false;
    bool lon = false;
    do {
        const auto name = in.string();
        if (!name || !in.take(':')) {
            return false;
        }
        std::optional<double> value;
        if (*name == member::kLatitude && !lat) {
            value = in.number(-90, 90);
            lat = value.has_value();
            query.latitude = value.value_or(0);
        } else if (*name == member::kLongitude && !lon) {
            value = in.number(-180, 180);
            lon = value.has_value();
            query.longitude = value.value_or(0);
        }
        if (!value) {
            return false;
        }
    } while (in.take(','));
    return lat && lon && in.take('}') && in.take(']');
}

}  // namespace

std::optional<PlainPlaceRequest> readPlainPlaceRequest(std::string_view body) {
    PlainReader in(body);
    PlainPlaceRequest out;
    bool key = false;
    bool coordinates = false;
    bool threshold = false;
    if (!in.take('{')) {
        return std::nullopt;
    }
    do {
        const auto name = in.string();
        if (!name || !in.take(':')) {
            return std::nullopt;
        }
        if (*name == member::kSessionKey && !key) {
            const auto value = in.string();
            if (!value || value->size() > limits::kSessionKey) {
                return std::nullopt;
            }
            out.sessionKey = *value;
            key = true;
        } else if (*name == member::kCoordinatesList && !coordinates) {
            if (!readCoordinates(in, out.query)) {
                return std::nullopt;
            }
            coordinates = true;
        } else if (*name == member::kDistanceThreshold && !threshold) {
            const auto value = in.number(0, kMaxDistanceThreshold);
            if (!value) {
                return std::nullopt;
            }
            out.query.threshold = *value;
            threshold = true;
        } else {
            return std::nullopt;
        }
    } while (in.take(','));
    if (!key || !coordinates || !threshold || !in.take('}') || !in.atEnd()) {
        return std::nullopt;
    }
    return out;
}

}  // namespace tovrel::server
