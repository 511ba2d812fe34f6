/*
 * oltb: client library for the trace buffer server of a laser scan controller card.
 *
 * The card records time-stamped events of its signals (digital ports, DACs, laser power lines, the commanded
 * (Tx) and actual (Rx) positions of two scan heads, SPI receivers, encoders, event changes and labels) and
 * streams them over TCP (port 9495) as packed 64-bit trace words. This header is the whole interface of the
 * library: nineteen functions with C linkage and two records. It compiles as C99 and as C++.
 *
 * Conventions
 *  - A connection is named by an int handle returned by oltbConnect. Handles are positive, issued in increasing
 *    order (1, 2, 3, ...) and never reused in a process; a negative handle is never valid.
 *  - Every function returns 0 on success and -1 on failure, except where its documentation says otherwise.
 *    Out-parameters are written only on success; a failing call leaves them untouched.
 *  - Every function first empties the calling thread's error store; a failing call stores a text there, which
 *    oltbGetLastErrorLen / oltbGetLastError hand out. Threads never see one another's errors.
 *  - Texts common to all functions that take a handle:
 *      "Illegal handle."        the handle is negative
 *      "Illegal handle!"        the handle was never issued or has been disconnected
 *      "There is no connection corresponding to this handle."   another thread disconnected it meanwhile
 *      "Unexpected error!"      a failure that is not a standard exception
 *  - Every function may be called from any thread. Calls on different handles are independent. On one handle,
 *    commands (start, stop, clear, configuration) may come from several threads at once; reading functions
 *    (oltbTryRead, oltbRead, oltbAcquire, oltbGetAcquiredElements) must not overlap each other nor oltbStart or
 *    oltbClear of the same handle (calls that do are safe, reads then run one after another, but which of them
 *    gets which events is not defined). oltbDisconnect may come from any thread at any time, also from several
 *    at once: calls of other threads on the handle end promptly with "No connection to trace buffer server
 *    established." (reading) or "Connection to trace buffer server not established!" (commands), and nothing
 *    is freed while they run.
 *  - Time: one tick is 1/64 us (15.625 ns).
 *  - The library installs no signal handlers. Sends on a connection the server has closed never raise SIGPIPE.
 */
#ifndef OLTB_H
#define OLTB_H

#include <stdbool.h>
#include <stdint.h>

#if defined(__GNUC__)
#define OLTB_API __attribute__((visibility("default")))
#else
#define OLTB_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ============================================================================================================
 * Records
 * ==========================================================================================================*/

/* Kind of a trace event: the base of its signal group (0, 32, 64, 96) plus the signal's number. Head position
 * types carry raw 20-bit two's-complement positions (see oltbToSignedPosition). The column on the right is the
 * width of one sample in bits; a trace word carries 32 / width samples. */
typedef enum oltbTraceEventType {
    oltbEventPortA = 0,                 /* 16 */
    oltbEventPortB = 1,                 /* 16 */
    oltbEventPortC = 2,                 /* 16 */
    oltbEventPortDLow = 3,              /* 16 */
    oltbEventPortDHigh = 4,             /*  8 */
    oltbEventPortELow = 5,              /* 16 */
    oltbEventPortEHigh = 6,             /*  8 */
    oltbEventPortLaserIn = 7,           /*  2 */
    oltbEventPortLaserIn0 = 8,          /*  1 */
    oltbEventPortLaserIn1 = 9,          /*  1 */
    oltbEventPortLaserOut = 10,         /*  4 */
    oltbEventPortLaserOut0 = 11,        /*  1 */
    oltbEventPortLaserOut1 = 12,        /*  1 */
    oltbEventPortLaserOut2 = 13,        /*  1 */
    oltbEventDac0 = 14,                 /* 16 */
    oltbEventDac1 = 15,                 /* 16 */
    oltbEventLaserPower16 = 16,         /* 16 */
    oltbEventLaserPower8 = 17,          /*  8 */
    oltbEventLaserPower4 = 18,          /*  4 */
    oltbEventLaserPower2 = 19,          /*  2 */
    oltbEventLaserPower1 = 20,          /*  1 */
    oltbEventFps = 21,                  /*  1 */
    oltbEventGate = 22,                 /*  1 */
    oltbEventLm = 23,                   /*  1 */
    oltbEventLaserTriggered = 24,       /*  1 */
    oltbEventStartMark = 25,            /*  1 */
    oltbEventAbortMark = 26,            /*  1 */
    oltbEventHead0TxX = 32,             /* 32 */
    oltbEventHead0TxY = 34,             /* 32 */
    oltbEventHead0TxZ = 36,             /* 32 */
    oltbEventHead0RxX = 40,             /* 32 */
    oltbEventHead0RxY = 42,             /* 32 */
    oltbEventHead0RxZ = 44,             /* 32 */
    oltbEventHead1TxX = 48,             /* 32 */
    oltbEventHead1TxY = 50,             /* 32 */
    oltbEventHead1TxZ = 52,             /* 32 */
    oltbEventHead1RxX = 56,             /* 32 */
    oltbEventHead1RxY = 58,             /* 32 */
    oltbEventHead1RxZ = 60,             /* 32 */
    oltbEventLaserPower0_16 = 64,       /* 16 */
    oltbEventLaserPower0_8 = 65,        /*  8 */
    oltbEventLaserPower0_4 = 66,        /*  4 */
    oltbEventLaserPower0_2 = 67,        /*  2 */
    oltbEventLaserPower0_1 = 68,        /*  1 */
    oltbEventLaserPower1_16 = 69,       /* 16 */
    oltbEventLaserPower1_8 = 70,        /*  8 */
    oltbEventLaserPower1_4 = 71,        /*  4 */
    oltbEventLaserPower1_2 = 72,        /*  2 */
    oltbEventLaserPower1_1 = 73,        /*  1 */
    oltbEventSpi0Rx = 96,               /* 32 */
    oltbEventSpi1Rx = 97,               /* 32 */
    oltbEventSpi2Rx = 98,               /* 32 */
    oltbEventSpi3Rx = 99,               /* 32 */
    oltbEventQuadrature0I = 100,        /*  1 */
    oltbEventQuadrature0A = 101,        /*  1 */
    oltbEventQuadrature0B = 102,        /*  1 */
    oltbEventQuadrature1I = 103,        /*  1 */
    oltbEventQuadrature1A = 104,        /*  1 */
    oltbEventQuadrature1B = 105,        /*  1 */
    oltbEventIOEventChange = 120,       /* 32 */
    oltbEventPositionEventChange = 121, /* 32 */
    oltbEventControlEventChange = 123,  /* 32 */
    oltbEventLabel = 126,               /* 16: only the upper half, the label number, is delivered */
    oltbEventTimeBase = 127             /* time-base word: never delivered as an event */
} oltbTraceEventType;

/* One decoded trace event. */
typedef struct oltbTraceEvent {
    uint64_t Timestamp;      /* absolute time in ticks (1/64 us) */
    double Time;             /* us since the connection's first event; after oltbAcquire: since the start label.
                                Negative for an event that lies before its reference. */
    oltbTraceEventType Type; /* signal of the event */
    bool Overflow;           /* the server's buffer overflowed before this event (first sample of a word only) */
    int32_t Value;           /* the sample; for head positions the raw 20-bit value */
} oltbTraceEvent;

/* Which signals the server traces: one flag per signal, true = traced. Fill with oltbInitConfig, set the flags
 * wanted, send with oltbSetConfig; oltbGetConfig reads the server's current choice. */
typedef struct oltbTraceBufferConfig_Struct {
    uint32_t Version; /* 6 after oltbInitConfig; as the server reports it after oltbGetConfig; not sent */
    /* digital ports, DACs, laser lines */
    bool PortA, PortB, PortC, PortDLow, PortDHigh, PortELow, PortEHigh;
    bool PortLaserIn, PortLaserIn0, PortLaserIn1;
    bool PortLaserOut, PortLaserOut0, PortLaserOut1, PortLaserOut2;
    bool Dac0, Dac1;
    bool LaserPower16, LaserPower8, LaserPower4, LaserPower2, LaserPower1;
    bool Fps, Gate, Lm, LaserTriggered, StartMark, AbortMark;
    /* scan heads: commanded (Tx) and actual (Rx) positions */
    bool Head0TxX, Head0TxY, Head0TxZ, Head0RxX, Head0RxY, Head0RxZ;
    bool Head1TxX, Head1TxY, Head1TxZ, Head1RxX, Head1RxY, Head1RxZ;
    /* laser power of laser 0 and laser 1 */
    bool LaserPower0_16, LaserPower0_8, LaserPower0_4, LaserPower0_2, LaserPower0_1;
    bool LaserPower1_16, LaserPower1_8, LaserPower1_4, LaserPower1_2, LaserPower1_1;
    /* SPI receivers, quadrature encoders, event changes, labels */
    bool Spi0Rx, Spi1Rx, Spi2Rx, Spi3Rx;
    bool Quadrature0I, Quadrature0A, Quadrature0B, Quadrature1I, Quadrature1A, Quadrature1B;
    bool IOEventChange, PositionEventChange, ControlEventChange, Label;
} oltbTraceBufferConfig_Struct;

/* ============================================================================================================
 * Error text
 * ==========================================================================================================*/

/**
 * Hands out the text of the last failure of the calling thread, once.
 * @param buffer     receives the text and a terminating zero (needs oltbGetLastErrorLen() - 1 bytes).
 * @param bufferSize size of buffer. <= 0 (or buffer null): nothing happens, the text stays stored. Too small: the
 *                   buffer receives "Error buffer too small" (if it holds at least 23 bytes) or an empty string,
 *                   and the text is lost.
 * Afterwards the store is empty: a second call yields the empty string. Never fails; never blocks.
 */
OLTB_API void oltbGetLastError(char* buffer, int bufferSize);

/**
 * @return 0 when the calling thread holds no error text, otherwise the text's length plus 2 (a buffer of that
 *         size always receives the whole text). Does not consume the text. Never fails; never blocks.
 */
OLTB_API int oltbGetLastErrorLen(void);

/* ============================================================================================================
 * Configuration records and positions (no handle, no connection)
 * ==========================================================================================================*/

/**
 * Initialises a configuration record: every flag false (no signal traced), Version 6.
 * @return 0; -1 with "Out parameter is a null pointer!" when config is null.
 */
OLTB_API int oltbInitConfig(oltbTraceBufferConfig_Struct* config);

/**
 * Converts a raw 20-bit two's-complement position to a signed number. Bits 20..31 are ignored; no channel
 * negation (see oltbToSignedPosition). Examples: 0x7FFFF -> 524287, 0x80000 -> -524288, 0xFFFFF -> -1.
 * @return the signed value. Never fails; clears the thread's error text.
 */
OLTB_API int32_t oltbToSignedPositionVal(uint32_t value);

/**
 * Converts the head position events of an array in place: Value becomes the 20-bit sign extension of its low
 * 20 bits, negated for the X channels (Head0TxX, Head0RxX, Head1TxX, Head1RxX). Other events are unchanged.
 * Convert an array only once: converting twice corrupts negative values.
 * @param events array of at least count records (may be null when count is 0).
 * @return 0; -1 with "Out parameter is a null pointer!" when events is null and count is not 0.
 */
OLTB_API int oltbToSignedPosition(oltbTraceEvent* events, uint32_t count);

/* ============================================================================================================
 * Connections
 * ==========================================================================================================*/

/**
 * Connects to the trace buffer server on host `address` (name or numeric address; the port is always 9495,
 * a ":port" suffix is not understood). Blocks: up to 3 attempts of 2 s per resolved address, 200 ms apart
 * ("Connection failed, retry" is printed on standard output between attempts), then a Stop command and a
 * configuration request, each answered within 3 s. Tracing is stopped on the server afterwards.
 * @return the new handle (1 or greater), or -1 with one of:
 *   "basic_string::_M_construct null not valid"  (address is null)
 *   "Could not connect to the tracebuffer server on address " + address + ". " + cause, the cause being one of
 *     "Unable to get address!", "unable to create connectable socket!", "unable to create socket!",
 *     "getaddrinfo failed!", "Could not receive a response from the trace buffer server within 3000ms",
 *     "Expected a response message but received nothing!", "Illegal message length",
 *     "Connection to trace buffer server not established!"
 *   "Maximum number of handles created. Disconnect has to be called to remove previous connections."
 */
OLTB_API int oltbConnect(const char* address);

/**
 * Ends a connection: shuts the socket down, discards buffered data, joins the connection's reader thread and
 * frees everything, including an acquired series not yet fetched. The handle is never issued again. Calls of
 * other threads still inside a function on this handle end promptly with their no-connection text; the memory
 * they use is freed when the last of them returns. Blocks only until the reader thread has ended (promptly).
 * Several threads may disconnect the same handle at once: each returns 0 once the connection has ended.
 * @return 0, also for a handle that is not registered; -1 with "Illegal handle." for a negative handle.
 */
OLTB_API int oltbDisconnect(int handle);

/**
 * Tells whether the connection is up. Turns false by itself when the server closes the connection; the handle
 * stays registered until oltbDisconnect.
 * @param isConnected receives the state; false for a negative or unknown handle (which is not an error).
 * @return 0; -1 with "Out parameter is a null pointer!".
 */
OLTB_API int oltbIsConnected(int handle, bool* isConnected);

/* ============================================================================================================
 * Read timeout
 * ==========================================================================================================*/

/**
 * @param timeoutMs receives the connection's read timeout in ms (10000 on a new connection).
 * @return 0; -1 with "Out parameter is a null pointer!" or a handle text.
 */
OLTB_API int oltbGetReadTimeout(int handle, int* timeoutMs);

/**
 * Sets how long oltbTryRead, oltbRead and oltbAcquire wait for data: > 0 that many ms, 0 never wait,
 * < 0 wait without limit. Stored unchanged; applies to reading calls that start afterwards.
 * @return 0; -1 with a handle text.
 */
OLTB_API int oltbSetReadTimeout(int handle, int timeoutMs);

/* ============================================================================================================
 * Commands. Each blocks until the server's response has arrived, at most 3 s after sending. Commands of one
 * handle issued from several threads are carried out one after another, and the started state changes together
 * with the command that changes it. The server answers commands in order and an answer does not name its
 * command, so the library counts them: each command gets its own answer, and the answer of a command that gave
 * up is dropped whenever it comes, never taken by another command nor decoded as trace data. An answer that never
 * comes cannot be told from a late one: every later command of the connection then times out (connect anew).
 * Failure texts: "Connection to trace buffer server not established!" (the connection is lost),
 * "Could not receive a response from the trace buffer server within 3000ms", and the handle texts.
 * ==========================================================================================================*/

/**
 * Starts tracing: discards everything received and not yet read, then sends Start; the trace begins behind its
 * answer. Does nothing when the connection is already started. @return 0 / -1.
 */
OLTB_API int oltbStart(int handle);

/** Stops tracing on the server (sent whether or not this connection started it). @return 0 / -1. */
OLTB_API int oltbStop(int handle);

/**
 * Restarts a running trace (Stop, then Start), discarding everything received and not yet read. Does nothing
 * when tracing is not started. @return 0 / -1.
 */
OLTB_API int oltbClear(int handle);

/**
 * Reads the server's current configuration into *config (all fields written).
 * @return 0; -1 with "Out parameter is a null pointer!", "Illegal message length",
 *         "Expected a response message but received nothing!" or a command text; *config is then untouched.
 */
OLTB_API int oltbGetConfig(int handle, oltbTraceBufferConfig_Struct* config);

/**
 * Sends the choice of traced signals to the server. config->Version is not sent (the payload always says 6).
 * @return 0; -1 with "Out parameter is a null pointer!" (config null) or a command text.
 */
OLTB_API int oltbSetConfig(int handle, const oltbTraceBufferConfig_Struct* config);

/* ============================================================================================================
 * Reading. Events are written in time order to buffer[offset], buffer[offset + 1], ... at most count of them.
 * Samples of a word that did not fit are kept and delivered first by the next reading call. Only data received
 * while tracing is started (oltbStart) is delivered. A lost connection or an oltbDisconnect ends a waiting call
 * at once, whatever its timeout (a negative one included).
 * Failure texts: "No connection to trace buffer server established." (the connection is lost),
 * "buffer may not be null", "Out parameter is a null pointer!", "TraceEventType N not supported!" (the word is
 * skipped; the next call continues after it), and the handle texts.
 * ==========================================================================================================*/

/**
 * Delivers events: first the samples kept from the previous call and the rest of the block in hand, then waits
 * for newly received data, up to the read timeout. That first wait is made even when kept events were already
 * delivered; a wait that ends without data returns what was delivered. Once data has arrived, the call takes
 * only what is already received and returns as soon as nothing more is there or the buffer is full. Blocks.
 * To collect what is left without waiting, set a read timeout of 0.
 * @param numberOfEvents receives the number of events written (0 when nothing arrived in time).
 * @return 0 / -1.
 */
OLTB_API int oltbTryRead(int handle, oltbTraceEvent* buffer, uint32_t offset, uint32_t count, uint32_t* numberOfEvents);

/**
 * As oltbTryRead, but nothing received within the read timeout is a failure (unless the timeout is 0):
 * "Nothing received from trace buffer server within the specified timeout". Blocks.
 */
OLTB_API int oltbRead(int handle, oltbTraceEvent* buffer, uint32_t offset, uint32_t count, uint32_t* numberOfEvents);

/**
 * Collects the events between the next label `startLabel` and the following label `endLabel` (plus those
 * within 1 us after the end label), with Time counted from the start label; the labels themselves are not
 * included. Tracing must be started and the Label signal configured. Blocks until the end label has arrived;
 * each wait for data is limited by the read timeout (with a timeout of 0 it polls, pausing briefly, until the
 * end label arrives or the connection is lost). The series is kept for oltbGetAcquiredElements, replacing any
 * earlier one.
 * @param numberOfElements receives the number of events collected.
 * @return 0; -1 with "Expected start label but got end label!",
 *         "Nothing received from trace buffer server within the specified timeout", a reading text, or a
 *         handle text. A failed acquisition leaves no series.
 */
OLTB_API int oltbAcquire(int handle, uint16_t startLabel, uint16_t endLabel, uint32_t* numberOfElements);

/**
 * Hands out the series of the last oltbAcquire, whole or in portions. Element i of the series goes to
 * buffer[offset + i], whatever portion it belongs to: pass the same buffer and offset for every portion and
 * give buffer room for offset plus the whole series. Never blocks.
 * @param count          the most elements to copy in this call (0 copies nothing).
 * @param numberOfElements receives the number of elements handed out so far, this call's included. When it
 *                       reaches the size of the series, the series is released.
 * @return 0; -1 with "No acquired elements available!" (nothing acquired, or all handed out),
 *         "Out parameter is a null pointer!", or a handle text.
 */
OLTB_API int oltbGetAcquiredElements(int handle, oltbTraceEvent* buffer, uint32_t offset, uint32_t count,
                                     uint32_t* numberOfElements);

#ifdef __cplusplus
}
#endif

#endif /* OLTB_H */
