// Fuzz target: any bytes a client sends to the simulator, through a session on one end of a socket pair whose
// other end sends them and goes. The session answers the frames among them and ends when the client has gone.
#include "fuzz/FuzzCheck.h"

#include "tools/oltb-sim/CounterStream.h"
#include "tools/oltb-sim/Session.h"

#include <sys/socket.h>
#include <unistd.h>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace oltb::sim;
    int ends[2];
    FUZZ_CHECK(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0);
    const int buffer = 1 << 20;
    ::setsockopt(ends[1], SOL_SOCKET, SO_SNDBUF, &buffer, sizeof buffer);
    FUZZ_CHECK(size == 0 || ::send(ends[1], data, size, MSG_NOSIGNAL) == static_cast<ssize_t>(size));
    ::close(ends[1]);
    ServerSettings settings;
    settings.maxRate = true;
    ServerState state;
    CounterStream counter(64);
    const SessionEnd end = Session(ends[0], settings, state, counter).run();
    FUZZ_CHECK(end == SessionEnd::clientClosed || end == SessionEnd::connectionLost);
    ::close(ends[0]);
    return 0;
}
