#!/usr/bin/env python3
"""Writes munich.geojson (places, offers and campaigns for Munich's old town) and one media page
per offer under examples/content/media/. Run it again after editing the tables below."""
import html
import json
import pathlib

HERE = pathlib.Path(__file__).resolve().parent
CONTENT = HERE.parent / "content"

CAMPAIGNS = [
    {"name": "Old Town Cafés", "startDate": "2020-01-01", "endDate": "2035-12-31"},
    {"name": "Market Days", "startDate": "2020-03-01", "endDate": "2035-10-31", "perDeviceCap": 3},
    {"name": "Museum Pass", "startDate": "2021-01-01", "endDate": "2034-12-31", "perDeviceCap": 2},
    {"name": "Evening Lights", "startDate": "2020-01-01T00:00:00Z", "endDate": "2035-12-31T23:59:59Z"},
    {"name": "City Walk Welcome", "startDate": "2020-01-01", "endDate": "2035-12-31", "perDeviceCap": 1},
    {"name": "Day Trips", "startDate": "2020-05-01", "endDate": "2035-09-30"},
]

# placeId, name, lat, lon, radius (m), offers: (campaign, event name, alert text, tags, dwell min, event type)
PLACES = [
    (101, "Marienplatz", 48.13737, 11.57546, 80, [
        ("City Walk Welcome", "Welcome to the Old Town", "Pick up a free walking map at the tourist desk.", "tour,free", 0, 3),
        ("Old Town Cafés", "Coffee on the Square", "Show this message for a free second espresso.", "coffee", 1, 3)]),
    (102, "Neues Rathaus", 48.13784, 11.57608, 50, [
        ("Evening Lights", "Tower Lift at Dusk", "The town hall tower is open until 9 pm tonight.", "view", 0, 2)]),
    (103, "Altes Rathaus", 48.13700, 11.57735, 45, [
        ("Museum Pass", "Toy Museum", "Two tickets for the price of one today.", "museum,family", 1, 3)]),
    (104, "St. Peter", 48.13645, 11.57590, 40, [
        ("City Walk Welcome", "Climb the Old Tower", "306 steps to the best view of the old town.", "view,tour", 0, 1)]),
    (105, "Viktualienmarkt", 48.13510, 11.57620, 150, [
        ("Market Days", "Fresh from the Market", "10% off at the fruit stalls until noon.", "market,food", 2, 3),
        ("Old Town Cafés", "Beer Garden by the Maypole", "Free pretzel with every drink.", "food", 0, 2)]),
    (106, "Frauenkirche", 48.13862, 11.57337, 90, [
        ("City Walk Welcome", "Devil's Footstep", "Find the footprint in the entrance hall.", "tour", 0, 1)]),
    (107, "Michaelskirche", 48.13892, 11.57080, 60, [
        ("Museum Pass", "Royal Crypt Tours", "Guided crypt tour at 2 pm, 3 euros off.", "tour,history", 1, 3)]),
    (108, "Karlsplatz", 48.13907, 11.56591, 120, [
        ("Evening Lights", "Fountain Nights", "The fountain show starts at sunset.", "event", 0, 2)]),
    (109, "Karlstor", 48.13905, 11.56740, 50, [
        ("Market Days", "Gateway Pop-up Stalls", "Craft stalls behind the gate all weekend.", "market", 0, 3)]),
    (110, "Sendlinger Tor", 48.13403, 11.56752, 70, [
        ("Old Town Cafés", "Gate Café Breakfast", "Breakfast menu 20% off before 10 am.", "coffee,food", 1, 3)]),
    (111, "Asamkirche", 48.13497, 11.56965, 40, [
        ("Museum Pass", "Baroque Gem", "Free audio guide with the museum pass.", "history", 0, 1)]),
    (112, "Isartor", 48.13518, 11.58200, 70, [
        ("Museum Pass", "Comedy Museum in the Gate", "Half-price entry this afternoon.", "museum", 1, 3)]),
    (113, "Hofbräu Square", 48.13762, 11.57974, 60, [
        ("Evening Lights", "Brass Band Tonight", "Live music from 7 pm, reserve a table.", "music,food", 0, 3)]),
    (114, "Maximilianstraße West", 48.13905, 11.58180, 80, [
        ("Market Days", "Boulevard Window Days", "Late shopping until 10 pm.", "shopping", 2, 2)]),
    (115, "Max-Joseph-Platz", 48.13966, 11.57919, 100, [
        ("Evening Lights", "Opera Standing Tickets", "Standing tickets on sale 1 hour before curtain.", "music,culture", 0, 3)]),
    (116, "Residenz", 48.14112, 11.57869, 130, [
        ("Museum Pass", "Treasury Late Opening", "The treasury stays open until 8 pm.", "museum,history", 2, 3)]),
    (117, "Odeonsplatz", 48.14245, 11.57727, 90, [
        ("City Walk Welcome", "Start of the Royal Mile", "Walk north to see the royal avenue.", "tour", 0, 1)]),
    (118, "Feldherrnhalle", 48.14170, 11.57701, 40, [
        ("City Walk Welcome", "Lions of the Loggia", "Rub a lion's nose for luck.", "tour,free", 0, 2)]),
    (119, "Theatinerkirche", 48.14228, 11.57633, 50, [
        ("Museum Pass", "Yellow Church Concert", "Organ recital at 5 pm, free entry.", "music", 1, 3)]),
    (120, "Hofgarten", 48.14265, 11.58030, 150, [
        ("Evening Lights", "Dancing in the Temple", "Open-air tango at the pavilion tonight.", "event,music", 2, 2)]),
    (121, "Promenadeplatz", 48.14030, 11.57300, 80, [
        ("Old Town Cafés", "Square Patisserie", "Cake of the day with free refill.", "coffee", 0, 3)]),
    (122, "Lenbachplatz", 48.14075, 11.56810, 90, [
        ("Market Days", "Flower Market Corner", "Bouquets 15% off today.", "market", 0, 2)]),
    (123, "St.-Jakobs-Platz", 48.13515, 11.57285, 70, [
        ("Museum Pass", "City Museum Puppets", "Puppet collection tour at 3 pm.", "museum,family", 1, 3)]),
    (124, "Oberanger", 48.13330, 11.57140, 60, [
        ("Old Town Cafés", "Roastery on the Anger", "Free tasting of today's roast.", "coffee", 0, 1)]),
    (125, "Schrannenhalle", 48.13420, 11.57505, 60, [
        ("Market Days", "Hall of Delicacies", "Cheese tasting at the north stands.", "market,food", 1, 3)]),
    (126, "Tal", 48.13600, 11.57930, 70, [
        ("Old Town Cafés", "Valley Street Bakery", "Fresh pretzels every 30 minutes.", "food", 0, 2)]),
    (127, "Kaufingerstraße", 48.13815, 11.57180, 90, [
        ("Market Days", "Pedestrian Zone Sale", "Summer collection 30% off.", "shopping", 0, 3)]),
    (128, "Neuhauser Straße", 48.13880, 11.56900, 100, [
        ("Market Days", "Street Musicians' Day", "Concerts every hour on the hour.", "music", 0, 1)]),
    (129, "Sendlinger Straße", 48.13620, 11.57120, 80, [
        ("Old Town Cafés", "Tea House Break", "Second pot of tea free until 5 pm.", "coffee", 1, 3)]),
    (130, "Hackenviertel", 48.13700, 11.56900, 90, [
        ("City Walk Welcome", "Hidden Courtyards", "Ask for the courtyard map at the bookshop.", "tour", 0, 2)]),
    (131, "Fünf Höfe", 48.14040, 11.57510, 70, [
        ("Market Days", "Gallery Passage", "Free entry to the passage gallery.", "shopping,culture", 0, 3)]),
    (132, "Dienerstraße", 48.13860, 11.57750, 45, [
        ("Old Town Cafés", "Delicatessen Coffee Bar", "Coffee and praline for 4 euros.", "coffee", 0, 3)]),
    (133, "Salvatorplatz", 48.14270, 11.57340, 60, [
        ("Museum Pass", "Literature House", "Readings tonight, pass holders free.", "culture", 1, 2)]),
    (134, "Maxburg", 48.14170, 11.56980, 60, [
        ("Old Town Cafés", "Courtyard Lunch", "Lunch menu with free dessert.", "food", 0, 3)]),
    (135, "Rindermarkt", 48.13620, 11.57380, 50, [
        ("Market Days", "Fountain Square Stalls", "Local honey and jams this week.", "market", 0, 1)]),
    (136, "Gärtnerplatz", 48.13170, 11.57600, 110, [
        ("Evening Lights", "Theatre Square Evenings", "Musical tickets 25% off tonight.", "music,culture", 2, 3)]),
    (137, "Marienhof", 48.13920, 11.57640, 70, [
        ("City Walk Welcome", "Green Break", "Benches and free water behind the town hall.", "free", 0, 1)]),
    (138, "Alter Hof", 48.13875, 11.57870, 50, [
        ("Museum Pass", "Imperial Court Vaults", "Free exhibition on the first ducal court.", "history", 0, 3)]),
    # More than 20 km from the old town: never inside an 8047 m query from the centre.
    (201, "Freising Cathedral Hill", 48.39936, 11.74554, 120, [
        ("Day Trips", "Cathedral Hill Brewery Tour", "Book the noon tour, tasting included.", "trip,food", 0, 3)]),
    (202, "Starnberg Lakeside", 47.99836, 11.34336, 150, [
        ("Day Trips", "Lake Cruise", "Round trip on the lake, 10% off.", "trip", 1, 3)]),
    (203, "Erding Old Town", 48.30600, 11.90680, 100, [
        ("Day Trips", "Thermal Spa Day", "Day pass with free towel.", "trip,wellness", 0, 2)]),
    (204, "Fürstenfeldbruck Abbey", 48.17260, 11.25100, 100, [
        ("Day Trips", "Abbey Gardens", "Guided garden walk on Sundays.", "trip,history", 0, 1)]),
    (205, "Airport Visitor Park", 48.35380, 11.78610, 150, [
        ("Day Trips", "Visitor Hill", "Watch the runways, snack bar 2-for-1.", "trip,family", 0, 3)]),
]


def main():
    features = []
    offers = []
    next_event = 1001
    for place_id, name, lat, lon, radius, place_offers in PLACES:
        props_offers = []
        for campaign, event_name, alert, tags, dwell, event_type in place_offers:
            event_id = next_event
            next_event += 1
            offer = {
                "eventId": event_id,
                "campaign": campaign,
                "eventName": event_name,
                "alertText": alert,
                "mediaType": "html",
                "mediaUrl": f"/media/offer-{event_id}.html",
                "tags": tags,
                "dwellTime": dwell,
                "eventTypeId": event_type,
            }
            props_offers.append(offer)
            offers.append((offer, name))
        features.append({
            "type": "Feature",
            "geometry": {"type": "Point", "coordinates": [lon, lat]},
            "properties": {"placeId": place_id, "name": name, "radius": radius, "offers": props_offers},
        })
    collection = {
        "type": "FeatureCollection",
        "properties": {"apps": [{"key": "demo-key", "name": "Demo"}], "campaigns": CAMPAIGNS},
        "features": features,
    }
    with open(HERE / "munich.geojson", "w", encoding="utf-8") as out:
        json.dump(collection, out, ensure_ascii=False, indent=1)
        out.write("\n")

    media = CONTENT / "media"
    media.mkdir(parents=True, exist_ok=True)
    for offer, place in offers:
        title = html.escape(offer["eventName"])
        page = f"""<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title>{title}</title>
<link rel="stylesheet" href="/media/offer.css">
</head>
<body>
<main class="offer">
<p class="place">{html.escape(place)} &middot; {html.escape(offer["campaign"])}</p>
<h1>{title}</h1>
<p class="text">{html.escape(offer["alertText"])}</p>
<p class="code">Offer {offer["eventId"]}</p>
</main>
</body>
</html>
"""
        (media / f"offer-{offer['eventId']}.html").write_text(page, encoding="utf-8")


if __name__ == "__main__":
    main()
