"""Tovrel for Python: a location-enabled session of the Tovrel component on this Linux machine.

    import tovrel

    with tovrel.Device("http://127.0.0.1:8080", replay="walk.gpx") as device:
        device.present_notifications = True
        device.start_session("my-sdk-key")
        for notification in device.notifications(timeout=60):
            print(notification.name, notification.object)

The package wraps the C interface (tovrel/tovrel.h) with ctypes. It finds libtovrel-c next to its
install prefix, through TOVREL_LIBRARY (a path to the library), or on the linker's search path.
"""

from ._native import TovrelError, Status, version
from .device import Device, Notification, NotificationStream

__version__ = version()
__all__ = ["Device", "Notification", "NotificationStream", "Status", "TovrelError", "version", "__version__"]
