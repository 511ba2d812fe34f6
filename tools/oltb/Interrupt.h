// Ctrl-C (SIGINT) and SIGTERM end a capture or an acquisition cleanly: the handler only sets a flag, which the
// command's loop checks; the loop then stops the trace, writes what it has and disconnects. A second signal
// takes its default action, so a user whose server no longer answers is never stuck.
#pragma once

#include <signal.h>

namespace oltb::cli {

void installInterruptHandler();

bool interruptRequested();

// Ignores SIGPIPE and SIGXFSZ, so that a closed pipe on standard output and a file past the size limit of the
// process (ulimit -f) are write failures the tool reports, not a kill.
void ignoreBrokenPipes();

// Blocks SIGINT and SIGTERM in the calling thread while it lives. Threads started meanwhile (the library's
// reader thread in oltbConnect, the tool's acquisition thread) inherit the block, so the signals reach only the
// main thread and never interrupt a receive in another one.
class InterruptsBlockedForNewThreads {
public:
    InterruptsBlockedForNewThreads();
    ~InterruptsBlockedForNewThreads();
    InterruptsBlockedForNewThreads(const InterruptsBlockedForNewThreads&) = delete;
    InterruptsBlockedForNewThreads& operator=(const InterruptsBlockedForNewThreads&) = delete;

private:
    sigset_t _previous;
};

}  // namespace oltb::cli
