"""The pythonic layer: a Device, its notifications as callbacks or an iterator, requests as futures."""

import concurrent.futures
import ctypes
import json
import queue
import sys
import threading
import traceback
from typing import Any, Callable, NamedTuple, Optional

from . import _native
from ._native import check, lib, text

_LOOP_CALLER = 0
_LOOP_OWN_THREAD = 1


class Notification(NamedTuple):
    """An in-process notification of the component: its name and its object (None when it has none)."""

    name: str
    object: Any


def _report_callback_error():
    # An exception cannot travel back through C: it is printed, as Python does for threads.
    traceback.print_exc(file=sys.stderr)


class NotificationStream:
    """The notifications of one name (or of every name) from the moment it was made, in order.

    Iterate over it, or get() one at a time; close() (or leaving a `with` block) stops it. Iteration
    ends when `timeout` seconds pass without a notification (None: never).
    """

    def __init__(self, device, name=None, timeout=None, maxsize=10000):
        self._queue = queue.Queue(maxsize)
        self._timeout = timeout
        self._device = device
        self.dropped = 0
        self._token = device.observe(self._put, name)

    def _put(self, notification):
        try:
            self._queue.put_nowait(notification)
        except queue.Full:
            self.dropped += 1

    def get(self, timeout=None):
        """The next notification; raises queue.Empty after `timeout` seconds without one."""
        return self._queue.get(timeout=timeout)

    def close(self):
        if self._token is not None:
            self._device.unobserve(self._token)
            self._token = None

    def __iter__(self):
        while True:
            try:
                yield self._queue.get(timeout=self._timeout)
            except queue.Empty:
                return

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()


class Device:
    """One device on the linux backend: the component, its session and its loop.

    By default the library runs the loop on a thread of its own, and every method may be called from
    any Python thread; callbacks then run on that thread. With own_thread=False the loop runs only
    inside run() or step(), on the thread that made the device, and callbacks run there.

    service_url   the service's base URL (scheme and host)
    data_directory where the device keeps its preferences (default: the XDG data folder)
    application_id names the preferences, the identifier and the desktop notifications
    gpsd          positions from gpsd ("host", "host:port", "[::1]:2947")
    replay        positions replayed from a GPX or NMEA file, `speed` times faster, again and again
                  when loop_replay
    log           called with each line the component logs (a str), on the thread that logs it

    Devices in one process share nothing but the process: each needs a data directory of its own (a
    second device on a folder in use is refused with Status.STATE until the first is closed).
    """

    def __init__(self, service_url: Optional[str] = None, *, data_directory=None,
                 application_id: Optional[str] = None, gpsd: Optional[str] = None, replay=None,
                 speed: float = 1.0, loop_replay: bool = False, own_thread: bool = True,
                 log: Optional[Callable[[str], None]] = None):
        self._handle = None
        self._observers = {}
        self._pending = {}
        self._lock = threading.Lock()
        self._own_thread = own_thread
        self._present_notifications = False
        self._present_offer_view = False
        self._active = True
        self._log_callback = None
        options = lib.tovrel_options_new()
        if not options:
            raise MemoryError("tovrel: no memory for options")
        try:
            if service_url is not None:
                check(lib.tovrel_options_set_service_url(options, text(service_url)))
            if data_directory is not None:
                check(lib.tovrel_options_set_data_directory(options, text(data_directory)))
            if application_id is not None:
                check(lib.tovrel_options_set_application_id(options, text(application_id)))
            if gpsd is not None and replay is not None:
                raise ValueError("tovrel: positions come from gpsd or from a replay, not both")
            if gpsd is not None:
                check(lib.tovrel_options_set_gpsd(options, text(gpsd)))
            if replay is not None:
                check(lib.tovrel_options_set_replay(options, text(replay), float(speed), int(loop_replay)))
            check(lib.tovrel_options_set_loop_mode(options, _LOOP_OWN_THREAD if own_thread else _LOOP_CALLER))
            if log is not None:
                def on_log(line, _user):
                    try:
                        log(line.decode("utf-8", "replace"))
                    except Exception:
                        _report_callback_error()
                self._log_callback = _native.LOG_FN(on_log)
                check(lib.tovrel_options_set_log_handler(options, self._log_callback, None))
            handle = ctypes.c_void_p()
            check(lib.tovrel_device_new(options, ctypes.byref(handle)))
            self._handle = handle
        finally:
            lib.tovrel_options_free(options)

    # -- life ---------------------------------------------------------------------------------------

    def close(self):
        """Stops the session, tells the component the application terminates and frees the device.

        Not from a callback. Calling it again does nothing.
        """
        if self._handle is None:
            return
        check(lib.tovrel_device_free(self._handle))
        self._handle = None
        self._observers.clear()
        with self._lock:
            self._pending.clear()

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def __del__(self):
        if getattr(self, "_handle", None) is not None:
            try:
                self.close()
            except Exception:
                pass

    @property
    def _device(self):
        if self._handle is None:
            raise ValueError("tovrel: the device is closed")
        return self._handle

    # -- the loop (own_thread=False) ----------------------------------------------------------------

    def run(self):
        """Runs the loop on this thread until stop()."""
        check(lib.tovrel_device_run(self._device))

    def step(self, seconds: float = 0.0):
        """Runs the loop on this thread for `seconds` (0: only what is due now)."""
        if seconds < 0:
            raise ValueError("tovrel: a step lasts 0 seconds or more")
        check(lib.tovrel_device_step(self._device, int(seconds * 1000)))

    def stop(self):
        """Makes run() return. Any thread."""
        check(lib.tovrel_device_stop(self._device))

    # -- the component ------------------------------------------------------------------------------

    @property
    def present_notifications(self) -> bool:
        """Whether offers are shown as local notifications while the application is in the background."""
        return self._present_notifications

    @present_notifications.setter
    def present_notifications(self, on: bool):
        check(lib.tovrel_device_set_present_notifications(self._device, int(bool(on))))
        self._present_notifications = bool(on)

    @property
    def present_offer_view(self) -> bool:
        """Whether the full-screen offer view may open."""
        return self._present_offer_view

    @present_offer_view.setter
    def present_offer_view(self, on: bool):
        check(lib.tovrel_device_set_present_offer_view(self._device, int(bool(on))))
        self._present_offer_view = bool(on)

    @property
    def active(self) -> bool:
        """Whether the application is in the foreground (True from the start)."""
        return self._active

    @active.setter
    def active(self, active: bool):
        check(lib.tovrel_device_set_active(self._device, int(bool(active))))
        self._active = bool(active)

    def start_session(self, sdk_key: str, use_location: bool = True):
        """Starts a session; with use_location the device follows its position and delivers offers."""
        check(lib.tovrel_device_start_session(self._device, text(sdk_key), int(bool(use_location))))

    def stop_session(self):
        """Stops following the position; the session key stays stored."""
        check(lib.tovrel_device_stop_session(self._device))

    @property
    def session_key(self) -> Optional[str]:
        """The key of the last session that started, or None."""
        key = ctypes.c_void_p()
        check(lib.tovrel_device_session_key(self._device, ctypes.byref(key)))
        if not key.value:
            return None
        try:
            return ctypes.string_at(key.value).decode("utf-8", "replace")
        finally:
            lib.tovrel_string_free(key)

    # -- notifications ------------------------------------------------------------------------------

    def observe(self, callback: Callable[[Notification], None], name: Optional[str] = None) -> int:
        """Calls `callback(Notification)` for each notification named `name` (every one when None).

        Returns a token for unobserve(). The callback runs on the loop's thread.
        """
        def on_notification(raw_name, raw_object, _user):
            try:
                callback(Notification(raw_name.decode("utf-8", "replace"), json.loads(raw_object)))
            except Exception:
                _report_callback_error()

        native = _native.NOTIFICATION_FN(on_notification)
        token = ctypes.c_uint64()
        check(lib.tovrel_device_observe(self._device, text(name), native, None, ctypes.byref(token)))
        self._observers[token.value] = native
        return token.value

    def unobserve(self, token: int):
        """Stops an observer made by observe()."""
        check(lib.tovrel_device_unobserve(self._device, token))
        self._observers.pop(token, None)

    def notifications(self, name: Optional[str] = None, timeout: Optional[float] = None) -> NotificationStream:
        """The notifications from now on, as an iterator (see NotificationStream)."""
        return NotificationStream(self, name, timeout)

    def forward_notification(self, notification):
        """Hands the component a local notification the user opened: a dict (or its JSON text) with
        "alertBody", "alertAction", "soundName" and "userInfo", each optional."""
        body = notification if isinstance(notification, str) else json.dumps(notification)
        check(lib.tovrel_device_forward_notification(self._device, text(body)))

    # -- requests -----------------------------------------------------------------------------------

    def _request(self, call, *arguments) -> concurrent.futures.Future:
        future = concurrent.futures.Future()

        def on_status(status, error, _user):
            with self._lock:
                self._pending.pop(id(future), None)
            if error is not None:
                future.set_exception(_native.TovrelError(_native.Status.SYSTEM, error.decode("utf-8", "replace")))
            else:
                future.set_result(json.loads(status))

        # The C callback lives until the library has called it.
        native = _native.STATUS_FN(on_status)
        with self._lock:
            self._pending[id(future)] = native
        try:
            check(call(self._device, *arguments, native, None))
        except Exception:
            with self._lock:
                self._pending.pop(id(future), None)
            raise
        return future

    def clear_events(self) -> concurrent.futures.Future:
        """Asks the service to clear this device's events; the future holds the answer's "status"."""
        return self._request(lib.tovrel_device_clear_events)

    def add_tag(self, tag: str, value: str, group: str) -> concurrent.futures.Future:
        """Adds or changes a device tag; the future holds the answer's "status"."""
        return self._request(lib.tovrel_device_add_tag, text(tag), text(value), text(group))

    def delete_tag(self, tag: str, group: str) -> concurrent.futures.Future:
        """Deletes a device tag; the future holds the answer's "status"."""
        return self._request(lib.tovrel_device_delete_tag, text(tag), text(group))
