/* The C read path at full speed, for the Python package's benchmark to stand beside: connects to ADDRESS, starts
 * tracing and reads EVENTS events with oltbRead into one array of 65536, then prints the events per second.
 * Usage: read_rate ADDRESS EVENTS */
#include "oltb.h"

#include <stdio.h>
#include <stdlib.h>
#include <time.h>

static oltbTraceEvent buffer[65536];

int main(int argc, char** argv) {
    struct timespec begin, end;
    unsigned long long wanted, total = 0;
    int handle;
    if (argc != 3) {
        fprintf(stderr, "usage: %s ADDRESS EVENTS\n", argv[0]);
        return 2;
    }
    wanted = strtoull(argv[2], NULL, 10);
    handle = oltbConnect(argv[1]);
    if (handle < 0 || oltbStart(handle) != 0) {
        fprintf(stderr, "read_rate: cannot start tracing on %s\n", argv[1]);
        return 1;
    }
    clock_gettime(CLOCK_MONOTONIC, &begin);
    while (total < wanted) {
        uint32_t count = 0;
        if (oltbRead(handle, buffer, 0, 65536, &count) != 0) {
            fprintf(stderr, "read_rate: read failed\n");
            return 1;
        }
        total += count;
    }
    clock_gettime(CLOCK_MONOTONIC, &end);
    printf("%.6g\n",
           (double)total / ((double)(end.tv_sec - begin.tv_sec) + 1e-9 * (double)(end.tv_nsec - begin.tv_nsec)));
    oltbDisconnect(handle);
    return 0;
}
