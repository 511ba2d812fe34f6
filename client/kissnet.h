// Thin TCP client layer under TraceBufferClient: resolves the server's host (always port 9495), connects with a
// time limit per resolved address, and offers the few blocking operations the client needs afterwards (receive,
// send, shutdown, close). No threads, no locks; the client decides which of its locks guard each call.
#pragma once

#include <netdb.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace kissnet {

enum class protocol { tcp = 0 };

// Where to connect: a numeric host address (as inet_ntoa / inet_ntop write it) and a port in host byte order.
struct endpoint {
    std::string address;
    std::uint16_t port = 0;

    endpoint() = default;
    endpoint(std::string address_text, std::uint16_t port_number);
    // From a resolved IPv4 or IPv6 socket address. Throws for any other family and for an empty address text.
    explicit endpoint(const sockaddr* socket_address);
};

struct address_list_deleter {
    void operator()(addrinfo* list) const noexcept { ::freeaddrinfo(list); }
};
// A getaddrinfo result, released with freeaddrinfo.
using owned_address_list = std::unique_ptr<addrinfo, address_list_deleter>;

// The resolution of the caller's host string with the fixed service "9495" (the string is never split at a
// colon) and the endpoint of its first entry. Throws "Unable to get address!" when the host does not resolve.
struct resolved_server {
    owned_address_list list;
    endpoint first;
};
resolved_server resolve_server(const std::string& host);

enum class recv_status {
    received,    // count > 0 bytes arrived
    closed,      // the peer closed the connection, or it was shut down locally
    wouldBlock,  // nothing available (EAGAIN / EWOULDBLOCK)
    failed       // any other error
};

struct recv_result {
    recv_status status;
    std::size_t count;
};

template <protocol Protocol>
class socket {
    static_assert(Protocol == protocol::tcp, "only TCP sockets exist");

public:
    // Resolves the endpoint again and creates (does not connect) a descriptor for the first entry that yields one.
    // Throws "getaddrinfo failed!" or "unable to create socket!".
    explicit socket(endpoint remote_endpoint);
    // close(), then the address list is freed.
    ~socket();
    socket(const socket&) = delete;
    socket& operator=(const socket&) = delete;

    // Connects, trying the resolved entries in order, each within `timeout_ms`. Afterwards the descriptor is
    // blocking again. Throws "unable to create connectable socket!" when no entry connects; the object then holds
    // no descriptor and a later connect() walks the whole list again.
    void connect(long timeout_ms);

    // One receive into buffer[offset, N).
    template <std::size_t N>
    recv_result recv(std::array<std::byte, N>& buffer, std::size_t offset = 0) {
        return receive_into(buffer.data() + offset, N - offset);
    }

    // One send of `length` bytes, no retry for a partial send. MSG_NOSIGNAL: a send on a connection the server has
    // closed fails with EPIPE instead of raising SIGPIPE, which would end the caller's process. Returns what the
    // system call returned.
    ssize_t send(const std::byte* bytes, std::size_t length) noexcept;

    // shutdown(SHUT_RDWR) of a valid descriptor; it stays open. Releases a recv blocked in another thread.
    void shutdown() noexcept;
    // Closes a valid descriptor; afterwards the descriptor is -1.
    void close() noexcept;

    // -1 when there is no socket. Atomic: other threads test it while the reader thread may close it.
    int get_descriptor() const noexcept { return descriptor.load(); }
    const endpoint& get_remote() const noexcept { return remote; }
    const addrinfo* get_current_entry() const noexcept { return current_entry; }

private:
    recv_result receive_into(std::byte* destination, std::size_t capacity) noexcept;
    // One connect attempt on `entry`; with `create_descriptor` the current descriptor is replaced by a new one.
    bool try_entry(addrinfo* entry, bool create_descriptor, long timeout_ms);

    std::atomic<int> descriptor{-1};
    endpoint remote;
    addrinfo hints{};
    owned_address_list address_list;
    addrinfo* current_entry = nullptr;  // the entry `descriptor` was created for; not owning
};

extern template class socket<protocol::tcp>;

using tcp_socket = socket<protocol::tcp>;

}  // namespace kissnet
