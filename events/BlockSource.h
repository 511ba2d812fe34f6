// Where the reading operations take received blocks of trace bytes from. The connection's reader thread fills
// a queue on the other side; the decoding core only sees this interface, so it runs and is tested without
// sockets or threads.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace OLVEN::TALIX3::TraceBuffer {

class BlockSource {
public:
    virtual ~BlockSource() = default;

    // Moves the oldest received block into `block`. Waits at most `timeoutUs` microseconds for one:
    // a negative timeout waits without limit, 0 only takes a block that is already there.
    // Returns false when no block was taken.
    virtual bool waitBlock(std::vector<std::byte>& block, std::int64_t timeoutUs) = 0;

    // False once the connection is gone (its socket closed after a failure); reading then stops at once.
    virtual bool isConnected() const = 0;

    // Hands a used-up block back, so that its storage can carry a later receive instead of being freed.
    virtual void recycle(std::vector<std::byte>&& /*usedBlock*/) {}

    // True once after the trace was started anew: the reading side then discards what it still holds of the old
    // one (the current block, a carried word, pending samples, the time base) before it decodes more.
    virtual bool restartRequested() { return false; }
};

}  // namespace OLVEN::TALIX3::TraceBuffer
