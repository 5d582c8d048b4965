/* The C interface from a C11 program: argument and thread checks, then whole sessions against
 * tovrel-server on 127.0.0.1, with the loop on the caller's thread and on the library's own, and eight
 * devices at once.
 *
 *   capi_test TOVREL_SERVER_BINARY
 */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <math.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "tovrel/tovrel.h"

static int failures = 0;

#define CHECK(condition)                                                                                 \
    do {                                                                                                 \
        if (!(condition)) {                                                                              \
            fprintf(stderr, "%s:%d: CHECK(%s) failed; last error: %s\n", __FILE__, __LINE__, #condition, \
                    tovrel_last_error());                                                                \
            ++failures;                                                                                  \
        }                                                                                                \
    } while (0)

#define REQUIRE(condition)                                                                                 \
    do {                                                                                                   \
        if (!(condition)) {                                                                                \
            fprintf(stderr, "%s:%d: REQUIRE(%s) failed; last error: %s\n", __FILE__, __LINE__, #condition, \
                    tovrel_last_error());                                                                  \
            exit(1);                                                                                       \
        }                                                                                                  \
    } while (0)

static const char* serverBinary;
static char folder[] = "/tmp/tovrel-capi-XXXXXX";
static char database[256];
static char serviceURL[64];
static pid_t serverPid = -1;

static double now(void) {
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return (double)t.tv_sec + (double)t.tv_nsec / 1e9;
}

static void sleepMilliseconds(long milliseconds) {
    const struct timespec pause = {milliseconds / 1000, (milliseconds % 1000) * 1000000L};
    nanosleep(&pause, NULL);
}

static void writeFile(const char* path, const char* text) {
    FILE* file = fopen(path, "w");
    REQUIRE(file != NULL);
    fputs(text, file);
    fclose(file);
}

/* One place at 48.2, 11.6 whose offer is delivered on entry, and the app key "capi-key". */
static const char* kPlaces =
    "{\"type\":\"FeatureCollection\",\"properties\":{"
    "\"apps\":[{\"key\":\"capi-key\",\"name\":\"C interface test\"}],"
    "\"campaigns\":[{\"name\":\"C\",\"startDate\":\"2020-01-01\",\"endDate\":\"2099-12-31\"}]},"
    "\"features\":[{\"type\":\"Feature\",\"geometry\":{\"type\":\"Point\",\"coordinates\":[11.6,48.2]},"
    "\"properties\":{\"placeId\":9201,\"name\":\"C corner\",\"radius\":80,\"offers\":[{\"eventId\":9301,"
    "\"campaign\":\"C\",\"eventName\":\"Tea\",\"alertText\":\"C test: one free tea\",\"mediaType\":\"html\","
    "\"mediaUrl\":\"/media/offer-9301.html\",\"tags\":\"test\",\"dwellTime\":0,\"eventTypeId\":3}]}}]}";

/* A walk from 400 m south-west of the place into its centre, 20 m a second, then a minute there. */
static void writeWalk(const char* path) {
    FILE* file = fopen(path, "w");
    REQUIRE(file != NULL);
    fputs("<?xml version=\"1.0\"?>\n<gpx version=\"1.1\"><trk><trkseg>\n", file);
    const double metresPerDegree = 111194.93;
    const double metresPerLongitudeDegree = metresPerDegree * cos(48.2 * 3.14159265358979 / 180);
    for (int i = 0; i <= 80; ++i) {
        const double away = (400 - 20 * i > 0 ? 400 - 20 * i : 0) / sqrt(2.0);
        fprintf(file, "<trkpt lat=\"%.7f\" lon=\"%.7f\"><time>2024-06-01T12:%02d:%02dZ</time></trkpt>\n",
                48.2 - away / metresPerDegree, 11.6 - away / metresPerLongitudeDegree, i / 60, i % 60);
    }
    fputs("</trkseg></trk></gpx>\n", file);
    fclose(file);
}

/* Runs the server with `args`, its standard output to `out` and its errors to a file beside it (so that
 * nothing holds the test's own output open), and ends it with this process however this one ends. */
static pid_t spawnServer(char* const args[], const char* out) {
    /* The device's threads may hold locks (the allocator's) at the fork: the child runs only
     * async-signal-safe calls until it executes the server. */
    char errors[300];
    snprintf(errors, sizeof errors, "%s/server.err", folder);
    const pid_t pid = fork();
    REQUIRE(pid >= 0);
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        const int outFd = open(out, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        const int errFd = open(errors, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        if (outFd < 0 || errFd < 0 || dup2(outFd, STDOUT_FILENO) < 0 || dup2(errFd, STDERR_FILENO) < 0) {
            _exit(127);
        }
        execv(serverBinary, args);
        _exit(127);
    }
    return pid;
}

static int waitFor(pid_t pid) {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

static char* readFile(const char* path) {
    FILE* file = fopen(path, "r");
    if (file == NULL) {
        return NULL;
    }
    static char text[65536];
    const size_t got = fread(text, 1, sizeof text - 1, file);
    text[got] = '\0';
    fclose(file);
    return text;
}

static void startServer(void) {
    REQUIRE(mkdtemp(folder) != NULL);
    char places[256];
    char out[256];
    snprintf(database, sizeof database, "%s/service.db", folder);
    snprintf(places, sizeof places, "%s/places.geojson", folder);
    snprintf(out, sizeof out, "%s/server.out", folder);
    writeFile(places, kPlaces);
    char* import[] = {"tovrel-server", "import", places, "--db", database, NULL};
    REQUIRE(waitFor(spawnServer(import, out)) == 0);
    char* serve[] = {"tovrel-server", "serve",          "--db", database, "--listen",
                     "127.0.0.1:0",   "--admin-listen", "off",  NULL};
    serverPid = spawnServer(serve, out);
    const double deadline = now() + 20;
    while (now() < deadline) {
        const char* text = readFile(out);
        const char* at = text != NULL ? strstr(text, "127.0.0.1:") : NULL;
        if (at != NULL && strchr(at, '\n') != NULL) {
            snprintf(serviceURL, sizeof serviceURL, "http://127.0.0.1:%d", atoi(at + strlen("127.0.0.1:")));
            return;
        }
        sleepMilliseconds(20);
    }
    REQUIRE(!"tovrel-server did not start");
}

static void stopServer(void) {
    if (serverPid > 0) {
        kill(serverPid, SIGTERM);
        waitFor(serverPid);
    }
    char command[512];
    snprintf(command, sizeof command, "rm -rf '%s'", folder);
    if (system(command) != 0) {
        fprintf(stderr, "could not remove %s\n", folder);
    }
}

/* The server's report as JSON text ("" when it cannot be had). */
static const char* report(void) {
    char out[256];
    snprintf(out, sizeof out, "%s/report.json", folder);
    char* args[] = {"tovrel-server", "report", "--json", "--db", database, NULL};
    if (waitFor(spawnServer(args, out)) != 0) {
        return "";
    }
    const char* content = readFile(out);
    return content != NULL ? content : "";
}

/* ---- what callbacks saw ---------------------------------------------------------------------- */

typedef struct Seen {
    int locations;
    int inBounds;
    int others;
    int statusAnswers;
    char lastStatus[256];
    char lastError[256];
} Seen;

static void onNotification(const char* name, const char* object, void* user) {
    Seen* seen = user;
    if (strcmp(name, "tovrelLocationNotification") == 0) {
        seen->locations += strstr(object, "\"Location\"") != NULL;
    } else if (strcmp(name, "tovrelInBounds") == 0) {
        ++seen->inBounds;
    } else {
        ++seen->others;
    }
}

static void onStatus(const char* status, const char* error, void* user) {
    Seen* seen = user;
    ++seen->statusAnswers;
    snprintf(seen->lastStatus, sizeof seen->lastStatus, "%s", status != NULL ? status : "");
    snprintf(seen->lastError, sizeof seen->lastError, "%s", error != NULL ? error : "");
}

static char* sessionKey(tovrel_device* device) {
    char* key = NULL;
    CHECK(tovrel_device_session_key(device, &key) == TOVREL_OK);
    return key;
}

/* Steps the caller's loop until `done(device, seen)` or `seconds` pass. */
static int stepUntil(tovrel_device* device, Seen* seen, int (*done)(tovrel_device*, Seen*), double seconds) {
    const double deadline = now() + seconds;
    while (!done(device, seen)) {
        if (now() > deadline) {
            return 0;
        }
        REQUIRE(tovrel_device_step(device, 100) == TOVREL_OK);
    }
    return 1;
}

static int hasSessionKey(tovrel_device* device, Seen* seen) {
    (void)seen;
    char* key = sessionKey(device);
    tovrel_string_free(key);
    return key != NULL;
}

static int linkedAndAcknowledged(tovrel_device* device, Seen* seen) {
    (void)device;
    (void)seen;
    const char* text = report();
    return strstr(text, "\"links\": 1") != NULL && strstr(text, "\"ack\": 1") != NULL;
}

static int statusAnswered(tovrel_device* device, Seen* seen) {
    (void)device;
    return seen->statusAnswers > 0;
}

/* ---- the cases ------------------------------------------------------------------------------- */

static void argumentsAreChecked(void) {
    CHECK(strcmp(tovrel_version(), TOVREL_EXPECTED_VERSION) == 0);
    CHECK(tovrel_device_new(NULL, NULL) == TOVREL_ERROR_INVALID_ARGUMENT);
    CHECK(strstr(tovrel_last_error(), "NULL") != NULL);
    CHECK(tovrel_device_run(NULL) == TOVREL_ERROR_INVALID_ARGUMENT);
    CHECK(tovrel_device_free(NULL) == TOVREL_OK);
    CHECK(strcmp(tovrel_last_error(), "") == 0);

    tovrel_options* options = tovrel_options_new();
    REQUIRE(options != NULL);
    CHECK(tovrel_options_set_service_url(options, "ftp://127.0.0.1") == TOVREL_ERROR_INVALID_ARGUMENT);
    CHECK(tovrel_options_set_service_url(NULL, "http://127.0.0.1") == TOVREL_ERROR_INVALID_ARGUMENT);
    CHECK(tovrel_options_set_gpsd(options, "127.0.0.1:99999") == TOVREL_ERROR_INVALID_ARGUMENT);
    CHECK(strstr(tovrel_last_error(), "port") != NULL);
    CHECK(tovrel_options_set_gpsd(options, "[::1]:2947") == TOVREL_OK);
    CHECK(tovrel_options_set_replay(options, "walk.gpx", 0, 0) == TOVREL_ERROR_INVALID_ARGUMENT);
    CHECK(tovrel_options_set_replay(options, "walk.gpx", NAN, 0) == TOVREL_ERROR_INVALID_ARGUMENT);
    CHECK(tovrel_options_set_application_id(options, "") == TOVREL_ERROR_INVALID_ARGUMENT);
    CHECK(tovrel_options_set_application_id(options, "../escape") == TOVREL_ERROR_INVALID_ARGUMENT);
    CHECK(tovrel_options_set_loop_mode(options, (tovrel_loop_mode)7) == TOVREL_ERROR_INVALID_ARGUMENT);

    /* A replay file that is not there: the backend cannot be built, and nothing is left behind. */
    char data[256];
    snprintf(data, sizeof data, "%s/app-missing", folder);
    CHECK(tovrel_options_set_data_directory(options, data) == TOVREL_OK);
    CHECK(tovrel_options_set_replay(options, "/nonexistent/walk.gpx", 1, 0) == TOVREL_OK);
    tovrel_device* device = (tovrel_device*)1;
    CHECK(tovrel_device_new(options, &device) == TOVREL_ERROR_SYSTEM);
    CHECK(device == NULL);
    CHECK(strlen(tovrel_last_error()) > 0);
    tovrel_options_free(options);
}

static void sessionOnTheCallersLoop(void) {
    char data[256];
    char walk[256];
    snprintf(data, sizeof data, "%s/app", folder);
    snprintf(walk, sizeof walk, "%s/walk.gpx", folder);
    writeWalk(walk);

    tovrel_options* options = tovrel_options_new();
    REQUIRE(options != NULL);
    CHECK(tovrel_options_set_service_url(options, serviceURL) == TOVREL_OK);
    CHECK(tovrel_options_set_data_directory(options, data) == TOVREL_OK);
    CHECK(tovrel_options_set_application_id(options, "org.tovrel.capi-test") == TOVREL_OK);
    CHECK(tovrel_options_set_replay(options, walk, 20, 0) == TOVREL_OK);
    tovrel_device* device = NULL;
    REQUIRE(tovrel_device_new(options, &device) == TOVREL_OK);
    tovrel_options_free(options);

    /* Another device on the same folder, however spelled, would share its identity. */
    tovrel_options* same = tovrel_options_new();
    REQUIRE(same != NULL);
    char sameData[300];
    snprintf(sameData, sizeof sameData, "%s/./absent/../app/", folder);
    CHECK(tovrel_options_set_data_directory(same, sameData) == TOVREL_OK);
    tovrel_device* second = NULL;
    CHECK(tovrel_device_new(same, &second) == TOVREL_ERROR_STATE);
    CHECK(second == NULL && strstr(tovrel_last_error(), "another device") != NULL);
    tovrel_options_free(same);

    Seen seen = {0};
    uint64_t token = 0;
    CHECK(tovrel_device_observe(device, NULL, onNotification, &seen, &token) == TOVREL_OK);
    CHECK(tovrel_device_observe(device, NULL, NULL, &seen, &token) == TOVREL_ERROR_INVALID_ARGUMENT);

    /* Before any session there is no key: the clear request is answered with an error at once. */
    CHECK(sessionKey(device) == NULL);
    CHECK(tovrel_device_clear_events(device, onStatus, &seen) == TOVREL_OK);
    CHECK(seen.statusAnswers == 1 && strstr(seen.lastError, "session") != NULL);
    seen.statusAnswers = 0;

    CHECK(tovrel_device_set_present_notifications(device, 1) == TOVREL_OK);
    CHECK(tovrel_device_set_present_offer_view(device, 1) == TOVREL_OK);
    CHECK(tovrel_device_set_active(device, 0) == TOVREL_OK);
    CHECK(tovrel_device_start_session(device, "", 1) == TOVREL_ERROR_INVALID_ARGUMENT);
    CHECK(tovrel_device_start_session(device, "capi-key", 1) == TOVREL_OK);
    CHECK(stepUntil(device, &seen, hasSessionKey, 20));
    CHECK(stepUntil(device, &seen, linkedAndAcknowledged, 60));
    CHECK(seen.locations > 0);

    /* An opened notification comes back as JSON; text a network could send is refused whole. */
    char deep[400];
    memset(deep, '[', 200);
    memset(deep + 200, ']', 199);
    deep[399] = '\0';
    CHECK(tovrel_device_forward_notification(device, deep) == TOVREL_ERROR_INVALID_ARGUMENT);
    CHECK(strstr(tovrel_last_error(), "nested deeper than 64") != NULL);
    CHECK(tovrel_device_forward_notification(device, "{\"alertBody\": 7}") == TOVREL_ERROR_INVALID_ARGUMENT);
    CHECK(tovrel_device_forward_notification(device, "{\"alertBody\":") == TOVREL_ERROR_INVALID_ARGUMENT);
    CHECK(tovrel_device_forward_notification(
              device, "{\"alertBody\":\"C test: one free tea\",\"userInfo\":{\"deviceeventId\":\"1\"}}") ==
          TOVREL_OK);

    CHECK(tovrel_device_add_tag(device, "colour", "green", "test", onStatus, &seen) == TOVREL_OK);
    CHECK(stepUntil(device, &seen, statusAnswered, 20));
    CHECK(strcmp(seen.lastError, "") == 0);
    seen.statusAnswers = 0;
    CHECK(tovrel_device_delete_tag(device, "colour", NULL, onStatus, &seen) == TOVREL_ERROR_INVALID_ARGUMENT);
    CHECK(tovrel_device_clear_events(device, onStatus, &seen) == TOVREL_OK);
    CHECK(stepUntil(device, &seen, statusAnswered, 20));
    CHECK(strcmp(seen.lastError, "") == 0);

    CHECK(tovrel_device_unobserve(device, token) == TOVREL_OK);
    const int locations = seen.locations;
    CHECK(tovrel_device_stop_session(device) == TOVREL_OK);
    CHECK(tovrel_device_step(device, 200) == TOVREL_OK);
    CHECK(seen.locations == locations);
    CHECK(tovrel_device_step(device, -1) == TOVREL_ERROR_INVALID_ARGUMENT);
    CHECK(tovrel_device_step(device, 0) == TOVREL_OK);

    /* A stop asked for before run() makes it return at once. */
    CHECK(tovrel_device_stop(device) == TOVREL_OK);
    CHECK(tovrel_device_run(device) == TOVREL_OK);
    CHECK(tovrel_device_free(device) == TOVREL_OK);
}

static void sessionOnTheLibrarysThread(void) {
    char data[256];
    snprintf(data, sizeof data, "%s/app-thread", folder);
    tovrel_options* options = tovrel_options_new();
    REQUIRE(options != NULL);
    CHECK(tovrel_options_set_service_url(options, serviceURL) == TOVREL_OK);
    CHECK(tovrel_options_set_data_directory(options, data) == TOVREL_OK);
    CHECK(tovrel_options_set_loop_mode(options, TOVREL_LOOP_OWN_THREAD) == TOVREL_OK);
    tovrel_device* device = NULL;
    REQUIRE(tovrel_device_new(options, &device) == TOVREL_OK);
    tovrel_options_free(options);

    CHECK(tovrel_device_run(device) == TOVREL_ERROR_STATE);
    CHECK(tovrel_device_step(device, 10) == TOVREL_ERROR_STATE);
    CHECK(tovrel_device_stop(device) == TOVREL_ERROR_STATE);

    /* Calls from this thread are queued to the library's loop; the key is asked for there. */
    CHECK(tovrel_device_start_session(device, "capi-key", 0) == TOVREL_OK);
    char* key = NULL;
    const double deadline = now() + 20;
    while (key == NULL && now() < deadline) {
        key = sessionKey(device);
        sleepMilliseconds(50);
    }
    CHECK(key != NULL && strlen(key) > 0);
    tovrel_string_free(key);
    CHECK(tovrel_device_free(device) == TOVREL_OK);

    /* The device is gone: a new one may be made. */
    REQUIRE(tovrel_device_new(NULL, &device) == TOVREL_OK ||
            (fprintf(stderr, "%s\n", tovrel_last_error()), 0));
    CHECK(tovrel_device_free(device) == TOVREL_OK);
}

static int linksAndAcknowledgements(int count) {
    char links[32];
    char acks[32];
    snprintf(links, sizeof links, "\"links\": %d", count);
    snprintf(acks, sizeof acks, "\"ack\": %d", count);
    const char* text = report();
    return strstr(text, links) != NULL && strstr(text, acks) != NULL;
}

static void* freeDevice(void* device) {
    return tovrel_device_free(device) == TOVREL_OK ? NULL : device;
}

/* Eight devices at once, each on a thread of the library's with a folder of its own, walk into the
 * place together: each is its own device to the service and is told its own offer. */
static void eightDevicesAtOnce(void) {
    enum { kDevices = 8 };
    char walk[256];
    snprintf(walk, sizeof walk, "%s/walk.gpx", folder);
    tovrel_device* devices[kDevices] = {NULL};
    Seen seen[kDevices];
    memset(seen, 0, sizeof seen);
    for (int i = 0; i < kDevices; ++i) {
        char data[256];
        snprintf(data, sizeof data, "%s/fleet-%d", folder, i);
        tovrel_options* options = tovrel_options_new();
        REQUIRE(options != NULL);
        CHECK(tovrel_options_set_service_url(options, serviceURL) == TOVREL_OK);
        CHECK(tovrel_options_set_data_directory(options, data) == TOVREL_OK);
        CHECK(tovrel_options_set_replay(options, walk, 20, 0) == TOVREL_OK);
        CHECK(tovrel_options_set_loop_mode(options, TOVREL_LOOP_OWN_THREAD) == TOVREL_OK);
        REQUIRE(tovrel_device_new(options, &devices[i]) == TOVREL_OK);
        tovrel_options_free(options);
        uint64_t token = 0;
        CHECK(tovrel_device_observe(devices[i], NULL, onNotification, &seen[i], &token) == TOVREL_OK);
        CHECK(tovrel_device_set_present_notifications(devices[i], 1) == TOVREL_OK);
        CHECK(tovrel_device_set_active(devices[i], 0) == TOVREL_OK);
    }
    for (int i = 0; i < kDevices; ++i) {
        CHECK(tovrel_device_start_session(devices[i], "capi-key", 1) == TOVREL_OK);
    }
    /* The first case linked one visit. */
    const double deadline = now() + 90;
    while (!linksAndAcknowledgements(1 + kDevices) && now() < deadline) {
        sleepMilliseconds(250);
    }
    CHECK(linksAndAcknowledgements(1 + kDevices));
    /* Each device waits two seconds as it terminates: they are freed together. */
    pthread_t freers[kDevices];
    for (int i = 0; i < kDevices; ++i) {
        REQUIRE(pthread_create(&freers[i], NULL, freeDevice, devices[i]) == 0);
    }
    for (int i = 0; i < kDevices; ++i) {
        void* status = NULL;
        REQUIRE(pthread_join(freers[i], &status) == 0);
        CHECK(status == NULL);
        /* Freeing joined the device's thread, so what its callbacks wrote is seen here. */
        CHECK(seen[i].locations > 0);
    }
}

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: %s TOVREL_SERVER_BINARY\n", argv[0]);
        return 2;
    }
    serverBinary = argv[1];
    startServer();
    argumentsAreChecked();
    sessionOnTheCallersLoop();
    sessionOnTheLibrarysThread();
    eightDevicesAtOnce();
    stopServer();
    if (failures > 0) {
        fprintf(stderr, "%d checks failed\n", failures);
        return 1;
    }
    printf("C interface: all checks passed\n");
    return 0;
}
