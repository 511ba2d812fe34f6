// Text on its way to a file: writers format into a large buffer, which goes to a regular file with write(2) a
// megabyte at a time. A pipe or a terminal gets the text at the end of every writer call, so that whoever reads it
// sees the rows as they come, and so does a std::ostream (which then holds each call's text when the call returns).
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <ostream>
#include <string_view>

namespace oltb::cli {

class TextOutput {
public:
    static constexpr std::size_t BufferBytes = std::size_t{1} << 20;
    // The most that room() can promise.
    static constexpr std::size_t MaxRoom = 4096;

    // Writes to `descriptor`, which stays open (the owner closes it).
    explicit TextOutput(int descriptor);
    explicit TextOutput(std::ostream& stream);
    TextOutput(const TextOutput&) = delete;
    TextOutput& operator=(const TextOutput&) = delete;

    // Where at least `bytes` (at most MaxRoom) may be written; pass the end of what was written to advance().
    char* room(std::size_t bytes) {
        if (static_cast<std::size_t>(_end - _next) < bytes) handOver();
        return _next;
    }
    void advance(char* next) { _next = next; }

    void append(std::string_view text) {
        if (text.size() > MaxRoom) {
            handOver();
            send(text.data(), text.size());
            return;
        }
        char* place = room(text.size());
        std::memcpy(place, text.data(), text.size());
        _next = place + text.size();
    }
    void append(char character) {
        char* place = room(1);
        *place = character;
        _next = place + 1;
    }

    // The end of a writer call: a stream gets what the call formatted; a file only gets whole buffers.
    void endOfCall() {
        if (_everyCall) handOver();
    }
    // Hands over everything buffered.
    void flush() { handOver(); }

    // errno of the first write that failed (EIO for a stream), 0 while none did. After a failure the rest is
    // dropped, and a regular file is cut back to its last complete line, so that it holds whole rows only.
    int error() const { return _error; }

private:
    void handOver();
    void send(const char* bytes, std::size_t size);

    int _descriptor = -1;
    std::ostream* _stream = nullptr;
    bool _everyCall = true;
    std::unique_ptr<char[]> _buffer;
    char* _next;
    char* _end;
    int _error = 0;
    bool _regularFile = false;
    std::uint64_t _written = 0;        // bytes the file took
    std::uint64_t _completeLines = 0;  // of which whole lines
};

}  // namespace oltb::cli
