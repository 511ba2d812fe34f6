// A block source over blocks kept in memory, handing out a copy of each in turn, as the reader thread hands out
// copies of its receive buffer. Used-up blocks come back through recycle() and carry the next copy, so a pass
// allocates nothing once it runs.
#pragma once

#include "bench/BenchStreams.h"

#include "events/BlockSource.h"

#include <utility>
#include <vector>

namespace oltb::bench {

class MemoryBlockSource final : public OLVEN::TALIX3::TraceBuffer::BlockSource {
public:
    explicit MemoryBlockSource(const std::vector<Block>& blocks) : _blocks(blocks) {}

    // Starts the blocks over.
    void rewind() noexcept { _next = 0; }
    bool exhausted() const noexcept { return _next == _blocks.size(); }

    bool waitBlock(Block& block, std::int64_t /*timeoutUs*/) override {
        if (_next == _blocks.size()) return false;
        const Block& source = _blocks[_next++];
        if (!_spare.empty()) {
            block = std::move(_spare.back());
            _spare.pop_back();
        }
        block.assign(source.begin(), source.end());
        return true;
    }
    bool isConnected() const override { return true; }
    void recycle(Block&& usedBlock) override { _spare.push_back(std::move(usedBlock)); }

private:
    const std::vector<Block>& _blocks;
    std::size_t _next = 0;
    std::vector<Block> _spare;
};

}  // namespace oltb::bench
