#include "tools/oltb/Interrupt.h"

#include <pthread.h>

#include <atomic>
#include <csignal>

namespace oltb::cli {

namespace {

// Read by the capture's reader thread as well as by the main thread, so an
// atomic rather than a volatile sig_atomic_t; lock-free, hence safe to set
// from the handler.
std::atomic<bool> interrupted{false};
static_assert(std::atomic<bool>::is_always_lock_free);

extern "C" void onInterrupt(int) { interrupted.store(true, std::memory_order_relaxed); }

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
    action.sa_flags = SA_RESETHAND | SA_RESTART;  // the second signal is not caught
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

bool interruptRequested() { return interrupted.load(std::memory_order_relaxed); }

void ignoreBrokenPipes() {
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
}

InterruptsBlockedForNewThreads::InterruptsBlockedForNewThreads() {
    const sigset_t signals = interruptSignals();
    pthread_sigmask(SIG_BLOCK, &signals, &_previous);
}

InterruptsBlockedForNewThreads::~InterruptsBlockedForNewThreads() { pthread_sigmask(SIG_SETMASK, &_previous, nullptr); }

}  // namespace oltb::cli
