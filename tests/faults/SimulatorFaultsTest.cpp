// oltb-sim's fault modes against the library: commands carried out but never answered, answers that are empty,
// short or end in a wrong trailer, a connection closed while a command waits, lost words marked by the overflow
// flag, a full-speed stream across clears and stops, and signals of the host application. Each scenario has its own
// simulator and address.
#include "tests/support/ChildProcess.h"
#include "tests/support/TestSupport.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

namespace {

using namespace oltb::testing;

void expectConnectFails(const std::vector<std::string>& options, const char* address, const std::string& cause) {
    Simulator simulator(address, options);
    ASSERT_TRUE(simulator.ready()) << simulator.standardError();
    const auto start = Clock::now();
    EXPECT_EQ(oltbConnect(address), -1);
    EXPECT_EQ(takeLastError(), connectFailure(address, cause));
    EXPECT_LT(secondsSince(start), 6.0);
}

// A command that fails with `failure` (empty: succeeds) leaves a server that still answers. An answer that never comes
// cannot be told from a late one: the client waits for it, so the next command, whose answer is taken for the missing
// one, fails as well, and a new connection serves.
void expectCommandThenConnectionServes(const std::vector<std::string>& options, const char* address,
                                       const std::function<int(int)>& command, const std::string& failure) {
    Simulator simulator(address, options);
    ASSERT_TRUE(simulator.ready()) << simulator.standardError();
    int handle = oltbConnect(address);
    ASSERT_GT(handle, 0) << takeLastError();
    EXPECT_EQ(command(handle), failure.empty() ? 0 : -1);
    EXPECT_EQ(takeLastError(), failure);
    if (!failure.empty()) {
        EXPECT_EQ(oltbStop(handle), -1);
        EXPECT_EQ(takeLastError(), CommandTimeout);
        EXPECT_EQ(oltbDisconnect(handle), 0);
        handle = oltbConnect(address);
        ASSERT_GT(handle, 0) << takeLastError();
    }
    oltbTraceBufferConfig_Struct config;
    EXPECT_EQ(oltbStop(handle), 0) << takeLastError();
    EXPECT_EQ(oltbGetConfig(handle, &config), 0) << takeLastError();
    EXPECT_EQ(config.Spi3Rx, options[1] == "setconfig") << "an unanswered SetConfig is still carried out";
    EXPECT_EQ(oltbDisconnect(handle), 0);
}

int setSpi3Rx(int handle) {
    oltbTraceBufferConfig_Struct config;
    oltbInitConfig(&config);
    config.Spi3Rx = true;
    return oltbSetConfig(handle, &config);
}

void closedWhileSetConfigWaits() {
    // 2000 words at 2000 words per second: the connection closes about 1 s into the 3 s wait.
    Simulator simulator("127.0.3.68", {"--counter", "--counter-rate", "2000", "--close-after-words", "2000",
                                       "--ignore-command", "setconfig"});
    ASSERT_TRUE(simulator.ready()) << simulator.standardError();
    const int handle = oltbConnect("127.0.3.68");
    ASSERT_GT(handle, 0) << takeLastError();
    ASSERT_EQ(oltbStart(handle), 0) << takeLastError();
    EXPECT_EQ(setSpi3Rx(handle), -1);
    EXPECT_EQ(takeLastError(), CommandTimeout);
    EXPECT_TRUE(waitForConnectionLost(handle, 2s));
    EXPECT_EQ(oltbStop(handle), -1);
    EXPECT_EQ(takeLastError(), NotEstablished);
    EXPECT_EQ(oltbDisconnect(handle), 0);
}

TEST(SimulatorFaultModes, EachFaultEndsInItsOwnTextAndNeverTakesTheProcessDown) {
    runSideBySide({
        {"Stop never answered",
         [] {
             expectConnectFails({"--ignore-command", "stop"}, "127.0.3.60", CommandTimeout);
         }},
        {"GetConfig never answered",
         [] {
             expectConnectFails({"--ignore-command", "getconfig"}, "127.0.3.61", CommandTimeout);
         }},
        {"GetConfig answered empty",
         [] {
             expectConnectFails({"--malformed-response", "getconfig", "--malformed-kind", "empty"}, "127.0.3.62",
                                "Expected a response message but received nothing!");
         }},
        {"GetConfig answered short",
         [] {
             expectConnectFails({"--malformed-response", "getconfig"}, "127.0.3.59", "Illegal message length");
         }},
        {"GetConfig answered with a wrong trailer",
         [] {
             expectConnectFails({"--malformed-response", "0x82", "--malformed-kind", "trailer"}, "127.0.3.63",
                                CommandTimeout);
         }},
        {"Stop answered with a wrong trailer",
         [] {
             expectConnectFails({"--malformed-response", "16", "--malformed-kind", "trailer"}, "127.0.3.64",
                                CommandTimeout);
         }},
        {"Stop answered short (it wants no payload)",
         [] {
             expectCommandThenConnectionServes(
                 {"--malformed-response", "stop", "--malformed-kind", "short"}, "127.0.3.65",
                 [](int h) { return oltbStop(h); }, "");
         }},
        {"SetConfig never answered",
         [] {
             expectCommandThenConnectionServes({"--ignore-command", "setconfig"}, "127.0.3.66", setSpi3Rx,
                                               CommandTimeout);
         }},
        {"SetConfig answered with a wrong trailer while streaming",
         [] {
             expectCommandThenConnectionServes(
                 {"--malformed-response", "setconfig", "--malformed-kind", "trailer", "--counter"}, "127.0.3.67",
                 setSpi3Rx, CommandTimeout);
         }},
        {"closed while SetConfig waits", closedWhileSetConfigWaits},
    });
}

TEST(SimulatorFaultModes, OverflowFlagMarksTheFirstValueAfterTheLostOnesAndAnOccupiedAddressExitsWithTwo) {
    Simulator simulator("127.0.3.54", {"--counter", "--max-rate", "--overflow-every", "1000", "--overflow-lost", "10"});
    ASSERT_TRUE(simulator.ready()) << simulator.standardError();
    const int handle = oltbConnect("127.0.3.54");
    ASSERT_GT(handle, 0) << takeLastError();
    ASSERT_EQ(oltbSetReadTimeout(handle, 5000), 0);
    ASSERT_EQ(oltbStart(handle), 0);
    const std::vector<oltbTraceEvent> events = readEvents(handle, 5000);
    ASSERT_EQ(events.size(), 5000U);
    for (std::uint32_t i = 0; i < events.size(); ++i) {
        ASSERT_EQ(events[i].Value, static_cast<std::int32_t>(i + 10 * (i / 1000))) << "event " << i;
        ASSERT_EQ(events[i].Overflow, i > 0 && i % 1000 == 0) << "event " << i;
    }
    EXPECT_EQ(oltbDisconnect(handle), 0);

    ChildProcess second(OLTB_SIM_PATH, {"--address", "127.0.3.54"});
    EXPECT_EQ(second.waitForExit(5s), 2);
    EXPECT_EQ(second.standardError(), "oltb-sim: cannot listen on 127.0.3.54:9495: Address already in use\n");
    simulator.sendSignal(SIGTERM);
    EXPECT_EQ(simulator.waitForExit(5s), 0);
}

// Reads counting values with reads that take only what has arrived, until `wanted` have come or nothing more has
// for `quiet`; they must count on from `first` without a gap.
std::size_t expectCountingFrom(int handle, std::uint32_t first, std::size_t wanted, std::chrono::milliseconds quiet,
                               std::uint64_t* latestStamp = nullptr) {
    std::vector<oltbTraceEvent> buffer(8192);
    std::size_t received = 0;
    for (auto lastArrival = Clock::now(); received < wanted && Clock::now() - lastArrival <= quiet;) {
        std::uint32_t count = 0;
        EXPECT_EQ(oltbTryRead(handle, buffer.data(), 0, static_cast<std::uint32_t>(buffer.size()), &count), 0);
        if (count > 0) lastArrival = Clock::now();
        for (std::uint32_t i = 0; i < count; ++i, ++received) {
            if (static_cast<std::uint32_t>(buffer[i].Value) != first + received) {
                ADD_FAILURE() << "value " << received << " is " << buffer[i].Value;
                return received;
            }
            if (latestStamp != nullptr) {
                if (buffer[i].Timestamp < *latestStamp) {
                    ADD_FAILURE() << "value " << received << " is stamped before the one read last";
                    return received;
                }
                *latestStamp = buffer[i].Timestamp;
            }
        }
        if (count == 0) std::this_thread::sleep_for(1ms);
    }
    return received;
}

// Every Start restarts the simulator's count at 0 and discards what was received before; a Stop keeps what arrived
// before its answer, which comes behind the last word. A client that goes while the simulator streams costs it
// nothing.
TEST(SimulatorAtFullSpeed, ClearAndStopNeverLetAStaleOrMissingWordThrough) {
    Simulator simulator("127.0.3.69", {"--counter", "--max-rate"});
    ASSERT_TRUE(simulator.ready()) << simulator.standardError();
    const int handle = oltbConnect("127.0.3.69");
    ASSERT_GT(handle, 0) << takeLastError();
    ASSERT_EQ(oltbSetReadTimeout(handle, 0), 0);
    ASSERT_EQ(oltbStart(handle), 0) << takeLastError();
    std::uint64_t latestStamp = 0;  // the card's clock runs on across every Stop and Start
    for (int round = 0; round < 8; ++round) {
        SCOPED_TRACE(round);
        const std::size_t counted = expectCountingFrom(handle, 0, 50000, 2s, &latestStamp);
        ASSERT_GE(counted, 50000U);
        if (round % 2 == 0) {
            ASSERT_EQ(oltbClear(handle), 0) << takeLastError();
            continue;
        }
        ASSERT_EQ(oltbStop(handle), 0) << takeLastError();
        expectCountingFrom(handle, static_cast<std::uint32_t>(counted), SIZE_MAX, 0ms, &latestStamp);
        ASSERT_EQ(oltbStart(handle), 0) << takeLastError();
    }
    EXPECT_EQ(oltbDisconnect(handle), 0);
    // The client vanished while the simulator streamed at full speed: the simulator serves the next one.
    const int next = oltbConnect("127.0.3.69");
    ASSERT_GT(next, 0) << takeLastError();
    oltbTraceBufferConfig_Struct config;
    EXPECT_EQ(oltbGetConfig(next, &config), 0) << takeLastError();
    EXPECT_EQ(oltbDisconnect(next), 0);
}

// Start, Stop and Clear from two threads at once: the started flag, the decoder's reset and the command change
// together, so the client never believes tracing stopped while the server streams, and the stream that follows
// the last Start counts from 0 without a misaligned word (the thread sanitizer build checks the reset as well).
TEST(SimulatorAtFullSpeed, CommandsOfTwoThreadsKeepTheStreamAligned) {
    Simulator simulator("127.0.3.70", {"--counter", "--max-rate"});
    ASSERT_TRUE(simulator.ready()) << simulator.standardError();
    const int handle = oltbConnect("127.0.3.70");
    ASSERT_GT(handle, 0) << takeLastError();
    ASSERT_EQ(oltbSetReadTimeout(handle, 0), 0);
    for (int round = 0; round < 40; ++round) {
        std::thread other([handle, round] { EXPECT_EQ(round % 2 == 0 ? oltbStop(handle) : oltbClear(handle), 0); });
        EXPECT_EQ(oltbStart(handle), 0);
        other.join();
        EXPECT_EQ(oltbStart(handle), 0);
        ASSERT_GE(expectCountingFrom(handle, 0, 2000, 2s), 2000U) << "round " << round;
        EXPECT_EQ(oltbStop(handle), 0);
    }
    EXPECT_EQ(oltbDisconnect(handle), 0);
}

// A host application's signal handler installed without SA_RESTART interrupts the reader thread's receives: the
// connection takes no notice and no word is lost.
TEST(SimulatorAtFullSpeed, SignalsOfTheHostApplicationCostNoWord) {
    struct sigaction handler {};
    handler.sa_handler = [](int) {};
    sigemptyset(&handler.sa_mask);
    struct sigaction previous {};
    ASSERT_EQ(sigaction(SIGUSR1, &handler, &previous), 0);
    Simulator simulator("127.0.3.71", {"--counter", "--counter-rate", "20000"});
    ASSERT_TRUE(simulator.ready()) << simulator.standardError();
    const int handle = oltbConnect("127.0.3.71");  // its reader thread takes SIGUSR1; this thread no longer does
    ASSERT_GT(handle, 0) << takeLastError();
    sigset_t usr1;
    sigemptyset(&usr1);
    sigaddset(&usr1, SIGUSR1);
    ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &usr1, nullptr), 0);
    ASSERT_EQ(oltbStart(handle), 0) << takeLastError();
    std::thread signaller([] {
        for (int i = 0; i < 300; ++i, std::this_thread::sleep_for(2ms)) kill(getpid(), SIGUSR1);
    });
    EXPECT_GE(expectCountingFrom(handle, 0, 20000, 2s), 20000U);
    signaller.join();
    EXPECT_EQ(oltbDisconnect(handle), 0);
    pthread_sigmask(SIG_UNBLOCK, &usr1, nullptr);
    sigaction(SIGUSR1, &previous, nullptr);
}

}  // namespace
