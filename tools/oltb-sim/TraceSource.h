// What a trace stream generator offers the server: words in the order of their field ticks, produced up to a
// time horizon (the pacing) and in batches of bounded size (so commands are served between batches).
#pragma once

#include "tools/oltb-sim/SignalSelection.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace oltb::sim {

constexpr std::uint64_t NoHorizon = UINT64_MAX;

class TraceSource {
public:
    virtual ~TraceSource() = default;

    // Begins a new stream at card tick startTick (a multiple of 640), starting with a time-base word.
    virtual void start(std::uint64_t startTick, const SignalSelection& selection) = 0;
    // Changes the traced signals of the running stream, from the next word on.
    virtual void select(const SignalSelection& selection) = 0;
    // Appends the stream's next words whose field ticks lie below horizonTick. Stops once at least maxWords were
    // appended; the words of one instant are never split, so a few more than maxWords may come.
    virtual void generate(std::uint64_t horizonTick, std::size_t maxWords, std::vector<std::uint64_t>& out) = 0;
    // Field tick of the next word: all words before it have been generated.
    virtual std::uint64_t nextTick() const = 0;
    // True once the stream has nothing more to send until the next start (a replay served once).
    virtual bool exhausted() const { return false; }
};

}  // namespace oltb::sim
