// Handle numbering is process-wide, so it is checked in a process of its own: 1, 2, then 3 after a disconnect,
// and a failed connect uses up no number.
#include "api/oltb.h"
#include "tests/support/FakeServer.h"

#include <gtest/gtest.h>

namespace {

TEST(HandleNumbering, HandlesCountUpAndAreNeverReused) {
    // The fake server serves one client at a time: two open connections need two servers.
    oltb::testing::FakeServer server("127.0.0.70");
    oltb::testing::FakeServer otherServer("127.0.0.78");
    const int first = oltbConnect("127.0.0.70");
    const int second = oltbConnect("127.0.0.78");
    EXPECT_EQ(first, 1);
    EXPECT_EQ(second, 2);
    EXPECT_EQ(oltbDisconnect(first), 0);
    EXPECT_EQ(oltbDisconnect(first), 0) << "a second disconnect does nothing";
    EXPECT_EQ(oltbGetLastErrorLen(), 0);

    EXPECT_EQ(oltbConnect("127.0.0.71"), -1) << "nothing listens there";
    EXPECT_EQ(oltbConnect("127.0.0.70"), 3) << "the failed connect used up no number";

    bool connected = false;
    EXPECT_EQ(oltbIsConnected(first, &connected), 0);
    EXPECT_FALSE(connected);
    EXPECT_EQ(oltbStart(first), -1);
    EXPECT_EQ(oltbDisconnect(second), 0);
    EXPECT_EQ(oltbDisconnect(3), 0);
}

}  // namespace
