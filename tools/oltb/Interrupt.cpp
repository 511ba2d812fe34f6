#include "tools/oltb/Interrupt.h"

#include <pthread.h>

#include <csignal>

namespace oltb::cli {

namespace {

volatile std::sig_atomic_t interrupted = 0;

extern "C" void onInterrupt(int) {
    interrupted = 1;
}

sigset_t interruptSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    return signals;
}

}  // namespace

void installInterruptHandler() {
    struct sigaction action {};
    action.sa_handler = onInterrupt;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESETHAND | SA_RESTART; // the second signal is not caught
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

bool interruptRequested() {
    return interrupted != 0;
}

void ignoreBrokenPipes() {
    std::signal(SIGPIPE, SIG_IGN);
}

InterruptsBlockedForNewThreads::InterruptsBlockedForNewThreads() {
    const sigset_t signals = interruptSignals();
    pthread_sigmask(SIG_BLOCK, &signals, &_previous);
}

InterruptsBlockedForNewThreads::~InterruptsBlockedForNewThreads() {
    pthread_sigmask(SIG_SETMASK, &_previous, nullptr);
}

}  // namespace oltb::cli
