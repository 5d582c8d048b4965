/* Tovrel's C interface: one device on the linux backend, for every language that is not C++.
 *
 * Conventions
 *  - Strings are UTF-8 and NUL-terminated. Dictionaries travel as JSON text.
 *  - Every function that can fail returns a tovrel_status; TOVREL_OK is 0. tovrel_last_error() then
 *    says what went wrong. No C++ exception ever leaves the library.
 *  - A device has a home thread: the thread that runs its main loop. With TOVREL_LOOP_CALLER that is
 *    the thread that made the device and calls tovrel_device_run() or tovrel_device_step(); with
 *    TOVREL_LOOP_OWN_THREAD it is a thread the library starts and joins.
 *  - Device operations may be called from any thread. On the home thread they act at once; from any
 *    other thread they are queued to the loop and act in the order they were called, once it runs.
 *  - Every callback runs on the home thread, receives the user pointer given with it, and may call
 *    device operations (they act at once). Strings passed to a callback live until it returns.
 *  - Any number of devices may exist in a process, each with a data folder of its own; a device does
 *    not share its folder while it exists.
 */
#ifndef TOVREL_TOVREL_H
#define TOVREL_TOVREL_H

#include <stddef.h>
#include <stdint.h>

#if defined(__GNUC__)
#define TOVREL_C_API __attribute__((visibility("default")))
#else
#define TOVREL_C_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/** What a call returns. */
typedef enum tovrel_status {
    TOVREL_OK = 0,
    /** A null handle or required string, a number out of range, text that is not usable JSON. */
    TOVREL_ERROR_INVALID_ARGUMENT = 1,
    /** The call does not fit the device's state (running a loop the library owns, a data folder
     *  another device uses). */
    TOVREL_ERROR_STATE = 2,
    /** The call needs the home thread (or a loop the library runs) and was made elsewhere. */
    TOVREL_ERROR_WRONG_THREAD = 3,
    /** The backend could not be built: preferences that cannot be opened, a replay file that cannot
     *  be read, a thread that cannot be started. */
    TOVREL_ERROR_SYSTEM = 4,
    /** Anything else the library did not expect; the message says what. */
    TOVREL_ERROR_INTERNAL = 5
} tovrel_status;

/** Who runs a device's main loop. */
typedef enum tovrel_loop_mode {
    /** The caller: tovrel_device_run() or tovrel_device_step() on the thread that made the device. */
    TOVREL_LOOP_CALLER = 0,
    /** A thread the library starts with the device and joins when the device is freed. */
    TOVREL_LOOP_OWN_THREAD = 1,
    /** Not a mode: keeps every int value a caller may pass a value of the type, so that a wrong one is
     *  refused with TOVREL_ERROR_INVALID_ARGUMENT. */
    TOVREL_LOOP_MODE_MAX_ENUM = 0x7FFFFFFF
} tovrel_loop_mode;

/** Tovrel's version, "1.2.4". Any thread. */
TOVREL_C_API const char* tovrel_version(void);

/** The message of the last call that failed on this thread ("" if none has). Valid until the next
 *  call into the library on this thread. Any thread. */
TOVREL_C_API const char* tovrel_last_error(void);

/** Frees a string the library returned. NULL is fine. Any thread. */
TOVREL_C_API void tovrel_string_free(char* text);

/* ---- options ------------------------------------------------------------------------------------ */

typedef struct tovrel_options tovrel_options;

/** New options: the default service, the XDG data folder, no position source, TOVREL_LOOP_CALLER.
 *  Returns NULL only when memory runs out. Any thread; an options object is used by one thread. */
TOVREL_C_API tovrel_options* tovrel_options_new(void);
/** Any thread. NULL is fine. */
TOVREL_C_API void tovrel_options_free(tovrel_options* options);
/** The service base URL: scheme and host, no trailing slash. */
TOVREL_C_API tovrel_status tovrel_options_set_service_url(tovrel_options* options, const char* url);
/** Where the device keeps its preferences (made when missing); NULL: the XDG data folder. */
TOVREL_C_API tovrel_status tovrel_options_set_data_directory(tovrel_options* options, const char* path);
/** Names the application: its preferences, its identifier and its desktop notifications. */
TOVREL_C_API tovrel_status tovrel_options_set_application_id(tovrel_options* options, const char* id);
/** Positions from gpsd: "host", "host:port", "[IPv6]:port" (port 2947 by default). */
TOVREL_C_API tovrel_status tovrel_options_set_gpsd(tovrel_options* options, const char* address);
/** Positions replayed from a GPX or NMEA file, `speed` times faster than recorded (> 0), from the
 *  start again after the last point when `loop` is non-zero. */
TOVREL_C_API tovrel_status tovrel_options_set_replay(tovrel_options* options, const char* path, double speed,
                                                     int loop);
TOVREL_C_API tovrel_status tovrel_options_set_loop_mode(tovrel_options* options, tovrel_loop_mode mode);

/** A line the component logs. Runs on the thread that logs it (usually the home thread). */
typedef void (*tovrel_log_fn)(const char* line, void* user);
/** Hands each line the component logs to `fn` as well as to stderr; NULL stops it. */
TOVREL_C_API tovrel_status tovrel_options_set_log_handler(tovrel_options* options, tovrel_log_fn fn,
                                                          void* user);

/* ---- device ------------------------------------------------------------------------------------- */

typedef struct tovrel_device tovrel_device;

/** Makes the device: the linux backend, the component's environment, the application launched and
 *  active. Stores the new device in *device (NULL on failure). Any thread; with TOVREL_LOOP_CALLER the
 *  calling thread becomes the home thread. TOVREL_ERROR_STATE while another device uses its data
 *  folder. */
TOVREL_C_API tovrel_status tovrel_device_new(const tovrel_options* options, tovrel_device** device);

/** Ends the device: the session stops, the component hears the application terminate, the loop stops
 *  (and its thread is joined), everything is freed. NULL is fine. The home thread with
 *  TOVREL_LOOP_CALLER, outside tovrel_device_run(); any thread but the home thread with
 *  TOVREL_LOOP_OWN_THREAD. Not from a callback. */
TOVREL_C_API tovrel_status tovrel_device_free(tovrel_device* device);

/** Runs the loop on the home thread until tovrel_device_stop(). Home thread, TOVREL_LOOP_CALLER. */
TOVREL_C_API tovrel_status tovrel_device_run(tovrel_device* device);
/** Runs the loop on the home thread for `milliseconds` (0: only what is due now), then returns.
 *  Home thread, TOVREL_LOOP_CALLER. */
TOVREL_C_API tovrel_status tovrel_device_step(tovrel_device* device, int milliseconds);
/** Makes tovrel_device_run() return after the task in progress. Any thread. */
TOVREL_C_API tovrel_status tovrel_device_stop(tovrel_device* device);

/** Whether offers are shown as local notifications while the application is in the background. */
TOVREL_C_API tovrel_status tovrel_device_set_present_notifications(tovrel_device* device, int on);
/** Whether the full-screen offer view may open. */
TOVREL_C_API tovrel_status tovrel_device_set_present_offer_view(tovrel_device* device, int on);
/** Tells the component the application came to the foreground (non-zero) or went to the background. */
TOVREL_C_API tovrel_status tovrel_device_set_active(tovrel_device* device, int active);

/** Starts a session with the application's SDK key; with `use_location` non-zero the device then
 *  follows its position, fetches places and delivers their offers. A failed start with location is
 *  tried again at once by the component. */
TOVREL_C_API tovrel_status tovrel_device_start_session(tovrel_device* device, const char* sdk_key,
                                                       int use_location);
/** Stops following the position. The session key stays stored. */
TOVREL_C_API tovrel_status tovrel_device_stop_session(tovrel_device* device);

/** The session key of the last successful start, or NULL before any (free it with
 *  tovrel_string_free). The home thread, or any thread while the library's own thread runs the loop
 *  (the call then waits for the loop). */
TOVREL_C_API tovrel_status tovrel_device_session_key(tovrel_device* device, char** key);

/** An in-process notification: its name and its object as JSON text ("null" when it carries none). */
typedef void (*tovrel_notification_fn)(const char* name, const char* object_json, void* user);
/** Calls `fn` for each notification named `name` (every notification when NULL or ""), from the
 *  moment the call acts. Stores a token for tovrel_device_unobserve() in *token. */
TOVREL_C_API tovrel_status tovrel_device_observe(tovrel_device* device, const char* name,
                                                 tovrel_notification_fn fn, void* user, uint64_t* token);
/** Stops the observer: it is not called again, except that from another thread a call already under
 *  way on the home thread finishes. */
TOVREL_C_API tovrel_status tovrel_device_unobserve(tovrel_device* device, uint64_t token);

/** Hands the component a local notification the user opened, as JSON: {"alertBody": text,
 *  "alertAction": text, "soundName": text, "userInfo": object} (every member optional; "userInfo"
 *  carries the "deviceeventId" the offer was sent with). Desktop notifications the backend showed
 *  are handed over by the library itself. */
TOVREL_C_API tovrel_status tovrel_device_forward_notification(tovrel_device* device,
                                                              const char* notification_json);

/** The service's answer to a clear or tag request: its "status" as JSON text and NULL, or NULL and
 *  the error's message (also when no session key is stored yet). Called once, unless the device is
 *  freed before the answer comes. */
typedef void (*tovrel_status_fn)(const char* status_json, const char* error, void* user);
/** Clears the events the service keeps for this device. `done` may be NULL. */
TOVREL_C_API tovrel_status tovrel_device_clear_events(tovrel_device* device, tovrel_status_fn done,
                                                      void* user);
/** Adds or changes a device tag. */
TOVREL_C_API tovrel_status tovrel_device_add_tag(tovrel_device* device, const char* tag, const char* value,
                                                 const char* group, tovrel_status_fn done, void* user);
/** Deletes a device tag. */
TOVREL_C_API tovrel_status tovrel_device_delete_tag(tovrel_device* device, const char* tag, const char* group,
                                                    tovrel_status_fn done, void* user);

#ifdef __cplusplus
}
#endif

#endif /* TOVREL_TOVREL_H */
