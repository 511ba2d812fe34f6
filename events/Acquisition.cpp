// Acquisition: collects the events between the next start label and the end label that follows it, with Time
// counted from the start label. Events are decoded in batches through the reading steps; labels themselves are
// not part of the result.
#include "events/EventMessages.h"
#include "events/TraceDecoder.h"

#include <chrono>
#include <cstdint>
#include <stdexcept>
#include <thread>

namespace OLVEN::TALIX3::TraceBuffer {

namespace {

// With no read timeout a silent stream is polled; the pause keeps that from spinning a core.
constexpr std::chrono::milliseconds SilentStreamPause{1};

bool isLabel(const oltbTraceEvent& event, unsigned short number) noexcept {
    return event.Type == oltbEventLabel && static_cast<std::uint16_t>(event.Value) == number;
}

}  // namespace

AcquiredEvents TraceDecoder::Acquire(BlockSource& source, unsigned short startLabel, unsigned short endLabel,
                                     int readTimeoutMs, AcquiredEvents storage) {
    if (!source.isConnected()) throw std::runtime_error(EventMessages::NoConnection);
    if (source.restartRequested()) clear();
    // Each batch is decoded straight behind the events kept so far and then compacted in place, so that every event
    // is written to memory once. Room for a series as long as the last one saves growing (and copying) it again.
    AcquiredEvents result = std::move(storage);
    result.clear();
    result.reserve(_acquiredEventsBefore + _AcquireBatchSize);

    bool started = false;
    double startTime = 0.0;
    double endTime = 0.0;
    std::size_t firstOfPass = 0;
    for (;;) {
        result.resize(firstOfPass + _AcquireBatchSize);
        oltbTraceEvent* const batch = result.data() + firstOfPass;
        unsigned batchCount = deliverPending(batch, 0, _AcquireBatchSize);
        if (batchCount < _AcquireBatchSize && hasUndecodedBytes()) {
            batchCount += splitAndUnpack(batch, batchCount, _AcquireBatchSize - batchCount);
        }
        if (batchCount < _AcquireBatchSize) {
            batchCount =
                fillFromSource(source, batch, batchCount, _AcquireBatchSize - batchCount, batchCount, readTimeoutMs);
        }
        if (batchCount == 0) {
            if (readTimeoutMs != 0) throw std::runtime_error(EventMessages::NothingReceived);
            std::this_thread::sleep_for(SilentStreamPause);
        }

        // Kept events move down over the dropped ones (labels, and whatever came before the start label).
        oltbTraceEvent* kept = batch;
        bool endSeen = false;
        for (oltbTraceEvent* event = batch; event != batch + batchCount; ++event) {
            if (__builtin_expect(event->Type == oltbEventLabel, 0)) {
                // Start first: with equal numbers every such label (re)starts and none ends the acquisition.
                if (isLabel(*event, startLabel)) {
                    started = true;
                    startTime = event->Time;
                    continue;
                }
                if (isLabel(*event, endLabel)) {
                    if (!started) throw std::runtime_error(EventMessages::EndLabelBeforeStart);
                    // Events stamped up to 1 us after the end label may still follow it in the stream.
                    endTime = event->Time + _AcquireEndMarginUs;
                    endSeen = true;
                    continue;
                }
            }
            if (!started) continue;
            if (endSeen && event->Time > endTime) break;
            if (kept != event) *kept = *event;
            kept->Time -= startTime;
            ++kept;
        }
        result.resize(static_cast<std::size_t>(kept - result.data()));
        reSort(result.data(), result.size(), static_cast<unsigned>(firstOfPass));
        if (endSeen) {
            _acquiredEventsBefore = result.size();
            return result;
        }

        firstOfPass = result.size();
        if (!source.isConnected()) throw std::runtime_error(EventMessages::NoConnection);
    }
}

}  // namespace OLVEN::TALIX3::TraceBuffer
