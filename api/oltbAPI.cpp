// Exported functions of the error store, the connection handles and the position conversion.
#include "api/CallFrame.h"
#include "api/oltb.h"
#include "client/TraceBufferClient.h"
#include "events/TraceDecoder.h"

#include <cstring>
#include <memory>
#include <string>

using namespace OLVEN::TALIX3::TraceBuffer;

extern "C" {

OLTB_API void oltbGetLastError(char* buffer, int bufferSize) {
    // A null buffer has no room, whatever its size says.
    if (bufferSize <= 0 || buffer == nullptr) {
        return;
    }
    TraceBufferErrorHandler& errors = TraceBufferErrorHandler::getThreadLocalInstance();
    const std::uint32_t length = errors.length();
    if (static_cast<std::uint64_t>(length) + 1U <= static_cast<std::uint64_t>(bufferSize)) {
        if (length > 0) {
            std::memcpy(buffer, errors.text(), length);
        }
        buffer[length] = '\0';
    } else if (bufferSize > static_cast<int>(std::strlen(ApiMessages::ErrorBufferTooSmall))) {
        std::strncpy(buffer, ApiMessages::ErrorBufferTooSmall, static_cast<std::size_t>(bufferSize));
    } else {
        buffer[0] = '\0';
    }
    errors.ClearError();
}

OLTB_API int oltbGetLastErrorLen(void) {
    const auto length = static_cast<std::int32_t>(TraceBufferErrorHandler::getThreadLocalInstance().length());
    return length > 0 ? length + 2 : length;
}

OLTB_API int oltbInitConfig(oltbTraceBufferConfig_Struct* config) {
    return callFrame([&] {
        requireOutParameter(config);
        std::memset(config, 0, sizeof(*config));
        config->Version = 6;
        return 0;
    });
}

OLTB_API int32_t oltbToSignedPositionVal(uint32_t value) {
    TraceBufferErrorHandler::getThreadLocalInstance().ClearError();
    return TraceDecoder::toSignedPositionValue(value);
}

OLTB_API int oltbToSignedPosition(oltbTraceEvent* events, uint32_t count) {
    return callFrame([&] {
        if (count > 0) {
            requireOutParameter(events);
        }
        TraceBufferClient::ToSignedPosition(events, count);
        return 0;
    });
}

OLTB_API int oltbConnect(const char* address) {
    return callFrame([&] {
        Connections& connections = Connections::Instance();
        if (address == nullptr) {
            throw std::logic_error(ApiMessages::NullAddress);
        }
        auto client = std::make_unique<TraceBufferClient>(std::string(address));
        return connections.Add(std::move(client));
    });
}

OLTB_API int oltbDisconnect(int handle) {
    return callFrame([&] {
        Connections& connections = Connections::Instance();
        if (handle < 0) {
            throw std::runtime_error(ApiMessages::NegativeHandle);
        }
        // Another thread may disconnect the same handle at the same time: each call ends the connection or waits
        // for the other to have ended it, and the handle is removed once.
        const std::shared_ptr<TraceBufferConnection> entry = connections.Find(handle);
        if (!entry) {
            return 0;
        }
        try {
            entry->_client->Disconnect();
        } catch (const std::exception&) {
            connections.Remove(handle);
            throw;
        }
        connections.Remove(handle);
        return 0;
    });
}

OLTB_API int oltbIsConnected(int handle, bool* isConnected) {
    return callFrame([&] {
        requireOutParameter(isConnected);
        Connections& connections = Connections::Instance();
        if (handle < 0 || !connections.Contains(handle)) {
            *isConnected = false;
            return 0;
        }
        *isConnected = connections.Get(handle)->_client->isRunning();
        return 0;
    });
}

}  // extern "C"
