// TCP client layer: name resolution, a connect with a time limit per resolved address (non-blocking connect,
// a wait for writability, SO_ERROR), and blocking receive / send / shutdown / close on the connected descriptor.
#include "client/kissnet.h"

#include "client/ClientMessages.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <stdexcept>
#include <utility>

namespace kissnet {

namespace messages = OLVEN::TALIX3::TraceBuffer::ClientMessages;

namespace {

constexpr const char* ServerService = "9495";

// Sets O_NONBLOCK on entry and toggles it back on leaving; the descriptor is blocking after every attempt.
void switch_non_blocking(int fd, bool entering) {
    const int flags = ::fcntl(fd, F_GETFL, 0);
    const int new_flags = entering ? (flags | O_NONBLOCK) : (flags ^ O_NONBLOCK);
    if (::fcntl(fd, F_SETFL, new_flags) < 0) {
        throw std::runtime_error(messages::SetNonBlockFailed);
    }
}

// Sockets are created close-on-exec: a host application that starts other programs must not hand them the
// connection.
int open_socket(const addrinfo* entry) noexcept {
    return ::socket(entry->ai_family, entry->ai_socktype | SOCK_CLOEXEC, entry->ai_protocol);
}

// Waits until a non-blocking connect has finished or `timeout_ms` has passed. poll rather than select: select's
// descriptor sets cannot hold descriptor numbers of 1024 and above, which large host applications reach.
int wait_until_writable(int fd, long timeout_ms) noexcept {
    pollfd watched{fd, POLLOUT, 0};
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        const int ready = ::poll(&watched, 1, static_cast<int>(std::max<long long>(left.count(), 0)));
        if (ready == -1 && errno == EINTR) {
            continue;
        }
        return ready;
    }
}

}  // namespace

endpoint::endpoint(std::string address_text, std::uint16_t port_number)
    : address(std::move(address_text)), port(port_number) {}

endpoint::endpoint(const sockaddr* socket_address) {
    if (socket_address->sa_family == AF_INET) {
        const auto* ipv4 = reinterpret_cast<const sockaddr_in*>(socket_address);
        const char* text = ::inet_ntoa(ipv4->sin_addr);
        address = text != nullptr ? text : "";
        port = ntohs(ipv4->sin_port);
    } else if (socket_address->sa_family == AF_INET6) {
        const auto* ipv6 = reinterpret_cast<const sockaddr_in6*>(socket_address);
        char text[46] = {};
        if (::inet_ntop(AF_INET6, &ipv6->sin6_addr, text, sizeof(text)) != nullptr) {
            address = text;
        }
        port = ntohs(ipv6->sin6_port);
    } else {
        throw std::runtime_error(messages::EndpointFamilyNotSupported);
    }
    if (address.empty()) {
        throw std::runtime_error(messages::EndpointWithoutAddress);
    }
}

resolved_server resolve_server(const std::string& host) {
    addrinfo hints{};
    hints.ai_flags = 0;
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_protocol = IPPROTO_TCP;
    addrinfo* result = nullptr;
    if (::getaddrinfo(host.c_str(), ServerService, &hints, &result) != 0 || result == nullptr) {
        throw std::runtime_error(messages::UnableToGetAddress);
    }
    owned_address_list list(result);
    endpoint first(list->ai_addr);
    return resolved_server{std::move(list), std::move(first)};
}

template <protocol Protocol>
socket<Protocol>::socket(endpoint remote_endpoint) : remote(std::move(remote_endpoint)) {
    hints.ai_flags = AI_ADDRCONFIG;
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_protocol = IPPROTO_TCP;

    addrinfo* result = nullptr;
    const std::string service = std::to_string(remote.port);
    if (::getaddrinfo(remote.address.c_str(), service.c_str(), &hints, &result) != 0) {
        throw std::runtime_error(messages::GetaddrinfoFailed);
    }
    address_list.reset(result);

    for (addrinfo* entry = address_list.get(); entry != nullptr; entry = entry->ai_next) {
        const int fd = open_socket(entry);
        if (fd != -1) {
            descriptor = fd;
            current_entry = entry;
            return;
        }
    }
    throw std::runtime_error(messages::UnableToCreateSocket);
}

template <protocol Protocol>
socket<Protocol>::~socket() {
    close();
}

template <protocol Protocol>
void socket<Protocol>::connect(long timeout_ms) {
    addrinfo* const initial_entry = current_entry;
    bool connected = false;
    // A descriptor made by the constructor (or left by an earlier success) gets its attempt without a new one.
    if (descriptor.load() != -1) {
        connected = try_entry(current_entry, false, timeout_ms);
    }
    if (!connected) {
        for (addrinfo* entry = address_list.get(); entry != nullptr; entry = entry->ai_next) {
            if (entry == initial_entry) {
                continue;
            }
            if (try_entry(entry, true, timeout_ms)) {
                break;
            }
        }
    }
    if (descriptor.load() == -1) {
        throw std::runtime_error(messages::UnableToConnect);
    }
}

template <protocol Protocol>
bool socket<Protocol>::try_entry(addrinfo* entry, bool create_descriptor, long timeout_ms) {
    if (create_descriptor) {
        close();
        current_entry = nullptr;
        const int new_fd = open_socket(entry);
        if (new_fd == -1) {
            return false;
        }
        descriptor = new_fd;
    }
    current_entry = entry;
    const int fd = descriptor.load();

    switch_non_blocking(fd, true);
    int error = 0;
    if (::connect(fd, entry->ai_addr, entry->ai_addrlen) == -1) {
        error = errno;
        if (error == EAGAIN || error == EWOULDBLOCK || error == EINPROGRESS) {
            const int ready = wait_until_writable(fd, timeout_ms);
            if (ready == -1) {
                error = errno;
            } else if (ready == 0) {
                error = ETIMEDOUT;
            } else {
                socklen_t length = sizeof(error);
                if (::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0) {
                    throw std::runtime_error(messages::GetSocketErrorFailed);
                }
            }
        }
    }
    switch_non_blocking(fd, false);

    if (error == 0) {
        return true;
    }
    close();
    current_entry = nullptr;
    return false;
}

template <protocol Protocol>
recv_result socket<Protocol>::receive_into(std::byte* destination, std::size_t capacity) noexcept {
    ssize_t received = -1;
    do {
        // A signal caught by the host application interrupts the receive; it is no reason to end the connection.
        received = ::recv(descriptor.load(), destination, capacity, 0);
    } while (received == -1 && errno == EINTR);
    if (received > 0) {
        return {recv_status::received, static_cast<std::size_t>(received)};
    }
    if (received == 0) {
        return {recv_status::closed, 0};
    }
    if (errno == EAGAIN || errno == EWOULDBLOCK) {
        return {recv_status::wouldBlock, 0};
    }
    return {recv_status::failed, 0};
}

template <protocol Protocol>
ssize_t socket<Protocol>::send(const std::byte* bytes, std::size_t length) noexcept {
    return ::send(descriptor.load(), bytes, length, MSG_NOSIGNAL);
}

template <protocol Protocol>
void socket<Protocol>::shutdown() noexcept {
    const int fd = descriptor.load();
    if (fd != -1) {
        ::shutdown(fd, SHUT_RDWR);
    }
}

template <protocol Protocol>
void socket<Protocol>::close() noexcept {
    const int fd = descriptor.exchange(-1);
    if (fd != -1) {
        ::close(fd);
    }
}

template class socket<protocol::tcp>;

}  // namespace kissnet
