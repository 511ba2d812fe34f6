#include "tools/oltb-sim/ShutdownSignal.h"

#include <cstring>
#include <stdexcept>

namespace oltb::sim {
namespace {

volatile std::sig_atomic_t g_shutdownRequested = 0;
sigset_t g_waitMask;

extern "C" void recordShutdownSignal(int) { g_shutdownRequested = 1; }

}  // namespace

void ShutdownSignal::install() {
    struct sigaction action;
    std::memset(&action, 0, sizeof action);
    action.sa_handler = recordShutdownSignal;
    sigemptyset(&action.sa_mask);
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGINT);
    sigaddset(&blocked, SIGTERM);
    if (sigprocmask(SIG_BLOCK, &blocked, &g_waitMask) != 0 || sigaction(SIGINT, &action, nullptr) != 0 ||
        sigaction(SIGTERM, &action, nullptr) != 0) {
        throw std::runtime_error("cannot install the signal handlers");
    }
    sigdelset(&g_waitMask, SIGINT);
    sigdelset(&g_waitMask, SIGTERM);
}

bool ShutdownSignal::requested() noexcept { return g_shutdownRequested != 0; }

const sigset_t* ShutdownSignal::waitMask() noexcept { return &g_waitMask; }

}  // namespace oltb::sim
