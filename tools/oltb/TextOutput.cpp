#include "tools/oltb/TextOutput.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace oltb::cli {

namespace {

// A stream's own buffer takes the text as it comes; a file gets a whole buffer per write(2).
constexpr std::size_t StreamBufferBytes = 64 * 1024;

bool isRegularFile(int descriptor) {
    struct stat status {};
    return ::fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode);
}

}  // namespace

TextOutput::TextOutput(int descriptor)
    : _descriptor(descriptor),
      _everyCall(!isRegularFile(descriptor)),
      _buffer(new char[BufferBytes]),
      _next(_buffer.get()),
      _end(_buffer.get() + BufferBytes),
      _regularFile(!_everyCall) {}

TextOutput::TextOutput(std::ostream& stream)
    : _stream(&stream),
      _buffer(new char[StreamBufferBytes]),
      _next(_buffer.get()),
      _end(_buffer.get() + StreamBufferBytes) {}

void TextOutput::handOver() {
    const char* const first = _buffer.get();
    const std::size_t size = static_cast<std::size_t>(_next - first);
    _next = _buffer.get();
    if (size > 0) send(first, size);
}

void TextOutput::send(const char* bytes, std::size_t size) {
    if (_error != 0) return;
    if (_stream != nullptr) {
        _stream->write(bytes, static_cast<std::streamsize>(size));
        if (_stream->fail()) _error = errno != 0 ? errno : EIO;
        return;
    }
    while (size > 0) {
        const ssize_t written = ::write(_descriptor, bytes, size);
        if (written < 0) {
            if (errno == EINTR) continue;
            _error = errno;
            if (_regularFile && ::ftruncate(_descriptor, static_cast<off_t>(_completeLines)) != 0) {
                // The file keeps its cut line; the write's own error is the one reported.
            }
            return;
        }
        const void* lineEnd = ::memrchr(bytes, '\n', static_cast<std::size_t>(written));
        if (lineEnd != nullptr) {
            _completeLines = _written + static_cast<std::uint64_t>(static_cast<const char*>(lineEnd) - bytes) + 1;
        }
        _written += static_cast<std::uint64_t>(written);
        bytes += written;
        size -= static_cast<std::size_t>(written);
    }
}

}  // namespace oltb::cli
