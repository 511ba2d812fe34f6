// The TCP layer on its own: endpoints from socket addresses, and a send on a connection the peer has closed.
#include "client/kissnet.h"
#include "tests/client/ClientTestSupport.h"
#include "tests/support/FakeServer.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/un.h>

#include <cerrno>
#include <stdexcept>

namespace OLVEN::TALIX3::TraceBuffer::Testing {
namespace {

TEST(KissnetEndpoint, FromIpv4AndIpv6Addresses) {
    sockaddr_in ipv4{};
    ipv4.sin_family = AF_INET;
    ipv4.sin_port = htons(9495);
    ::inet_pton(AF_INET, "127.0.0.5", &ipv4.sin_addr);
    const kissnet::endpoint fromIpv4(reinterpret_cast<const sockaddr*>(&ipv4));
    EXPECT_EQ(fromIpv4.address, "127.0.0.5");
    EXPECT_EQ(fromIpv4.port, 9495);

    sockaddr_in6 ipv6{};
    ipv6.sin6_family = AF_INET6;
    ipv6.sin6_port = htons(1234);
    ::inet_pton(AF_INET6, "fe80::1:2", &ipv6.sin6_addr);
    const kissnet::endpoint fromIpv6(reinterpret_cast<const sockaddr*>(&ipv6));
    EXPECT_EQ(fromIpv6.address, "fe80::1:2");
    EXPECT_EQ(fromIpv6.port, 1234);

    sockaddr_un local{};
    local.sun_family = AF_UNIX;
    EXPECT_EQ(failureOf([&] { kissnet::endpoint(reinterpret_cast<const sockaddr*>(&local)); }),
              "Trying to construct an endpoint for a protocol familly that is neither AF_INET or AF_INET6");
}

// Without MSG_NOSIGNAL the second send into a reset connection would raise SIGPIPE and end this test program.
TEST(KissnetSocket, SendOnAConnectionThePeerClosedFailsWithoutSignal) {
    oltb::testing::FakeServer server("127.0.0.26");
    kissnet::tcp_socket socket(kissnet::endpoint("127.0.0.26", 9495));
    socket.connect(2000);
    ASSERT_TRUE(server.waitForClient(1s));
    server.closeClient();

    const std::byte bytes[19] = {};
    ssize_t sent = 0;
    for (int attempt = 0; attempt < 100 && sent >= 0; ++attempt) {
        sent = socket.send(bytes, sizeof(bytes));
        std::this_thread::sleep_for(5ms);
    }
    EXPECT_EQ(sent, -1);
    EXPECT_EQ(errno, EPIPE);
}

}  // namespace
}  // namespace OLVEN::TALIX3::TraceBuffer::Testing
