/* The C interface end to end against the simulator, as a C99 application uses it; built for 64-bit and for
 * 32-bit x86, where the records have another layout (28-byte events). Usage: api_c_simulator_test SIMULATOR ADDRESS.
 *
 * The program starts the simulator (oltb-sim) on ADDRESS, waits (bounded) for its readiness line and ends it at
 * exit, also when a check fails; the simulator never outlives the program. It selects head 0's positions, the
 * gate and the labels, reads events, acquires one run of the simulated marking job between labels 1 and 2,
 * converts the positions and compares them with the job. Last it connects again, starts tracing and returns from
 * main with that connection open: the library ends it by itself at process exit. Exit code 0 means success. */
#define _POSIX_C_SOURCE 200809L

#include "oltb.h"
#include "c_check.h"

#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>


/* For calls the rest of a step depends on: reports the library's error text as well. */
#define REQUIRE_CALL(call)                                                                             \
    do {                                                                                               \
        if ((call) != 0) {                                                                             \
            fprintf(stderr, "%s:%d: %s failed: %s\n", __FILE__, __LINE__, #call, lastErrorText());   \
            ++failures;                                                                                \
            return;                                                                                    \
        }                                                                                              \
    } while (0)

static const char* lastErrorText(void) {
    static char text[512];
    text[0] = '\0';
    oltbGetLastError(text, (int)sizeof(text));
    return text;
}

static void sleepMs(long ms) {
    struct timespec pause;
    pause.tv_sec = ms / 1000;
    pause.tv_nsec = (ms % 1000) * 1000000L;
    nanosleep(&pause, NULL);
}

/* ---- the simulator process ------------------------------------------------------------------------------ */

static pid_t simulator = -1;

/* SIGTERM, then up to 5 s for it to end, then SIGKILL. Runs at exit, after the library has ended the
 * connections still open, so the simulator is still there when they go. */
static void stopSimulator(void) {
    int status = 0;
    int waited;
    if (simulator <= 0) {
        return;
    }
    kill(simulator, SIGTERM);
    for (waited = 0; waited < 500; ++waited) {
        if (waitpid(simulator, &status, WNOHANG) == simulator) {
            simulator = -1;
            return;
        }
        sleepMs(10);
    }
    kill(simulator, SIGKILL);
    waitpid(simulator, &status, 0);
    simulator = -1;
}

static int startSimulator(const char* program, const char* address) {
    char expected[128];
    char line[128];
    size_t length = 0;
    int output[2];
    const pid_t parent = getpid();

    snprintf(expected, sizeof expected, "oltb-sim listening on %s:9495\n", address);
    if (pipe(output) != 0) {
        return 0;
    }
    simulator = fork();
    if (simulator < 0) {
        return 0;
    }
    if (simulator == 0) {
        /* Ended with this program, however it ends (a failed check, a crash, a test timeout). */
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (getppid() != parent) {
            _exit(127);
        }
        dup2(output[1], STDOUT_FILENO);
        close(output[0]);
        close(output[1]);
        execl(program, program, "--address", address, (char*)NULL);
        _exit(127);
    }
    close(output[1]);
    atexit(stopSimulator);

    /* The readiness line, within 10 s. The pipe stays open: the simulator may write to it later. */
    while (length < sizeof line - 1 && memchr(line, '\n', length) == NULL) {
        struct pollfd readable;
        ssize_t received;
        readable.fd = output[0];
        readable.events = POLLIN;
        readable.revents = 0;
        if (poll(&readable, 1, 10000) <= 0) {
            break;
        }
        received = read(output[0], line + length, sizeof line - 1 - length);
        if (received <= 0) {
            break;
        }
        length += (size_t)received;
    }
    line[length] = '\0';
    if (strcmp(line, expected) != 0) {
        fprintf(stderr, "%s did not report readiness on %s (got \"%s\")\n", program, address, line);
        return 0;
    }
    return 1;
}

/* ---- the checks ----------------------------------------------------------------------------------------- */

static int isSelectedType(oltbTraceEventType type) {
    return type == oltbEventHead0TxX || type == oltbEventHead0TxY || type == oltbEventHead0RxX ||
           type == oltbEventHead0RxY || type == oltbEventGate || type == oltbEventLabel;
}

static void selectSignals(int handle) {
    oltbTraceBufferConfig_Struct config;
    oltbTraceBufferConfig_Struct readBack;
    oltbInitConfig(&config);
    config.Head0TxX = config.Head0TxY = config.Head0RxX = config.Head0RxY = true;
    config.Gate = config.Label = true;
    REQUIRE_CALL(oltbSetConfig(handle, &config));
    REQUIRE_CALL(oltbGetConfig(handle, &readBack));
    CHECK(readBack.Version == 6);
    CHECK(readBack.Head0TxX && readBack.Head0TxY && readBack.Head0RxX && readBack.Head0RxY);
    CHECK(readBack.Gate && readBack.Label);
    CHECK(!readBack.Head0TxZ && !readBack.PortA && !readBack.LaserPower16 && !readBack.Head1TxX);
}

/* A few reads at an offset into one array: events of the selected signals only, in time order within a read,
 * and nothing written before the offset. */
static void readEvents(int handle) {
    enum { Offset = 16, Count = 2000 };
    static oltbTraceEvent events[Offset + Count];
    int read;
    memset(events, 0xA5, sizeof events);
    for (read = 0; read < 5; ++read) {
        uint32_t n = 0;
        uint32_t i;
        unsigned wrongTypes = 0;
        unsigned outOfOrder = 0;
        REQUIRE_CALL(oltbRead(handle, events, Offset, Count, &n));
        CHECK(n > 0 && n <= Count);
        for (i = 0; i < n; ++i) {
            const oltbTraceEvent* event = &events[Offset + i];
            wrongTypes += !isSelectedType(event->Type);
            outOfOrder += i > 0 && (event->Timestamp < event[-1].Timestamp || event->Time < event[-1].Time);
        }
        CHECK(wrongTypes == 0);
        CHECK(outOfOrder == 0);
    }
    CHECK(((const unsigned char*)events)[0] == 0xA5 &&
          ((const unsigned char*)&events[Offset])[-1] == 0xA5);
}

/* One run of the job (see oltb-sim --help): label 1, four shapes each between labels 10+2k and 11+2k with the
 * gate on while marking, label 2 about 562 ms after label 1. The first shape, a line, starts at
 * (-300000, -250000). */
static void checkAcquiredJob(oltbTraceEvent* events, uint32_t count) {
    uint32_t i;
    unsigned outOfOrder = 0;
    unsigned wrongTypes = 0;
    unsigned labels = 0;
    unsigned labelsInOrder = 0;
    unsigned gateOn = 0;
    int gate = 0;
    int32_t x = 0;
    int32_t y = 0;
    int lineStartSeen = 0;

    for (i = 0; i < count; ++i) {
        const oltbTraceEvent* event = &events[i];
        outOfOrder += i > 0 && event->Timestamp < event[-1].Timestamp;
        wrongTypes += !isSelectedType(event->Type);
        if (event->Type == oltbEventHead0TxX) {
            x = event->Value;
        } else if (event->Type == oltbEventHead0TxY) {
            y = event->Value;
        } else if (event->Type == oltbEventGate) {
            gateOn += gate == 0 && event->Value == 1;
            gate = event->Value;
        } else if (event->Type == oltbEventLabel) {
            labelsInOrder += event->Value == (int32_t)(10 + labels);
            ++labels;
            if (event->Value == 10) {
                lineStartSeen = 1;
                CHECK(x > -300000 - 2 && x < -300000 + 2);
                CHECK(y > -250000 - 2 && y < -250000 + 2);
            }
        }
    }
    CHECK(outOfOrder == 0);
    CHECK(wrongTypes == 0);
    CHECK(labels == 8 && labelsInOrder == 8); /* 10..17 as ordinary elements; 1 and 2 are not part of it */
    CHECK(gateOn == 4);
    CHECK(lineStartSeen);
    CHECK(events[0].Time >= -1.0 && events[0].Time < 10.0);
    CHECK(events[count - 1].Time > 540000.0 && events[count - 1].Time < 590000.0);
}

static void acquireJob(int handle) {
    uint32_t count = 0;
    uint32_t delivered = 0;
    oltbTraceEvent* events;
    REQUIRE_CALL(oltbAcquire(handle, 1, 2, &count));
    CHECK(count > 1000);
    if (count == 0) {
        return;
    }
    events = malloc(sizeof(oltbTraceEvent) * count);
    CHECK(events != NULL);
    if (events == NULL) {
        return;
    }
    /* In two portions; the second lands behind the first, and then the store is empty. */
    CHECK(oltbGetAcquiredElements(handle, events, 0, count / 2, &delivered) == 0 && delivered == count / 2);
    CHECK(oltbGetAcquiredElements(handle, events, 0, count, &delivered) == 0 && delivered == count);
    CHECK(oltbGetAcquiredElements(handle, events, 0, count, &delivered) == -1);
    CHECK(strcmp(lastErrorText(), "No acquired elements available!") == 0);
    CHECK(oltbToSignedPosition(events, count) == 0);
    checkAcquiredJob(events, count);
    free(events);
}

static int runJob(const char* address) {
    bool connected = false;
    const int handle = oltbConnect(address);
    if (handle <= 0) {
        fprintf(stderr, "oltbConnect(%s) failed: %s\n", address, lastErrorText());
        ++failures;
        return handle;
    }
    CHECK(oltbIsConnected(handle, &connected) == 0 && connected);
    CHECK(oltbSetReadTimeout(handle, 5000) == 0);
    selectSignals(handle);
    CHECK(oltbStart(handle) == 0);
    readEvents(handle);
    /* The reads went past label 1 of the current run; a cleared stream begins with a fresh run. */
    CHECK(oltbClear(handle) == 0);
    acquireJob(handle);
    CHECK(oltbDisconnect(handle) == 0);
    CHECK(oltbIsConnected(handle, &connected) == 0 && !connected);
    return handle;
}

/* Returns with the stream running; main then returns without disconnecting. */
static void leaveConnectionOpen(const char* address, int previousHandle) {
    oltbTraceEvent events[64];
    uint32_t n = 0;
    const int handle = oltbConnect(address);
    CHECK(handle == previousHandle + 1);
    REQUIRE_CALL(oltbStart(handle));
    CHECK(oltbRead(handle, events, 0, 64, &n) == 0 && n > 0);
}

int main(int argc, char** argv) {
    int handle;
    if (argc != 3) {
        fprintf(stderr, "usage: %s SIMULATOR ADDRESS\n", argv[0]);
        return 2;
    }
    if (!startSimulator(argv[1], argv[2])) {
        return 2;
    }
    handle = runJob(argv[2]);
    if (handle > 0) {
        leaveConnectionOpen(argv[2], handle);
    }
    if (failures != 0) {
        fprintf(stderr, "%d check(s) failed\n", failures);
    }
    return failures == 0 ? 0 : 1;
}
