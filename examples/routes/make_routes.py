#!/usr/bin/env python3
"""Writes the example routes of tovrel-sim: a city walk, a drive in from outside and a walk through a
held (event type 2) offer. Positions every second along straight legs, with pauses."""
import math
import datetime

R = 6371000.0


def dist(a, b):
    k = math.pi / 180
    dlat, dlon = (b[0] - a[0]) * k, (b[1] - a[1]) * k
    h = math.sin(dlat / 2) ** 2 + math.cos(a[0] * k) * math.cos(b[0] * k) * math.sin(dlon / 2) ** 2
    return 2 * R * math.atan2(math.sqrt(h), math.sqrt(1 - h))


def legs(waypoints, speed):
    """waypoints: list of (lat, lon, pause_seconds). Yields (t, lat, lon, activity)."""
    t = 0.0
    points = []
    for i, (lat, lon, pause) in enumerate(waypoints):
        if i == 0:
            points.append((t, lat, lon, "walking" if speed < 3 else "automotive"))
        else:
            a = waypoints[i - 1][:2]
            b = (lat, lon)
            steps = max(1, int(round(dist(a, b) / speed)))
            for s in range(1, steps + 1):
                f = s / steps
                t += 1
                points.append((t, a[0] + (b[0] - a[0]) * f, a[1] + (b[1] - a[1]) * f,
                               "walking" if speed < 3 else "automotive"))
        # Lingering in a place is strolling, not standing still: a stationary spell would widen the
        # distance filter to 3 km and the component would hear nothing more until the device moved that far.
        for _ in range(int(pause)):
            t += 1
            points.append((t, lat, lon, "walking" if speed < 3 else "stationary"))
    return points


def write_csv(name, header, points):
    with open(name, "w") as out:
        out.write(header)
        for t, lat, lon, activity in points:
            out.write(f"{t:.0f},{lat:.7f},{lon:.7f},{activity}\n")


def write_gpx(name, points, start):
    with open(name, "w") as out:
        out.write('<?xml version="1.0" encoding="UTF-8"?>\n')
        out.write('<gpx version="1.1" creator="make_routes.py" xmlns="http://www.topografix.com/GPX/1/1">\n')
        out.write("  <trk><name>Drive into the old town</name><trkseg>\n")
        for t, lat, lon, _ in points:
            when = (start + datetime.timedelta(seconds=t)).strftime("%Y-%m-%dT%H:%M:%SZ")
            out.write(f'    <trkpt lat="{lat:.7f}" lon="{lon:.7f}"><time>{when}</time></trkpt>\n')
        out.write("  </trkseg></trk>\n</gpx>\n")


city_walk = [
    (48.13907, 11.56591, 30),    # Karlsplatz (held offer, dwell 0)
    (48.13880, 11.56900, 0),     # Neuhauser Straße
    (48.13815, 11.57180, 20),    # Kaufingerstraße
    (48.13737, 11.57546, 150),   # Marienplatz: stay past its one-minute dwell
    (48.13620, 11.57380, 0),     # Rindermarkt
    (48.13510, 11.57620, 180),   # Viktualienmarkt: stay past its two-minute dwell
    (48.13600, 11.57930, 30),    # Tal (held offer)
    (48.13518, 11.58200, 40),    # Isartor
]
write_csv("city-walk.csv",
          "# A walk through the old town: Karlsplatz, Marienplatz (dwell 1 min), Viktualienmarkt (dwell 2 min),\n"
          "# Tal and Isartor. t,lat,lon,activity; one position a second.\n",
          legs(city_walk, 1.4))

held_walk = [
    (48.13750, 11.58300, 0),    # east of the old town, outside every place
    (48.13600, 11.57930, 60),   # into Tal (event type 2, held until exit) and stay a minute
    (48.13400, 11.57850, 30),   # out to the south, clear of every place
]
write_csv("held-offer-walk.csv",
          "# A walk into the held offer at Tal and out again: the offer arrives once the device has left.\n",
          legs(held_walk, 1.4))

drive = [
    (48.09000, 11.50000, 0),    # Forstenried, about 7 km from every place
    (48.11500, 11.53500, 0),
    (48.13000, 11.55500, 0),
    (48.13403, 11.56752, 0),    # Sendlinger Tor
    (48.13600, 11.57120, 0),
    (48.13737, 11.57546, 0),    # Marienplatz
]
drive_points = legs(drive, 12.0)
last = drive_points[-1]
for i in range(1, 121):
    drive_points.append((last[0] + i, last[1], last[2], "stationary"))
write_gpx("drive-in.gpx", drive_points, datetime.datetime(2026, 6, 1, 9, 0, 0))
