#include "outcomes.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <map>
#include <sstream>

#include "html_report.h"

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
    std::ostringstream out;
    out << static_cast<long long>(std::llround(t)) << " s";
    return out.str();
}

std::string metres(double distance) {
    return std::to_string(static_cast<long long>(std::llround(distance))) + " m";
}

std::string key(const std::string& eventId, const std::string& placeId) {
    return eventId + "@" + placeId;
}

/// Entry, longest stay and closest approach for one circle, along the route.
void measureVisit(OfferOutcome& outcome, double latitude, double longitude, const Route& route) {
    outcome.closestMetres = std::numeric_limits<double>::infinity();
    std::optional<double> stayStart;
    for (std::size_t i = 0; i < route.points.size(); ++i) {
        const RoutePoint& point = route.points[i];
        const double distance = distanceMetres(latitude, longitude, point.latitude, point.longitude);
        outcome.closestMetres = std::min(outcome.closestMetres, distance);
        const bool inside = distance <= outcome.radius;
        if (inside && !outcome.enteredAt) {
            outcome.enteredAt = point.t;
        }
        if (inside && !stayStart) {
            stayStart = point.t;
        }
        if ((!inside || i + 1 == route.points.size()) && stayStart) {
            outcome.secondsInside = std::max(outcome.secondsInside, point.t - *stayStart);
            stayStart.reset();
        }
    }
}

std::string explain(const OfferOutcome& o, const OutcomeContext& context) {
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
        return text;
    }
    if (o.linkedBefore && o.linkRequests == 0) {
        return "not delivered: already linked to this device before the run (the service marks it linked)";
    }
    if (!o.enteredAt) {
        return "not delivered: never entered (closest approach " + metres(o.closestMetres) +
               " to a circle of " + metres(o.radius) + ")";
    }
    if (o.linkRequests == 0) {
        if (o.dwellMinutes > 0 && o.secondsInside < o.dwellMinutes * 60.0) {
            return "not delivered: entered at " + seconds(*o.enteredAt) + " but stayed " +
                   seconds(o.secondsInside) + ", less than the dwell time of " +
                   std::to_string(o.dwellMinutes) + " min";
        }
        return "not delivered: entered at " + seconds(*o.enteredAt) +
               " but never linked (the component links one target at a time: the nearest place, its first "
               "offer)";
    }
    if (!o.linkedAt) {
        return "not delivered: " + std::to_string(o.linkRequests) +
               " link requests, none answered by the service";
    }
    const std::string linked = "linked at " + seconds(*o.linkedAt) + " (" + std::to_string(o.linkRequests) +
                               " link request" + (o.linkRequests == 1 ? "" : "s") + ")";
    if (o.suppressed) {
        return "not delivered: " + linked + ", suppressed by the service (campaign cap)";
    }
    if (!context.presentNotifications) {
        return "not delivered: " + linked + ", notifications are switched off";
    }
    return "not delivered: " + linked +
           " but not shown (held until the device leaves the place, or the run ended first)";
}

}  // namespace

std::vector<OfferOutcome> analyseOutcomes(const std::vector<json>& events, const Route& route,
                                          const OutcomeContext& context) {
    std::vector<OfferOutcome> outcomes;
    std::map<std::string, std::size_t> index;                 // offer@place -> outcome
    std::map<std::string, std::size_t> byDeviceEvent;         // device event id -> outcome
    std::map<std::string, std::pair<double, double>> centre;  // offer@place -> (lat, lon)

    const auto outcomeFor = [&](const std::string& eventId, const std::string& placeId) -> OfferOutcome* {
        const auto found = index.find(key(eventId, placeId));
        return found == index.end() ? nullptr : &outcomes[found->second];
    };

    for (const json& event : events) {
        const std::string type = event.value("type", "");
        const double t = event.value("t", 0.0);
        const json& body = event.contains("body") ? event["body"] : json();
        const std::string path = event.value("path", "");
        if (type == "response" && path == "/v2/place" && body.is_object() && body.contains("places") &&
            body["places"].is_array()) {
            for (const json& record : body["places"]) {
                if (!record.is_object()) {
                    continue;
                }
                const std::string eventId = idText(record.value("eventId", json()));
                const std::string placeId = idText(record.value("placeId", json()));
                if (eventId.empty() || placeId.empty() || index.contains(key(eventId, placeId))) {
                    continue;
                }
                OfferOutcome outcome;
                outcome.eventId = eventId;
                outcome.placeId = placeId;
                outcome.eventName = record.value("eventName", json("")).is_string()
                                        ? record["eventName"].get<std::string>()
                                        : std::string();
                outcome.radius = record.value("centroidRadius", 0.0);
                const json dwell = record.value("dwellTime", json(0));
                outcome.dwellMinutes = dwell.is_number() ? dwell.get<int>() : 0;
                outcome.linkedBefore = record.value("isLinked", json(0)) == json(1);
                centre[key(eventId, placeId)] = {record.value("centroidLat", 0.0),
                                                 record.value("centroidLon", 0.0)};
                index[key(eventId, placeId)] = outcomes.size();
                outcomes.push_back(std::move(outcome));
            }
        } else if (type == "request" && path == "/v1/deviceevent/link" && body.is_object()) {
            if (OfferOutcome* o = outcomeFor(idText(body.value("eventId", json())),
                                             idText(body.value("placeId", json())))) {
                ++o->linkRequests;
            }
        } else if (type == "response" && path == "/v1/deviceevent/link" && body.is_object() &&
                   body.contains("places") && body["places"].is_array() && !body["places"].empty() &&
                   body["places"][0].is_object()) {
            const json& record = body["places"][0];
            OfferOutcome* o =
                outcomeFor(idText(record.value("eventId", json())), idText(record.value("placeId", json())));
            if (o != nullptr && !o->linkedAt) {
                o->linkedAt = t;
                o->deviceEventId = idText(record.value("deviceEventId", json()));
                o->suppressed = record.value("suppressMessage", json(0)) == json(1);
                byDeviceEvent[*o->deviceEventId] = static_cast<std::size_t>(o - outcomes.data());
            }
        } else if (type == "notification" || type == "alert") {
            const std::string deviceEventId =
                type == "notification" && event.contains("userInfo") && event["userInfo"].is_object()
                    ? idText(event["userInfo"].value("deviceeventId", json()))
                    : idText(event.value("tag", json()));
            if (const auto found = byDeviceEvent.find(deviceEventId); found != byDeviceEvent.end()) {
                OfferOutcome& o = outcomes[found->second];
                if (o.deliveredAs.empty()) {
                    o.deliveredAs = type;
                    o.deliveredAt = t;
                    o.delivered = true;
                }
            }
        } else if (type == "request" && path == "/v1/deviceevent/update" && body.is_object()) {
            if (const auto found = byDeviceEvent.find(idText(body.value("deviceEventId", json())));
                found != byDeviceEvent.end() && body.value("statusCode", json()).is_string()) {
                outcomes[found->second].answers.push_back(body["statusCode"].get<std::string>());
            }
        }
    }
    for (OfferOutcome& o : outcomes) {
        const auto [latitude, longitude] = centre[key(o.eventId, o.placeId)];
        measureVisit(o, latitude, longitude, route);
        o.reason = explain(o, context);
    }
    return outcomes;
}

json outcomeJson(const OfferOutcome& o) {
    json out{{"eventId", o.eventId},     {"placeId", o.placeId},           {"eventName", o.eventName},
             {"delivered", o.delivered}, {"linkRequests", o.linkRequests}, {"reason", o.reason}};
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
