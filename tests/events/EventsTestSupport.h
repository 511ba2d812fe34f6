// Test helpers of the decoding core: trace words, byte streams cut into blocks, and an in-memory block source that
// records the limit of every wait.
#pragma once

#include "events/BlockSource.h"
#include "events/TraceDecoder.h"

#include <algorithm>
#include <chrono>
#include <deque>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace oltb::testing {

using namespace OLVEN::TALIX3::TraceBuffer;

constexpr std::uint64_t Period = std::uint64_t{1} << 24;

inline std::uint64_t traceWord(oltbTraceEventType type, std::uint32_t stamp, std::uint32_t payload,
                               bool overflow = false) {
    return (std::uint64_t{payload} << 32) | (overflow ? 0x80000000U : 0U) | (std::uint64_t{type} << 24) |
           (stamp & 0xFFFFFFU);
}

inline std::uint64_t timeBaseWord(std::uint32_t payload) { return traceWord(oltbEventTimeBase, 0, payload); }

inline std::vector<std::byte> bytesOf(const std::vector<std::uint64_t>& words) {
    std::vector<std::byte> bytes;
    for (std::uint64_t word : words) {
        for (int i = 0; i < 8; ++i) bytes.push_back(static_cast<std::byte>(word >> (8 * i)));
    }
    return bytes;
}

// Cuts `bytes` into blocks of the given sizes; the last block takes the rest.
inline std::deque<std::vector<std::byte>> cutInto(const std::vector<std::byte>& bytes,
                                                  const std::vector<std::size_t>& sizes) {
    std::deque<std::vector<std::byte>> blocks;
    std::size_t position = 0;
    for (std::size_t size : sizes) {
        size = std::min(size, bytes.size() - position);
        blocks.emplace_back(bytes.begin() + position, bytes.begin() + position + size);
        position += size;
    }
    if (position < bytes.size()) blocks.emplace_back(bytes.begin() + position, bytes.end());
    return blocks;
}

// The text of what `action` throws, "no failure" when it returns.
inline std::string failureOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "no failure";
}

class FakeBlockSource : public BlockSource {
public:
    std::deque<std::vector<std::byte>> blocks;
    bool connected = true;
    std::vector<std::int64_t> waitsUs;  // the limit of every waitBlock call
    std::size_t recycledBlocks = 0;
    std::function<void(FakeBlockSource&)> beforeWait;  // lets a test deliver data or disconnect mid-call

    bool waitBlock(std::vector<std::byte>& block, std::int64_t timeoutUs) override {
        waitsUs.push_back(timeoutUs);
        if (beforeWait) beforeWait(*this);
        if (blocks.empty()) {
            if (timeoutUs < 0) throw std::logic_error("waited without limit on a source that stays empty");
            std::this_thread::sleep_for(std::chrono::microseconds(timeoutUs));
            return false;
        }
        block = std::move(blocks.front());
        blocks.pop_front();
        return true;
    }
    bool isConnected() const override { return connected; }
    void recycle(std::vector<std::byte>&& /*usedBlock*/) override { ++recycledBlocks; }
};

}  // namespace oltb::testing
