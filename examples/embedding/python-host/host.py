#!/usr/bin/env python3
"""A complete Python host: a location-enabled session along a replayed route, the component's
in-process notifications printed as they come.

    host.py SERVICE_URL SDK_KEY ROUTE_FILE [SECONDS] [SPEED]

Exit status 0 when the service gave a session key, 1 when it did not, 2 on bad arguments.
"""

import sys
import time

import tovrel


def main(argv):
    if not 4 <= len(argv) <= 6:
        print(__doc__, file=sys.stderr)
        return 2
    service_url, sdk_key, route = argv[1:4]
    seconds = float(argv[4]) if len(argv) > 4 else 60
    speed = float(argv[5]) if len(argv) > 5 else 1

    # The library runs the device's loop on a thread of its own; callbacks arrive on that thread.
    try:
        device = tovrel.Device(service_url, application_id="org.example.python-host", replay=route, speed=speed)
    except tovrel.TovrelError as error:
        print("python-host:", error, file=sys.stderr)
        return 2 if error.status == tovrel.Status.INVALID_ARGUMENT else 1

    with device:
        device.present_notifications = True
        device.present_offer_view = True
        print("python-host: Tovrel %s, service %s" % (tovrel.__version__, service_url))
        with device.notifications(timeout=0.2) as notifications:
            device.start_session(sdk_key)
            end = time.monotonic() + seconds
            while time.monotonic() < end:
                for notification in notifications:
                    print("notification:", notification.name, str(notification.object)[:100])
        started = device.session_key is not None
    print("python-host:", "session started" if started else "no session")
    return 0 if started else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv))
