#!/usr/bin/python3
"""A desktop notification server for tests: owns org.freedesktop.Notifications on the session bus,
prints one JSON line per Notify call on stdout, and on stdin takes "invoke <id> <action>" (emits
ActionInvoked) and "close <id>" (emits NotificationClosed). Prints "ready" once the name is owned."""
import json
import os
import sys

import dbus
import dbus.service
from dbus.mainloop.glib import DBusGMainLoop
from gi.repository import GLib

INTERFACE = "org.freedesktop.Notifications"


class Server(dbus.service.Object):
    def __init__(self, bus):
        super().__init__(bus, "/org/freedesktop/Notifications")
        self.next_id = 1

    @dbus.service.method(INTERFACE, in_signature="susssasa{sv}i", out_signature="u")
    def Notify(self, app_name, replaces_id, app_icon, summary, body, actions, hints, timeout):
        notification_id = self.next_id
        self.next_id += 1
        print(json.dumps({"id": notification_id, "app_name": str(app_name), "summary": str(summary),
                          "body": str(body), "actions": [str(a) for a in actions],
                          "hints": {str(k): str(v) for k, v in hints.items()}, "timeout": int(timeout)}),
              flush=True)
        return dbus.UInt32(notification_id)

    @dbus.service.method(INTERFACE, out_signature="as")
    def GetCapabilities(self):
        return ["actions", "body"]

    @dbus.service.method(INTERFACE, out_signature="ssss")
    def GetServerInformation(self):
        return ("test-notifications", "tests", "1", "1.2")

    @dbus.service.method(INTERFACE, in_signature="u")
    def CloseNotification(self, notification_id):
        self.NotificationClosed(notification_id, 3)

    @dbus.service.signal(INTERFACE, signature="us")
    def ActionInvoked(self, notification_id, action_key):
        pass

    @dbus.service.signal(INTERFACE, signature="uu")
    def NotificationClosed(self, notification_id, reason):
        pass


def main():
    DBusGMainLoop(set_as_default=True)
    bus = dbus.SessionBus()
    server = Server(bus)
    name = dbus.service.BusName(INTERFACE, bus)
    loop = GLib.MainLoop()

    pending = b""

    def on_input(source, condition):
        nonlocal pending
        # Raw reads: a buffered readline would swallow lines that then never wake the watch.
        chunk = os.read(sys.stdin.fileno(), 4096)
        if not chunk:
            loop.quit()
            return False
        pending += chunk
        while b"\n" in pending:
            raw, pending = pending.split(b"\n", 1)
            words = raw.decode().split()
            if len(words) == 3 and words[0] == "invoke":
                server.ActionInvoked(dbus.UInt32(int(words[1])), words[2])
            elif len(words) == 2 and words[0] == "close":
                server.NotificationClosed(dbus.UInt32(int(words[1])), dbus.UInt32(2))
            print(json.dumps({"done": raw.decode().strip()}), flush=True)
        return True

    GLib.io_add_watch(sys.stdin, GLib.IO_IN | GLib.IO_HUP, on_input)
    print("ready", flush=True)
    loop.run()
    del name


if __name__ == "__main__":
    main()
