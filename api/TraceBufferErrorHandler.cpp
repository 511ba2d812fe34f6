#include "api/TraceBufferErrorHandler.h"

#include <cstring>

namespace OLVEN::TALIX3::TraceBuffer {

namespace {
constexpr const char* EmptyText = "";
}

TraceBufferErrorHandler& TraceBufferErrorHandler::getThreadLocalInstance() noexcept {
    thread_local TraceBufferErrorHandler instance;
    return instance;
}

void TraceBufferErrorHandler::ClearError() noexcept {
    _lastErrorLength = 0;
    _lastErrorText = EmptyText;
}

void TraceBufferErrorHandler::InsertError(const std::exception& e) noexcept { InsertError(e.what()); }

void TraceBufferErrorHandler::InsertError(const char* text) noexcept {
    try {
        _message.assign(text != nullptr ? text : EmptyText);
    } catch (...) {
        // Only memory exhaustion can fail here; the previous _message stays as it was.
        _lastErrorText = _OutOfMemoryText;
        _lastErrorLength = static_cast<std::uint32_t>(std::strlen(_OutOfMemoryText));
        return;
    }
    _lastErrorText = _message.c_str();
    _lastErrorLength = static_cast<std::uint32_t>(_message.size());
}

}  // namespace OLVEN::TALIX3::TraceBuffer
