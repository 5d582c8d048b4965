"""The C interface's functions, loaded with ctypes."""

import ctypes
import enum
import os
from ctypes import (CFUNCTYPE, POINTER, c_char_p, c_double, c_int, c_uint64, c_void_p)

try:
    from . import _config
except ImportError:  # the source tree, not an installation
    _config = None


class Status(enum.IntEnum):
    """What a call of the C interface returned."""

    OK = 0
    INVALID_ARGUMENT = 1
    STATE = 2
    WRONG_THREAD = 3
    SYSTEM = 4
    INTERNAL = 5


class TovrelError(Exception):
    """A call the library refused or could not carry out; `status` says which kind."""

    def __init__(self, status, message):
        super().__init__(message)
        self.status = Status(status)


def _candidates():
    explicit = os.environ.get("TOVREL_LIBRARY")
    if explicit:
        yield explicit
        return
    name = _config.LIBRARY_NAME if _config else "libtovrel-c.so.1"
    if _config:
        here = os.path.dirname(os.path.abspath(__file__))
        yield os.path.normpath(os.path.join(here, _config.LIBRARY_DIR, name))
    yield name


def _load():
    errors = []
    for candidate in _candidates():
        try:
            return ctypes.CDLL(candidate)
        except OSError as error:
            errors.append(str(error))
    raise ImportError("tovrel: libtovrel-c could not be loaded (set TOVREL_LIBRARY to its path): " +
                      "; ".join(errors))


lib = _load()

LOG_FN = CFUNCTYPE(None, c_char_p, c_void_p)
NOTIFICATION_FN = CFUNCTYPE(None, c_char_p, c_char_p, c_void_p)
STATUS_FN = CFUNCTYPE(None, c_char_p, c_char_p, c_void_p)

_SIGNATURES = {
    "tovrel_version": (c_char_p, []),
    "tovrel_last_error": (c_char_p, []),
    "tovrel_string_free": (None, [c_void_p]),
    "tovrel_options_new": (c_void_p, []),
    "tovrel_options_free": (None, [c_void_p]),
    "tovrel_options_set_service_url": (c_int, [c_void_p, c_char_p]),
    "tovrel_options_set_data_directory": (c_int, [c_void_p, c_char_p]),
    "tovrel_options_set_application_id": (c_int, [c_void_p, c_char_p]),
    "tovrel_options_set_gpsd": (c_int, [c_void_p, c_char_p]),
    "tovrel_options_set_replay": (c_int, [c_void_p, c_char_p, c_double, c_int]),
    "tovrel_options_set_loop_mode": (c_int, [c_void_p, c_int]),
    "tovrel_options_set_log_handler": (c_int, [c_void_p, LOG_FN, c_void_p]),
    "tovrel_device_new": (c_int, [c_void_p, POINTER(c_void_p)]),
    "tovrel_device_free": (c_int, [c_void_p]),
    "tovrel_device_run": (c_int, [c_void_p]),
    "tovrel_device_step": (c_int, [c_void_p, c_int]),
    "tovrel_device_stop": (c_int, [c_void_p]),
    "tovrel_device_set_present_notifications": (c_int, [c_void_p, c_int]),
    "tovrel_device_set_present_offer_view": (c_int, [c_void_p, c_int]),
    "tovrel_device_set_active": (c_int, [c_void_p, c_int]),
    "tovrel_device_start_session": (c_int, [c_void_p, c_char_p, c_int]),
    "tovrel_device_stop_session": (c_int, [c_void_p]),
    "tovrel_device_session_key": (c_int, [c_void_p, POINTER(c_void_p)]),
    "tovrel_device_observe": (c_int, [c_void_p, c_char_p, NOTIFICATION_FN, c_void_p, POINTER(c_uint64)]),
    "tovrel_device_unobserve": (c_int, [c_void_p, c_uint64]),
    "tovrel_device_forward_notification": (c_int, [c_void_p, c_char_p]),
    "tovrel_device_clear_events": (c_int, [c_void_p, STATUS_FN, c_void_p]),
    "tovrel_device_add_tag": (c_int, [c_void_p, c_char_p, c_char_p, c_char_p, STATUS_FN, c_void_p]),
    "tovrel_device_delete_tag": (c_int, [c_void_p, c_char_p, c_char_p, STATUS_FN, c_void_p]),
}
for _name, (_result, _arguments) in _SIGNATURES.items():
    _function = getattr(lib, _name)
    _function.restype = _result
    _function.argtypes = _arguments


def check(status):
    """Raises TovrelError with the library's message when `status` is not OK."""
    if status != Status.OK:
        raise TovrelError(status, lib.tovrel_last_error().decode("utf-8", "replace"))


def text(value):
    """A Python string as the UTF-8 the C interface takes (None stays NULL). C would read a string with a
    NUL character only up to it, so such a string is refused rather than cut short."""
    if value is None:
        return None
    encoded = os.fsencode(value) if isinstance(value, os.PathLike) else value.encode("utf-8")
    if b"\0" in encoded:
        raise TovrelError(Status.INVALID_ARGUMENT, "a string passed to tovrel must not hold a NUL character: %r"
                          % (value if len(str(value)) <= 64 else str(value)[:64] + "..."))
    return encoded


def version():
    """The library's version, "1.2.4"."""
    return lib.tovrel_version().decode("ascii")
