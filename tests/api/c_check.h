/* The check macro of the C test programs: a failed condition is reported with its place and counted. */
#ifndef OLTB_C_CHECK_H
#define OLTB_C_CHECK_H

#include <stdio.h>

static int failures = 0;

#define CHECK(condition)                                                            \
    do {                                                                            \
        if (!(condition)) {                                                         \
            fprintf(stderr, "%s:%d: failed: %s\n", __FILE__, __LINE__, #condition); \
            ++failures;                                                             \
        }                                                                           \
    } while (0)

#endif
