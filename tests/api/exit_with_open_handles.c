/* Connects to every address given, starts tracing on the last connection and returns from main without
 * disconnecting: the library must end its connections by itself at process exit. */
#include "oltb.h"

#include <stdio.h>

int main(int argc, char** argv) {
    int handle = -1;
    for (int i = 1; i < argc; ++i) {
        handle = oltbConnect(argv[i]);
        if (handle < 0) {
            fprintf(stderr, "connect to %s failed\n", argv[i]);
            return 3;
        }
    }
    return handle > 0 && oltbStart(handle) == 0 ? 0 : 4;
}
