// Per-thread store of the last error text, handed out by oltbGetLastError / oltbGetLastErrorLen.
// The current text is a view (length, pointer) onto storage that outlives it: the owned _message, the static
// fallback used when memory runs out while storing, or a static empty string.
#pragma once

#include <cstdint>
#include <exception>
#include <string>

namespace OLVEN::TALIX3::TraceBuffer {

class TraceBufferErrorHandler {
public:
    static constexpr const char* _OutOfMemoryText = "Unable to generate error message.";

    // The calling thread's store; created on its first use, destroyed when the thread ends.
    static TraceBufferErrorHandler& getThreadLocalInstance() noexcept;

    void ClearError() noexcept;
    void InsertError(const std::exception& e) noexcept;
    void InsertError(const char* text) noexcept;

    std::uint32_t length() const noexcept { return _lastErrorLength; }
    const char* text() const noexcept { return _lastErrorText; }

private:
    std::string _message;
    std::uint32_t _lastErrorLength = 0;
    const char* _lastErrorText = nullptr;
};

}  // namespace OLVEN::TALIX3::TraceBuffer
