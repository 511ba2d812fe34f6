// Exported functions that forward to one operation of a connection's client: commands, configuration, read
// timeout, reading and acquisition.
#include "api/CallFrame.h"
#include "api/oltb.h"
#include "client/TraceBufferClient.h"

#include <algorithm>
#include <cstring>

using namespace OLVEN::TALIX3::TraceBuffer;

extern "C" {

OLTB_API int oltbGetReadTimeout(int handle, int* timeoutMs) {
    return callWithConnection(
        handle, [&](TraceBufferConnection& entry) { *timeoutMs = entry._client->readTimeoutMs(); }, timeoutMs);
}

OLTB_API int oltbSetReadTimeout(int handle, int timeoutMs) {
    return callWithConnection(handle,
                              [&](TraceBufferConnection& entry) { entry._client->setReadTimeoutMs(timeoutMs); });
}

OLTB_API int oltbStart(int handle) {
    return callWithConnection(handle, [](TraceBufferConnection& entry) { entry._client->Start(); });
}

OLTB_API int oltbStop(int handle) {
    return callWithConnection(handle, [](TraceBufferConnection& entry) { entry._client->Stop(); });
}

OLTB_API int oltbClear(int handle) {
    return callWithConnection(handle, [](TraceBufferConnection& entry) { entry._client->Clear(); });
}

OLTB_API int oltbGetConfig(int handle, oltbTraceBufferConfig_Struct* config) {
    return callWithConnection(
        handle,
        [&](TraceBufferConnection& entry) {
            const oltbTraceBufferConfig_Struct received = entry._client->GetConfig();
            std::memcpy(config, &received, sizeof(received));
        },
        config);
}

OLTB_API int oltbSetConfig(int handle, const oltbTraceBufferConfig_Struct* config) {
    return callWithConnection(
        handle, [&](TraceBufferConnection& entry) { entry._client->SetConfig(*config); }, config);
}

OLTB_API int oltbTryRead(int handle, oltbTraceEvent* buffer, uint32_t offset, uint32_t count,
                         uint32_t* numberOfEvents) {
    return callWithConnection(
        handle, [&](TraceBufferConnection& entry) { *numberOfEvents = entry._client->TryRead(buffer, offset, count); },
        numberOfEvents);
}

OLTB_API int oltbRead(int handle, oltbTraceEvent* buffer, uint32_t offset, uint32_t count, uint32_t* numberOfEvents) {
    return callWithConnection(
        handle, [&](TraceBufferConnection& entry) { *numberOfEvents = entry._client->Read(buffer, offset, count); },
        numberOfEvents);
}

OLTB_API int oltbAcquire(int handle, uint16_t startLabel, uint16_t endLabel, uint32_t* numberOfElements) {
    return callWithConnection(
        handle,
        [&](TraceBufferConnection& entry) {
            AcquiredEvents storage;  // the last series' storage, emptied, carries the new one
            {
                const std::lock_guard<std::mutex> lock(entry._acquiredMutex);
                entry._acquiredElements.clear();
                entry._acquiredPosition = 0;
                storage.swap(entry._acquiredElements);
            }
            AcquiredEvents series = entry._client->Acquire(startLabel, endLabel, std::move(storage));
            const std::lock_guard<std::mutex> lock(entry._acquiredMutex);
            entry._acquiredElements = std::move(series);
            entry._acquiredPosition = 0;
            *numberOfElements = static_cast<uint32_t>(entry._acquiredElements.size());
        },
        numberOfElements);
}

OLTB_API int oltbGetAcquiredElements(int handle, oltbTraceEvent* buffer, uint32_t offset, uint32_t count,
                                     uint32_t* numberOfElements) {
    return callWithConnection(
        handle,
        [&](TraceBufferConnection& entry) {
            const std::lock_guard<std::mutex> lock(entry._acquiredMutex);
            const std::size_t size = entry._acquiredElements.size();
            if (size == 0 || entry._acquiredPosition == size) {
                throw std::runtime_error(ApiMessages::NoAcquiredElements);
            }
            const std::uint32_t first = entry._acquiredPosition;
            const std::uint32_t end = first + static_cast<std::uint32_t>(std::min<std::size_t>(size - first, count));
            if (end > first) {
                requireOutParameter(buffer);
                // Element i of the series always lands at buffer[offset + i], whichever portion carries it.
                std::copy(entry._acquiredElements.begin() + first, entry._acquiredElements.begin() + end,
                          buffer + offset + first);
            }
            entry._acquiredPosition = end;
            *numberOfElements = end;
            if (entry._acquiredPosition == size) {
                entry._acquiredElements.clear();
                entry._acquiredPosition = 0;
            }
        },
        numberOfElements);
}

}  // extern "C"
