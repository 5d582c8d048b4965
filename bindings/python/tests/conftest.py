"""A tovrel-server on 127.0.0.1 for the tests, with one place whose offer is delivered on entry.

TOVREL_SERVER names the server binary; without it the tests that need a service are skipped.
"""

import json
import math
import os
import re
import subprocess
import time

import pytest

PLACE_LATITUDE = 48.2
PLACE_LONGITUDE = 11.6
SDK_KEY = "python-key"


def places():
    offer = {"eventId": 9401, "campaign": "Python", "eventName": "Lemonade",
             "alertText": "Python test: one free lemonade", "mediaType": "html",
             "mediaUrl": "/media/offer-9401.html", "tags": "test", "dwellTime": 0, "eventTypeId": 3}
    place = {"placeId": 9501, "name": "Python corner", "radius": 80, "offers": [offer]}
    return {"type": "FeatureCollection",
            "properties": {"apps": [{"key": SDK_KEY, "name": "Python test"}],
                           "campaigns": [{"name": "Python", "startDate": "2020-01-01", "endDate": "2099-12-31"}]},
            "features": [{"type": "Feature", "properties": place,
                          "geometry": {"type": "Point", "coordinates": [PLACE_LONGITUDE, PLACE_LATITUDE]}}]}


def walk_into_the_place():
    """From 400 m south-west of the place to its centre, 20 m a second, then a minute there."""
    metres_per_degree = 111194.93
    per_longitude_degree = metres_per_degree * math.cos(math.radians(PLACE_LATITUDE))
    points = []
    for i in range(81):
        away = max(0, 400 - 20 * i) / math.sqrt(2)
        points.append('<trkpt lat="%.7f" lon="%.7f"><time>2024-06-01T12:%02d:%02dZ</time></trkpt>' %
                      (PLACE_LATITUDE - away / metres_per_degree, PLACE_LONGITUDE - away / per_longitude_degree,
                       i // 60, i % 60))
    return '<?xml version="1.0"?>\n<gpx version="1.1"><trk><trkseg>\n' + "\n".join(points) + \
        "\n</trkseg></trk></gpx>\n"


class Service:
    def __init__(self, binary, folder):
        self.binary = binary
        self.db = str(folder / "service.db")
        places_file = folder / "places.geojson"
        places_file.write_text(json.dumps(places()))
        subprocess.run([binary, "import", str(places_file), "--db", self.db], check=True,
                       stdout=subprocess.DEVNULL)
        self.process = subprocess.Popen([binary, "serve", "--db", self.db, "--listen", "127.0.0.1:0",
                                         "--admin-listen", "off"],
                                        stdout=subprocess.PIPE, text=True)
        line = self.process.stdout.readline()
        match = re.search(r"127\.0\.0\.1:(\d+)", line)
        if not match:
            self.process.kill()
            raise RuntimeError("tovrel-server did not start: " + line)
        self.url = "http://127.0.0.1:" + match.group(1)

    def report(self):
        out = subprocess.run([self.binary, "report", "--json", "--db", self.db], check=True,
                             capture_output=True, text=True).stdout
        return json.loads(out)

    def offer(self, event_id):
        return next((o for o in self.report()["offers"] if o["eventId"] == event_id), {})

    def stop(self):
        self.process.terminate()
        self.process.wait(timeout=20)


@pytest.fixture(scope="session")
def service(tmp_path_factory):
    binary = os.environ.get("TOVREL_SERVER")
    if not binary:
        pytest.skip("set TOVREL_SERVER to a tovrel-server binary")
    running = Service(binary, tmp_path_factory.mktemp("service"))
    yield running
    running.stop()


@pytest.fixture
def walk(tmp_path):
    path = tmp_path / "walk.gpx"
    path.write_text(walk_into_the_place())
    return path


def wait_until(condition, seconds, step=None):
    """Polls `condition` (after `step()`, when given) until it holds or `seconds` pass."""
    deadline = time.monotonic() + seconds
    while time.monotonic() < deadline:
        if step is not None:
            step()
        value = condition()
        if value:
            return value
        if step is None:
            time.sleep(0.05)
    return condition()
