/* The C interface end to end against the simulator, as a C99 application uses it; built for 64-bit and for
 * 32-bit x86, where the records have another layout (28-byte events). Usage: api_c_simulator_test ADDRESS, with
 * oltb-sim serving there (with_simulator.sh). It selects head 0's positions, the gate and the labels, reads events,
 * acquires one run of the simulated marking job between labels 1 and 2, converts the positions and compares them
 * with the job, and checks the numbering of handles. Last it connects again, starts tracing and returns from main
 * with that connection open: the library ends it by itself at process exit. Exit code 0 means success. */
#include "c_check.h"
#include "oltb.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* For calls the rest of a step depends on: reports the library's error text as well. */
#define REQUIRE_CALL(call)                                                                         \
    do {                                                                                           \
        if ((call) != 0) {                                                                         \
            fprintf(stderr, "%s:%d: %s failed: %s\n", __FILE__, __LINE__, #call, lastErrorText()); \
            ++failures;                                                                            \
            return;                                                                                \
        }                                                                                          \
    } while (0)

static const char* lastErrorText(void) {
    static char text[512];
    text[0] = '\0';
    oltbGetLastError(text, (int)sizeof(text));
    return text;
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
    CHECK(readBack.Version == 6 && memcmp(&readBack.PortA, &config.PortA, 63) == 0);
}

/* Reads at an offset into one array: events of the selected signals only, in time order, nothing before the offset
 * written. */
static void readEvents(int handle) {
    enum { Offset = 16, Count = 2000 };
    static oltbTraceEvent events[Offset + Count];
    uint32_t n = 0;
    uint32_t i;
    unsigned wrong = 0;
    memset(events, 0xA5, sizeof events);
    REQUIRE_CALL(oltbRead(handle, events, Offset, Count, &n));
    CHECK(n > 0 && n <= Count);
    for (i = 0; i < n; ++i) {
        const oltbTraceEvent* event = &events[Offset + i];
        wrong += !isSelectedType(event->Type) || (i > 0 && event->Timestamp < event[-1].Timestamp);
    }
    CHECK(wrong == 0);
    CHECK(((const unsigned char*)&events[Offset])[-1] == 0xA5);
}

/* One run of the job (see oltb-sim --help) between labels 1 and 2: in time order, the labels 10..17 of its four
 * shapes as ordinary elements, the gate on once per shape, the first shape (a line) starting at (-300000, -250000). */
static void checkAcquiredJob(const oltbTraceEvent* events, uint32_t count) {
    uint32_t i;
    unsigned wrong = 0, labels = 0, gateOn = 0;
    int32_t x = 0, y = 0, gate = 0;
    for (i = 0; i < count; ++i) {
        const oltbTraceEvent* event = &events[i];
        wrong += (i > 0 && event->Timestamp < event[-1].Timestamp) || !isSelectedType(event->Type);
        x = event->Type == oltbEventHead0TxX ? event->Value : x;
        y = event->Type == oltbEventHead0TxY ? event->Value : y;
        gateOn += event->Type == oltbEventGate && gate == 0 && event->Value == 1;
        gate = event->Type == oltbEventGate ? event->Value : gate;
        if (event->Type == oltbEventLabel) {
            wrong += event->Value != (int32_t)(10 + labels++) || (event->Value == 10 && (x != -300000 || y != -250000));
        }
    }
    CHECK(wrong == 0);
    CHECK(labels == 8 && gateOn == 4);
    CHECK(events[0].Time >= -1.0 && events[0].Time < 10.0);
    CHECK(events[count - 1].Time > 540000.0 && events[count - 1].Time < 590000.0);
}

static void acquireJob(int handle) {
    uint32_t count = 0;
    uint32_t delivered = 0;
    oltbTraceEvent* events;
    REQUIRE_CALL(oltbAcquire(handle, 1, 2, &count));
    CHECK(count > 1000);
    events = malloc(sizeof(oltbTraceEvent) * (count + 1));
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

int main(int argc, char** argv) {
    bool connected = false;
    int handle;
    oltbTraceEvent events[64];
    uint32_t n = 0;
    if (argc != 2) {
        fprintf(stderr, "usage: %s ADDRESS\n", argv[0]);
        return 2;
    }
    /* Handles count from 1 in a process; a failed connect uses up no number, a closed one is never issued again. */
    CHECK(oltbConnect("127.0.9.9") == -1);
    handle = oltbConnect(argv[1]);
    CHECK(handle == 1);
    if (handle > 0) {
        CHECK(oltbIsConnected(handle, &connected) == 0 && connected);
        CHECK(oltbSetReadTimeout(handle, 5000) == 0);
        selectSignals(handle);
        CHECK(oltbStart(handle) == 0);
        readEvents(handle);
        /* The read went past label 1 of the current run; a cleared stream begins with a fresh run. */
        CHECK(oltbClear(handle) == 0);
        acquireJob(handle);
        CHECK(oltbDisconnect(handle) == 0);
        CHECK(oltbIsConnected(handle, &connected) == 0 && !connected);
    }
    /* The library ends a connection still open when main returns. */
    CHECK(oltbConnect(argv[1]) == 2);
    CHECK(oltbStart(2) == 0);
    CHECK(oltbRead(2, events, 0, 64, &n) == 0 && n > 0);
    if (failures != 0) {
        fprintf(stderr, "%d check(s) failed\n", failures);
    }
    return failures == 0 ? 0 : 1;
}
