// Thousands of connection lives must leave nothing behind: after a warm-up, the process's threads, open descriptors
// and resident memory (/proc/self) are the same before and after, within a small tolerance for the memory. Sixteen
// threads connect and disconnect side by side against fake servers on 127.0.4.21 to 127.0.4.36. Of every eight
// lives, two stream words that stay unread, one of those is ended by the server first, and one ends by the server
// and the client at the same moment.
#include "tests/stress/StressSupport.h"

#include <malloc.h>

#include <atomic>
#include <iostream>

namespace oltb::stress {
namespace {

using oltb::testing::FakeServer;

constexpr int kWorkers = 16;
constexpr int kWantedCycles = 4000;
constexpr long kResidentToleranceKb = 4 * 1024;
constexpr long kAllocatedToleranceBytes = 64 * 1024;

class CycleRun {
public:
    CycleRun() {
        for (int i = 0; i < kWorkers; ++i) {
            _addresses.push_back("127.0.4." + std::to_string(21 + i));
            _servers.push_back(std::make_unique<FakeServer>(_addresses.back()));
        }
    }

    // Runs up to `cycles` lives on all workers together, stopping early at `deadline`; returns the number run.
    int run(const int cycles, const Clock::time_point deadline) {
        std::atomic<int> started{0};
        std::atomic<int> finished{0};
        std::vector<std::thread> threads;
        for (int i = 0; i < kWorkers; ++i) {
            threads.emplace_back([&, i] {
                while (Clock::now() < deadline) {
                    const int cycle = started++;
                    if (cycle >= cycles) {
                        break;
                    }
                    if (!live(static_cast<std::size_t>(i), cycle)) {
                        break;
                    }
                    ++finished;
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        return finished;
    }

private:
    bool live(const std::size_t worker, const int cycle) {
        const std::string& address = _addresses[worker];
        const int handle = oltbConnect(address.c_str());
        if (handle <= 0) {
            ADD_FAILURE() << address << ": " << takeLastError();
            return false;
        }
        bool ok = true;
        if (cycle % 8 == 3 || cycle % 8 == 7) {
            ok = oltbStart(handle) == 0;
            EXPECT_TRUE(ok) << address << ": " << takeLastError();
            _servers[worker]->send(counterWords(0, 4096, 1, 1));
        }
        if (ok && cycle % 8 == 7) {
            _servers[worker]->closeClient();
            ok = waitForConnectionLost(handle, 5s);
            EXPECT_TRUE(ok) << address << ": the loss of the connection was not noticed";
        }
        // Every eighth life the server closes at the very moment the client disconnects.
        std::thread closer;
        if (cycle % 8 == 5) {
            closer = std::thread([this, worker] { _servers[worker]->closeClient(); });
        }
        const int disconnected = oltbDisconnect(handle);
        EXPECT_EQ(disconnected, 0) << address << ": " << takeLastError();
        if (closer.joinable()) {
            closer.join();
        }
        _servers[worker]->clearCommands(); // the server's record of commands would grow with every life
        return ok && disconnected == 0;
    }

    std::vector<std::string> _addresses;
    std::vector<std::unique_ptr<FakeServer>> _servers;
};

struct Figures : ProcessFigures {
    // Bytes the allocator has handed out and not got back: unlike the resident size, free of the allocator's
    // caches (thread stacks, arenas) and so exact to the byte.
    long allocatedBytes = -1;
};

// The figures once the fake servers have let go of the connections just ended: polled until the counts of threads
// and open descriptors have stayed the same for 200 ms (bounded to 3 s).
Figures settledFigures() {
    ProcessFigures figures = readProcessFigures();
    auto stableSince = Clock::now();
    const auto deadline = Clock::now() + 3s;
    while (Clock::now() - stableSince < 200ms && Clock::now() < deadline) {
        std::this_thread::sleep_for(20ms);
        const ProcessFigures now = readProcessFigures();
        if (now.openDescriptors != figures.openDescriptors || now.threads != figures.threads) {
            stableSince = Clock::now();
        }
        figures = now;
    }
    ::malloc_trim(0);
    Figures settled;
    static_cast<ProcessFigures&>(settled) = figures;
    settled.residentKb = readProcessFigures().residentKb;
    const struct mallinfo2 allocator = ::mallinfo2();
    settled.allocatedBytes = static_cast<long>(allocator.uordblks + allocator.hblkhd);
    return settled;
}

TEST(ConnectCycles, ThousandsOfLivesLeaveNoThreadDescriptorOrMemoryBehind) {
    CycleRun run;
    ASSERT_EQ(run.run(4 * kWorkers, Clock::now() + 20s), 4 * kWorkers) << "warm-up";
    const Figures before = settledFigures();

    const double seconds = stressSeconds(20.0);
    const auto start = Clock::now();
    const int cycles = run.run(kWantedCycles * std::max(1, static_cast<int>(seconds / 20.0)),
                               start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds)));
    const double elapsed = secondsSince(start);
    const Figures after = settledFigures();

    std::cout << cycles << " connect/disconnect cycles in " << elapsed << " s on " << kWorkers << " threads; threads "
              << before.threads << " -> " << after.threads << ", open descriptors " << before.openDescriptors
              << " -> " << after.openDescriptors << ", resident " << before.residentKb << " kB -> "
              << after.residentKb << " kB, allocated " << before.allocatedBytes << " -> " << after.allocatedBytes
              << " bytes\n";
    EXPECT_GE(cycles, 500) << "too few cycles to show growth";
    EXPECT_EQ(after.threads, before.threads);
    EXPECT_EQ(after.openDescriptors, before.openDescriptors);
    if (kResidentSizeIsMeaningful) {
        EXPECT_LE(after.residentKb - before.residentKb, kResidentToleranceKb);
        EXPECT_LE(after.allocatedBytes - before.allocatedBytes, kAllocatedToleranceBytes)
            << "a few bytes for every life add up here";
    }
}

} // namespace
} // namespace oltb::stress
