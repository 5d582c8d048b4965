#include "outcomes.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <map>

#include "html_report.h"
#include "tovrel/place_record.h"
#include "tovrel/platform/json_scanner.h"
#include "tovrel/protocol.h"

namespace tovrel::sim {

namespace {

using nlohmann::json;

/// An identifier as text, whether the JSON holds it as text or as a number.
std::string idText(const json& value) {
    if (value.is_string()) {
        return value.get<std::string>();
    }
    if (value.is_number_integer()) {
        return std::to_string(value.get<long long>());
    }
    if (value.is_number()) {
        return value.dump();
    }
    return {};
}

std::string seconds(double t) {
    return std::to_string(static_cast<long long>(std::llround(t))) + " s";
}

std::string metres(double distance) {
    return std::to_string(static_cast<long long>(std::llround(distance))) + " m";
}

std::string key(const std::string& eventId, const std::string& placeId) {
    return eventId + "@" + placeId;
}

constexpr double kEarthRadiusMetres = 6371000.0;
constexpr double kRadians = 0.017453292519943295;

/// A point on the unit sphere: straight-line (chord) distances between them order the same way as
/// distances along the surface, so most points of a route need no trigonometry per circle.
struct UnitVector {
    double x = 0;
    double y = 0;
    double z = 0;
};

UnitVector unitVector(double latitude, double longitude) {
    const double lat = latitude * kRadians;
    const double lon = longitude * kRadians;
    return {std::cos(lat) * std::cos(lon), std::cos(lat) * std::sin(lon), std::sin(lat)};
}

double chordSquared(const UnitVector& a, const UnitVector& b) {
    const double dx = a.x - b.x;
    const double dy = a.y - b.y;
    const double dz = a.z - b.z;
    return dx * dx + dy * dy + dz * dz;
}

double chordSquaredFor(double metres) {
    const double chord = 2 * std::sin(std::min(metres / kEarthRadiusMetres, M_PI) / 2);
    return chord * chord;
}

/// A route's points on the unit sphere, and for each run of kLength of them a ball that holds them all:
/// a circle far from a run's ball is far from each of its points, so most runs need no look per point.
struct RoutePoints {
    static constexpr std::size_t kLength = 32;
    struct Run {
        UnitVector centre;
        double radius = 0;  ///< chord distance from the centre to the run's farthest point
    };
    std::vector<UnitVector> points;
    std::vector<Run> runs;  ///< run r holds points [r * kLength, (r + 1) * kLength)

    explicit RoutePoints(const Route& route) {
        points.reserve(route.points.size());
        for (const RoutePoint& point : route.points) {
            points.push_back(unitVector(point.latitude, point.longitude));
        }
        for (std::size_t begin = 0; begin < points.size(); begin += kLength) {
            const std::size_t end = std::min(points.size(), begin + kLength);
            Run run;
            for (std::size_t i = begin; i < end; ++i) {
                run.centre.x += points[i].x;
                run.centre.y += points[i].y;
                run.centre.z += points[i].z;
            }
            const auto count = static_cast<double>(end - begin);
            run.centre = {run.centre.x / count, run.centre.y / count, run.centre.z / count};
            double farthest = 0;
            for (std::size_t i = begin; i < end; ++i) {
                farthest = std::max(farthest, chordSquared(run.centre, points[i]));
            }
            run.radius = std::sqrt(farthest);
            runs.push_back(run);
        }
    }

    /// No point of the run is nearer `to` than the square root of this (chord distances; the triangle
    /// inequality holds for them, and the slack, 6 mm on the ground, covers the rounding).
    double nearestSquared(std::size_t run, const UnitVector& to) const {
        const double nearest = std::sqrt(chordSquared(to, runs[run].centre)) - runs[run].radius - 1e-9;
        return nearest > 0 ? nearest * nearest : 0;
    }
};

/// Entry, longest stay and closest approach for one circle, along the route. Points far from the
/// circle's edge are sorted by chord; those near it, and the closest, by the exact distance.
void measureVisit(OfferOutcome& outcome, const Route& route, const RoutePoints& route3d) {
    const UnitVector centre = unitVector(outcome.latitude, outcome.longitude);
    const double edge = chordSquaredFor(outcome.radius);
    // Rounding in either formula is far below a millimetre (a chord of 1 m squares to 2.5e-14).
    const double margin = 1e-19 + edge * 1e-6;
    double closest = std::numeric_limits<double>::infinity();
    std::size_t closestIndex = 0;
    bool staying = false;
    double stayStart = 0;
    for (std::size_t run = 0; run < route3d.runs.size(); ++run) {
        const std::size_t begin = run * RoutePoints::kLength;
        const std::size_t end = std::min(route.points.size(), begin + RoutePoints::kLength);
        const double nearest = route3d.nearestSquared(run, centre);
        if (nearest >= closest && nearest > edge + margin) {
            // Every point of the run is outside, and none is the closest so far.
            if (staying) {
                outcome.secondsInside = std::max(outcome.secondsInside, route.points[begin].t - stayStart);
                staying = false;
            }
            continue;
        }
        for (std::size_t i = begin; i < end; ++i) {
            const RoutePoint& point = route.points[i];
            const double chord = chordSquared(centre, route3d.points[i]);
            if (chord < closest) {
                closest = chord;
                closestIndex = i;
            }
            const bool inside = std::abs(chord - edge) > margin
                                    ? chord < edge
                                    : distanceMetres(outcome.latitude, outcome.longitude, point.latitude,
                                                     point.longitude) <= outcome.radius;
            if (inside && !outcome.enteredAt) {
                outcome.enteredAt = point.t;
            }
            if (inside && !staying) {
                staying = true;
                stayStart = point.t;
            }
            if ((!inside || i + 1 == route.points.size()) && staying) {
                outcome.secondsInside = std::max(outcome.secondsInside, point.t - stayStart);
                staying = false;
            }
        }
    }
    outcome.closestMetres = route.points.empty() ? std::numeric_limits<double>::infinity()
                                                 : distanceMetres(outcome.latitude, outcome.longitude,
                                                                  route.points[closestIndex].latitude,
                                                                  route.points[closestIndex].longitude);
}

// "09:14 UTC" of seconds since 1970.
std::string wallClock(double unixSeconds) {
    const auto minutes = static_cast<long long>(std::floor(unixSeconds / 60));
    const long long ofDay = ((minutes % 1440) + 1440) % 1440;
    const auto two = [](long long v) {
        return std::string(1, static_cast<char>('0' + v / 10)) + static_cast<char>('0' + v % 10);
    };
    return two(ofDay / 60) + ":" + two(ofDay % 60) + " UTC";
}

std::string explain(OfferOutcome& o, const OutcomeContext& context) {
    if (o.delivered) {
        std::string text = "delivered as " + o.deliveredAs + " at " + seconds(*o.deliveredAt);
        if (o.enteredAt) {
            text += " (entered at " + seconds(*o.enteredAt) + ", ";
        } else {
            text += " (";
        }
        text += std::to_string(o.linkRequests) + " link request" + (o.linkRequests == 1 ? "" : "s") + ")";
        const auto answer = std::find_if(o.answers.rbegin(), o.answers.rend(),
                                         [](const std::string& code) { return code != "ack"; });
        text += answer == o.answers.rend() ? "; not answered" : "; answered " + *answer;
        if (!o.enteredAt && !o.linkedBefore) {
            o.falseEntry = true;
            o.why = "false-entry";
            return text + "; a false entry: the route never entered the circle (closest approach " +
                   metres(o.closestMetres) + " to a circle of " + metres(o.radius) +
                   "), position error put the device inside";
        }
        o.why = "delivered";
        return text;
    }
    if (o.linkedBefore && o.linkRequests == 0) {
        o.why = "linked-before";
        return "not delivered: already linked to this device before the run (the service marks it linked)";
    }
    if (!o.enteredAt) {
        o.why = "never-entered";
        return "not delivered: never entered (closest approach " + metres(o.closestMetres) +
               " to a circle of " + metres(o.radius) + ")";
    }
    if (o.linkRequests == 0) {
        if (o.dwellMinutes > 0 && o.secondsInside < o.dwellMinutes * 60.0) {
            o.why = "left-before-dwell";
            return "not delivered: entered at " + seconds(*o.enteredAt) + " but stayed " +
                   seconds(o.secondsInside) + ", less than the dwell time of " +
                   std::to_string(o.dwellMinutes) + " min";
        }
        o.why = "not-linked";
        return "not delivered: entered at " + seconds(*o.enteredAt) +
               " but never linked (the component links one target at a time: the nearest place, its first "
               "offer)";
    }
    if (!o.linkedAt) {
        o.why = "link-unanswered";
        return "not delivered: " + std::to_string(o.linkRequests) +
               " link requests, none answered by the service";
    }
    const std::string linked = "linked at " + seconds(*o.linkedAt) + " (" + std::to_string(o.linkRequests) +
                               " link request" + (o.linkRequests == 1 ? "" : "s") + ")";
    if (o.suppressed) {
        o.why = "suppressed";
        const std::optional<HeldBackInfo> held =
            context.heldBack && o.deviceEventId ? context.heldBack(*o.deviceEventId) : std::nullopt;
        if (!held) {
            return "not delivered: " + linked + ", suppressed by the service";
        }
        o.heldBy = held->rule;
        if (held->rule == "control") {
            return "not delivered: " + linked + ", control group (held out to measure the campaign)";
        }
        return "not delivered: " + linked + ", suppressed: " + held->text +
               (held->lastDelivery ? " (delivered at " + wallClock(*held->lastDelivery) + ")"
                                   : std::string());
    }
    if (!context.presentNotifications) {
        o.why = "notifications-off";
        return "not delivered: " + linked + ", notifications are switched off";
    }
    o.why = "held";
    return "not delivered: " + linked +
           " but not shown (held until the device leaves the place, or the run ended first)";
}

}  // namespace

OfferOutcome* OutcomeTracker::outcomeFor(const std::string& eventId, const std::string& placeId) {
    const auto found = index_.find(key(eventId, placeId));
    return found == index_.end() ? nullptr : &outcomes_[found->second];
}

void OutcomeTracker::addResponse(double t, const std::string& path, const json& body) {
    if (path == protocol::kPlacePath) {
        addPlaces(readParsedPlaceAnswer(body).places);
    } else if (path == protocol::kLinkPath) {
        addLinkAnswer(t, body);
    }
}

void OutcomeTracker::addResponseText(double t, const std::string& path, std::string_view body) {
    if (path == protocol::kPlacePath) {
        if (!addNewPlaces(body)) {
            addPlaces(readPlaceAnswer(body).places);
        }
    } else if (path == protocol::kLinkPath) {
        addLinkAnswer(t, platform::readJsonText(body).value);
    }
}

void OutcomeTracker::addRequestText(const std::string& path, std::string_view body) {
    if (path == protocol::kLinkPath || path == protocol::kLinkStatusPath) {
        addRequest(path, platform::readJsonText(body).value);
    }
}

bool OutcomeTracker::addNewPlaces(std::string_view body) {
    // Most answers name offers seen before: each record's identifiers are read, the rest of it only when
    // they are new. The client has checked the text, so what is not read is only stepped over.
    static constexpr std::string_view kEventId = protocol::member::kEventId;
    static constexpr std::string_view kPlaceId = protocol::member::kPlaceId;
    static constexpr std::string_view kPlaces = protocol::member::kPlaces;
    platform::JsonScanner in(body);
    std::vector<PlaceRecord> fresh;
    const auto readRecord = [&] {
        if (in.peek() != '{') {
            return in.skipChecked();
        }
        const char* start = in.position();
        json eventId;
        json placeId;
        const bool object = in.object([&](std::string_view key) {
            if (key == kEventId) {
                return in.value(&eventId);
            }
            return key == kPlaceId ? in.value(&placeId) : in.skipChecked();
        });
        if (object && !index_.contains(key(idText(eventId), idText(placeId)))) {
            fresh.push_back(
                readPlaceRecord(std::string_view(start, static_cast<std::size_t>(in.position() - start))));
        }
        return object;
    };
    const bool read = in.peek() == '{' && in.object([&](std::string_view key) {
        if (key != kPlaces) {
            return in.skipChecked();
        }
        // A repeated member keeps its last value, as in the parsed answer.
        fresh.clear();
        return in.peek() == '[' ? in.array(readRecord) : in.skipChecked();
    }) && in.atEnd();
    if (read) {
        addPlaces(fresh);
    }
    return read;
}

void OutcomeTracker::addPlaces(const std::vector<PlaceRecord>& places) {
    for (const PlaceRecord& record : places) {
        const std::string eventId = idText(record.eventId);
        const std::string placeId = idText(record.placeId);
        if (eventId.empty() || placeId.empty() || index_.contains(key(eventId, placeId))) {
            continue;
        }
        OfferOutcome outcome;
        outcome.eventId = eventId;
        outcome.placeId = placeId;
        outcome.eventName =
            record.eventName.is_string() ? record.eventName.get<std::string>() : std::string();
        outcome.radius = record.radius;
        outcome.dwellMinutes = record.dwellTime;
        outcome.linkedBefore = record.isLinked == json(1);
        outcome.latitude = record.latitude;
        outcome.longitude = record.longitude;
        index_[key(eventId, placeId)] = outcomes_.size();
        outcomes_.push_back(std::move(outcome));
    }
}

void OutcomeTracker::addLinkAnswer(double t, const json& body) {
    const auto places = body.is_object() ? body.find(protocol::member::kPlaces) : body.end();
    if (places == body.end() || !places->is_array() || places->empty() || !places->front().is_object()) {
        return;
    }
    const json& record = places->front();
    OfferOutcome* o = outcomeFor(idText(record.value(protocol::member::kEventId, json())),
                                 idText(record.value(protocol::member::kPlaceId, json())));
    if (o != nullptr && !o->linkedAt) {
        o->linkedAt = t;
        o->deviceEventId = idText(record.value(protocol::member::kDeviceEventId, json()));
        o->suppressed = record.value(protocol::member::kSuppressMessage, json(0)) == json(1);
        byDeviceEvent_[*o->deviceEventId] = static_cast<std::size_t>(o - outcomes_.data());
    }
}

void OutcomeTracker::addRequest(const std::string& path, const json& body) {
    if (!body.is_object()) {
        return;
    }
    if (path == protocol::kLinkPath) {
        if (OfferOutcome* o = outcomeFor(idText(body.value(protocol::member::kEventId, json())),
                                         idText(body.value(protocol::member::kPlaceId, json())))) {
            ++o->linkRequests;
        }
    } else if (path == protocol::kLinkStatusPath) {
        if (const auto found =
                byDeviceEvent_.find(idText(body.value(protocol::member::kDeviceEventId, json())));
            found != byDeviceEvent_.end() && body.value(protocol::member::kStatusCode, json()).is_string()) {
            outcomes_[found->second].answers.push_back(
                body[protocol::member::kStatusCode].get<std::string>());
        }
    }
}

void OutcomeTracker::addDelivery(const std::string& type, double t, const std::string& deviceEventId) {
    if (const auto found = byDeviceEvent_.find(deviceEventId); found != byDeviceEvent_.end()) {
        OfferOutcome& o = outcomes_[found->second];
        if (o.deliveredAs.empty()) {
            o.deliveredAs = type;
            o.deliveredAt = t;
            o.delivered = true;
        }
    }
}

void OutcomeTracker::add(const json& event) {
    const auto type = event.find("type");
    if (type == event.end() || !type->is_string()) {
        return;
    }
    const std::string& kind = type->get_ref<const std::string&>();
    const double t = event.value("t", 0.0);
    if (kind == "response" || kind == "request") {
        const auto body = event.find("body");
        if (body == event.end()) {
            return;
        }
        const std::string path = event.value("path", "");
        if (kind == "response") {
            addResponse(t, path, *body);
        } else {
            addRequest(path, *body);
        }
    } else if (kind == "notification") {
        const auto userInfo = event.find("userInfo");
        addDelivery(kind, t,
                    userInfo != event.end() && userInfo->is_object()
                        ? idText(userInfo->value("deviceeventId", json()))
                        : std::string());
    } else if (kind == "alert") {
        addDelivery(kind, t, idText(event.value("tag", json())));
    }
}

std::vector<OfferOutcome> OutcomeTracker::finish(const Route& route, const OutcomeContext& context) {
    const RoutePoints points(route);
    for (OfferOutcome& o : outcomes_) {
        measureVisit(o, route, points);
        o.reason = explain(o, context);
    }
    index_.clear();
    byDeviceEvent_.clear();
    return std::move(outcomes_);
}

std::vector<OfferOutcome> analyseOutcomes(const std::vector<json>& events, const Route& route,
                                          const OutcomeContext& context) {
    OutcomeTracker tracker;
    for (const json& event : events) {
        tracker.add(event);
    }
    return tracker.finish(route, context);
}

json outcomeJson(const OfferOutcome& o) {
    json out{{"eventId", o.eventId},
             {"placeId", o.placeId},
             {"eventName", o.eventName},
             {"delivered", o.delivered},
             {"linkRequests", o.linkRequests},
             {"reason", o.reason},
             {"why", o.why}};
    if (!o.heldBy.empty()) {
        out["heldBy"] = o.heldBy;
    }
    if (o.enteredAt) {
        out["enteredAt"] = *o.enteredAt;
    }
    if (o.linkedAt) {
        out["linkedAt"] = *o.linkedAt;
    }
    if (o.deliveredAt) {
        out["deliveredAt"] = *o.deliveredAt;
        out["deliveredAs"] = o.deliveredAs;
    }
    if (!o.answers.empty()) {
        out["answers"] = o.answers;
    }
    return out;
}

}  // namespace tovrel::sim
