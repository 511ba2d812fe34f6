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

std::vector<oltbTraceEvent> TraceDecoder::Acquire(BlockSource& source, unsigned short startLabel,
                                                  unsigned short endLabel, int readTimeoutMs) {
    std::vector<oltbTraceEvent> batch(_AcquireBatchSize);
    std::vector<oltbTraceEvent> result;
    if (!source.isConnected()) throw std::runtime_error(EventMessages::NoConnection);

    bool started = false;
    double startTime = 0.0;
    double endTime = 0.0;
    unsigned firstOfPass = 0;
    for (;;) {
        unsigned batchCount = deliverPending(batch.data(), 0, _AcquireBatchSize);
        if (batchCount < _AcquireBatchSize && hasUndecodedBytes()) {
            batchCount += splitAndUnpack(batch.data(), batchCount, _AcquireBatchSize - batchCount);
        }
        if (batchCount < _AcquireBatchSize) {
            batchCount = fillFromSource(source, batch.data(), batchCount, _AcquireBatchSize - batchCount, batchCount,
                                        readTimeoutMs);
        }
        if (batchCount == 0) {
            if (readTimeoutMs != 0) throw std::runtime_error(EventMessages::NothingReceived);
            std::this_thread::sleep_for(SilentStreamPause);
        }

        bool endSeen = false;
        for (unsigned index = 0; index < batchCount; ++index) {
            oltbTraceEvent event = batch[index];
            // Start first: with equal numbers every such label (re)starts and none ends the acquisition.
            if (isLabel(event, startLabel)) {
                started = true;
                startTime = event.Time;
                continue;
            }
            if (isLabel(event, endLabel)) {
                if (!started) throw std::runtime_error(EventMessages::EndLabelBeforeStart);
                // Events stamped up to 1 us after the end label may still follow it in the stream.
                endTime = event.Time + _AcquireEndMarginUs;
                if (index + 1 == batchCount) {
                    reSort(result, firstOfPass);
                    return result;
                }
                endSeen = true;
                continue;
            }
            if (!started) continue;
            if (endSeen && event.Time > endTime) {
                reSort(result, firstOfPass);
                return result;
            }
            event.Time -= startTime;
            result.push_back(event);
        }
        reSort(result, firstOfPass);
        if (endSeen) return result;

        firstOfPass = static_cast<unsigned>(result.size());
        if (!source.isConnected()) throw std::runtime_error(EventMessages::NoConnection);
    }
}

}  // namespace OLVEN::TALIX3::TraceBuffer
