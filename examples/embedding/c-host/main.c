/* A complete C host: a location-enabled session on the linux backend through tovrel/tovrel.h, the
 * loop on this thread, the component's in-process notifications printed as they come.
 *
 *   c-host SERVICE_URL SDK_KEY ROUTE_FILE [SECONDS] [SPEED]
 *
 * Exit status 0 when the service gave a session key, 1 when it did not, 2 on bad arguments.
 */
#define _POSIX_C_SOURCE 200809L
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include "tovrel/tovrel.h"

static void onNotification(const char* name, const char* object_json, void* user) {
    (void)user;
    printf("notification: %s %.100s\n", name, object_json);
}

static double seconds_now(void) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (double)now.tv_sec + (double)now.tv_nsec / 1e9;
}

static int failed(const char* what) {
    fprintf(stderr, "c-host: %s: %s\n", what, tovrel_last_error());
    return 1;
}

int main(int argc, char** argv) {
    if (argc < 4 || argc > 6) {
        fprintf(stderr, "usage: %s SERVICE_URL SDK_KEY ROUTE_FILE [SECONDS] [SPEED]\n", argv[0]);
        return 2;
    }
    const double seconds = argc > 4 ? atof(argv[4]) : 60;
    const double speed = argc > 5 ? atof(argv[5]) : 1;

    /* 1. Options: the service, where positions come from, who runs the loop (this thread). */
    tovrel_options* options = tovrel_options_new();
    if (options == NULL || tovrel_options_set_service_url(options, argv[1]) != TOVREL_OK ||
        tovrel_options_set_application_id(options, "org.example.c-host") != TOVREL_OK ||
        tovrel_options_set_replay(options, argv[3], speed, 0) != TOVREL_OK) {
        fprintf(stderr, "c-host: %s\n", tovrel_last_error());
        tovrel_options_free(options);
        return 2;
    }

    /* 2. The device: backend, environment, the application launched and active. */
    tovrel_device* device = NULL;
    const tovrel_status made = tovrel_device_new(options, &device);
    tovrel_options_free(options);
    if (made != TOVREL_OK) {
        return failed("the device");
    }

    /* 3. Every in-process notification (NULL: all names); callbacks run on this thread. */
    uint64_t observer = 0;
    tovrel_device_observe(device, NULL, onNotification, NULL, &observer);

    /* 4. The presentation switches, then the session. */
    tovrel_device_set_present_notifications(device, 1);
    tovrel_device_set_present_offer_view(device, 1);
    if (tovrel_device_start_session(device, argv[2], 1) != TOVREL_OK) {
        tovrel_device_free(device);
        return failed("the session");
    }
    printf("c-host: Tovrel %s, service %s\n", tovrel_version(), argv[1]);

    /* 5. Drive the loop from this program's own loop: here, steps of 100 ms until the time is up. */
    const double end = seconds_now() + seconds;
    while (seconds_now() < end) {
        tovrel_device_step(device, 100);
    }

    /* 6. Stop in order: the key tells whether the session started; freeing ends everything. */
    char* key = NULL;
    tovrel_device_session_key(device, &key);
    const int started = key != NULL;
    tovrel_string_free(key);
    tovrel_device_unobserve(device, observer);
    if (tovrel_device_free(device) != TOVREL_OK) {
        return failed("stopping");
    }
    printf("c-host: %s\n", started ? "session started" : "no session");
    return started ? 0 : 1;
}
