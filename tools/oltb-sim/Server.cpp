// Listening socket and the accept loop.
#include "tools/oltb-sim/Server.h"

#include "api/oltb.h"
#include "tools/oltb-sim/Session.h"
#include "tools/oltb-sim/ShutdownSignal.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

namespace oltb::sim {
namespace {

class FileDescriptor {
public:
    explicit FileDescriptor(int fd = -1) noexcept : _fd(fd) {}
    ~FileDescriptor() {
        if (_fd >= 0) {
            close(_fd);
        }
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    int get() const noexcept { return _fd; }

private:
    int _fd;
};

// Binds and listens; on failure returns -1 and leaves the reason in `reason`.
int openListener(const std::string& address, std::string& reason) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE;
    addrinfo* found = nullptr;
    const int resolved = getaddrinfo(address.c_str(), ServerPort, &hints, &found);
    if (resolved != 0) {
        reason = gai_strerror(resolved);
        return -1;
    }
    std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> results(found, freeaddrinfo);
    reason = "no usable address";
    for (const addrinfo* candidate = found; candidate != nullptr; candidate = candidate->ai_next) {
        const int fd = socket(candidate->ai_family, candidate->ai_socktype | SOCK_CLOEXEC, candidate->ai_protocol);
        if (fd < 0) {
            reason = std::strerror(errno);
            continue;
        }
        // A restarted simulator must be able to take the port back while old connections linger in TIME_WAIT.
        const int enable = 1;
        setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &enable, sizeof enable);
        if (bind(fd, candidate->ai_addr, candidate->ai_addrlen) == 0 && listen(fd, 8) == 0) {
            return fd;
        }
        reason = std::strerror(errno);
        close(fd);
    }
    return -1;
}

std::string describePeer(const sockaddr_storage& peer) {
    char host[INET6_ADDRSTRLEN] = "?";
    unsigned port = 0;
    if (peer.ss_family == AF_INET) {
        const auto& in = reinterpret_cast<const sockaddr_in&>(peer);
        inet_ntop(AF_INET, &in.sin_addr, host, sizeof host);
        port = ntohs(in.sin_port);
    } else if (peer.ss_family == AF_INET6) {
        const auto& in6 = reinterpret_cast<const sockaddr_in6&>(peer);
        inet_ntop(AF_INET6, &in6.sin6_addr, host, sizeof host);
        port = ntohs(in6.sin6_port);
    }
    return std::string(host) + ":" + std::to_string(port);
}

const char* describeEnd(const SessionEnd end) {
    switch (end) {
        case SessionEnd::clientClosed:
            return "disconnected";
        case SessionEnd::connectionLost:
            return "lost";
        case SessionEnd::closedAfterWords:
            return "closed after the configured number of words";
        case SessionEnd::shutdown:
            return "closed for shutdown";
    }
    return "ended";
}

}  // namespace

int runServer(const ServerSettings& settings, TraceSource& source) {
    ShutdownSignal::install();

    std::string reason;
    const FileDescriptor listener(openListener(settings.address, reason));
    if (listener.get() < 0) {
        std::fprintf(stderr, "oltb-sim: cannot listen on %s:%s: %s\n", settings.address.c_str(), ServerPort,
                     reason.c_str());
        return exitCannotListen;
    }
    std::printf("oltb-sim listening on %s:%s\n", settings.address.c_str(), ServerPort);
    std::fflush(stdout);

    ServerState state;
    state.clockTick = settings.clockStartTick;
    for (const std::uint32_t type : {oltbEventHead0TxX, oltbEventHead0TxY, oltbEventHead0RxX, oltbEventHead0RxY,
                                     oltbEventGate, oltbEventLaserPower16, oltbEventPortA, oltbEventLabel}) {
        state.selection.setTraced(type, true);
    }

    while (!ShutdownSignal::requested()) {
        pollfd descriptor{listener.get(), POLLIN, 0};
        if (ppoll(&descriptor, 1, nullptr, ShutdownSignal::waitMask()) < 0) {
            if (errno == EINTR) {
                continue;
            }
            std::fprintf(stderr, "oltb-sim: waiting for clients failed: %s\n", std::strerror(errno));
            return exitFailure;
        }
        sockaddr_storage peer{};
        socklen_t peerSize = sizeof peer;
        const FileDescriptor client(
            accept4(listener.get(), reinterpret_cast<sockaddr*>(&peer), &peerSize, SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (client.get() < 0) {
            continue;  // the client gave up before it was accepted, or a transient shortage; keep serving
        }
        // Response frames are small and the client waits for them: send them without delay.
        const int enable = 1;
        setsockopt(client.get(), IPPROTO_TCP, TCP_NODELAY, &enable, sizeof enable);
        const std::string peerName = describePeer(peer);
        if (settings.verbose) {
            std::fprintf(stderr, "oltb-sim: client %s connected\n", peerName.c_str());
        }
        Session session(client.get(), settings, state, source);
        const SessionEnd end = session.run();
        if (settings.verbose || end == SessionEnd::closedAfterWords) {
            std::fprintf(stderr, "oltb-sim: client %s %s\n", peerName.c_str(), describeEnd(end));
        }
    }
    return exitSuccess;
}

}  // namespace oltb::sim
