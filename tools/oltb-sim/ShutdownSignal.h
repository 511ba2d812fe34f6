// Clean shutdown on SIGINT and SIGTERM. The signals stay blocked except inside the server's waits (ppoll with
// waitMask()), so a signal can only interrupt a wait, never a half-written frame, and is never missed between the
// check of requested() and the wait.
#pragma once

#include <csignal>

namespace oltb::sim {

class ShutdownSignal {
public:
    static void install();
    static bool requested() noexcept;
    static const sigset_t* waitMask() noexcept;
};

}  // namespace oltb::sim
