// The one frame every exported function runs in: it empties the thread's error store, runs the function's body,
// and turns whatever the body throws into -1 plus a stored text. No exception crosses the C boundary.
#pragma once

#include "api/ApiMessages.h"
#include "api/Connections.h"
#include "api/TraceBufferErrorHandler.h"

#include <exception>
#include <stdexcept>

namespace OLVEN::TALIX3::TraceBuffer {

// Runs `body` (returning int) inside the frame. The body's result is the function's result.
template <typename Body>
int callFrame(Body&& body) noexcept {
    TraceBufferErrorHandler& errors = TraceBufferErrorHandler::getThreadLocalInstance();
    errors.ClearError();
    try {
        return body();
    } catch (const std::exception& e) {
        errors.InsertError(e);
    } catch (...) {
        errors.InsertError(ApiMessages::Unexpected);
    }
    return -1;
}

// Throws the frame's null-pointer text for an out-parameter that is null.
inline void requireOutParameter(const void* pointer) {
    if (pointer == nullptr) {
        throw std::runtime_error(ApiMessages::NullOutParameter);
    }
}

// Throws "Illegal handle." for a negative handle and "Illegal handle!" for one that is not registered.
inline void requireRegisteredHandle(Connections& connections, int handle) {
    if (handle < 0) {
        throw std::runtime_error(ApiMessages::NegativeHandle);
    }
    if (!connections.Contains(handle)) {
        throw std::runtime_error(ApiMessages::UnknownHandle);
    }
}

// The frame of a function with a handle: the null test of its out-parameters, the handle checks, then
// `body(entry)` on the handle's registry entry, called without the registry lock and holding the entry, so that a
// Disconnect of another thread cannot destroy it meanwhile. Result 0.
template <typename Body, typename... OutParameters>
int callWithConnection(int handle, Body&& body, const OutParameters*... outParameters) noexcept {
    return callFrame([&] {
        (requireOutParameter(outParameters), ...);
        Connections& connections = Connections::Instance();
        requireRegisteredHandle(connections, handle);
        const std::shared_ptr<TraceBufferConnection> entry = connections.Get(handle);
        body(*entry);
        return 0;
    });
}

}  // namespace OLVEN::TALIX3::TraceBuffer
