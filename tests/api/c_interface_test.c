/* A C99 program against the shared library: the header compiles as strict C, the record layouts are the
 * documented ones (also in the 32-bit build), and the error text is handed out. Exit code 0 means success. */
#include "c_check.h"
#include "oltb.h"

#include <stddef.h>
#include <stdio.h>
#include <string.h>

static void checkLayouts(void) {
    /* Timestamp and Time are 8 bytes; on 32-bit x86 they are only 4-byte aligned inside records. */
    CHECK(offsetof(oltbTraceEvent, Timestamp) == 0);
    CHECK(offsetof(oltbTraceEvent, Time) == 8);
    CHECK(offsetof(oltbTraceEvent, Type) == 16);
    CHECK(offsetof(oltbTraceEvent, Overflow) == 20);
    CHECK(offsetof(oltbTraceEvent, Value) == 24);
    CHECK(sizeof(oltbTraceEvent) == (sizeof(void*) == 4 ? 28 : 32));
    CHECK(sizeof(oltbTraceEventType) == 4);
    CHECK(offsetof(oltbTraceBufferConfig_Struct, PortA) == 4);
    CHECK(offsetof(oltbTraceBufferConfig_Struct, AbortMark) == 30);
    CHECK(offsetof(oltbTraceBufferConfig_Struct, Head0TxX) == 31);
    CHECK(offsetof(oltbTraceBufferConfig_Struct, LaserPower0_16) == 43);
    CHECK(offsetof(oltbTraceBufferConfig_Struct, Spi0Rx) == 53);
    CHECK(offsetof(oltbTraceBufferConfig_Struct, Label) == 66);
    CHECK(sizeof(oltbTraceBufferConfig_Struct) == 68);
}

static void checkErrorText(void) {
    char text[64];
    CHECK(oltbGetLastErrorLen() == 0);
    CHECK(oltbStop(-7) == -1);
    CHECK(oltbGetLastErrorLen() == 17);
    oltbGetLastError(text, (int)sizeof(text));
    CHECK(strcmp(text, "Illegal handle.") == 0);
    CHECK(oltbGetLastErrorLen() == 0);
}

int main(void) {
    checkLayouts();
    checkErrorText();
    if (failures == 0) {
        printf("C interface: all checks passed\n");
    }
    return failures == 0 ? 0 : 1;
}
