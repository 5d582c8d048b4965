#!/usr/bin/env python3
"""Writes a seeded GeoJSON place file for the import benchmark: N places over ~1000 x 1000 km, one
offer each in one of ten campaigns (about 366 bytes a place), and the same rows as CSV files
(places, offers, place_offers) for sqlite3's .import. Usage: make_places.py N OUT.geojson [CSV_DIR]"""
import csv
import json
import os
import random
import sys


def main():
    if len(sys.argv) not in (3, 4) or sys.argv[1] in ("-h", "--help"):
        print(__doc__)
        return 0 if len(sys.argv) > 1 and sys.argv[1] in ("-h", "--help") else 2
    count = int(sys.argv[1])
    rng = random.Random(20261125)
    campaigns = [{"name": f"Campaign {c}", "startDate": "2020-01-01", "endDate": "2035-12-31"} for c in range(10)]
    csv_dir = sys.argv[3] if len(sys.argv) == 4 else None
    writers = {}
    if csv_dir:
        os.makedirs(csv_dir, exist_ok=True)
        for name in ("places", "offers", "place_offers"):
            writers[name] = csv.writer(open(os.path.join(csv_dir, name + ".csv"), "w", newline=""))
    with open(sys.argv[2], "w") as out:
        head = {"type": "FeatureCollection", "properties": {"apps": [{"key": "bench-key", "name": "Bench"}],
                                                            "campaigns": campaigns}}
        out.write(json.dumps(head)[:-1] + ', "features": [\n')
        for i in range(1, count + 1):
            lat = round(rng.uniform(45.0, 54.0), 6)
            lon = round(rng.uniform(5.0, 18.0), 6)
            radius = rng.choice((40, 60, 80, 100, 150))
            campaign = rng.randrange(10)
            offer = {"eventId": i, "campaign": f"Campaign {campaign}", "eventName": f"Offer {i}",
                     "alertText": f"Free treat at place {i}.", "mediaType": "html",
                     "mediaUrl": f"/media/offer-{i}.html", "tags": "food",
                     "dwellTime": rng.randrange(3), "eventTypeId": rng.randrange(1, 4)}
            feature = {"type": "Feature", "geometry": {"type": "Point", "coordinates": [lon, lat]},
                       "properties": {"placeId": i, "name": f"Place {i}", "radius": radius, "offers": [offer]}}
            out.write(("," if i > 1 else "") + json.dumps(feature, separators=(",", ":")) + "\n")
            if writers:
                writers["places"].writerow([i, f"Place {i}", lat, lon, radius])
                writers["offers"].writerow([i, campaign + 1, offer["eventName"], offer["alertText"], "html",
                                            offer["mediaUrl"], offer["tags"], offer["dwellTime"],
                                            offer["eventTypeId"]])
                writers["place_offers"].writerow([i, i])
        out.write("]}\n")
    return 0


if __name__ == "__main__":
    sys.exit(main())
