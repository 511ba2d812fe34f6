// A connection to a trace buffer server through the library's C interface. Every failing call becomes a
// ServerError carrying what was attempted and the library's last-error text. When the object goes, a trace it
// started and did not stop is stopped (whatever failed meanwhile), and the handle is disconnected.
#pragma once

#include "api/oltb.h"

#include <cstdint>
#include <string>
#include <vector>

namespace oltb::cli {

// The calling thread's last-error text of the library (emptying the store).
std::string takeLibraryError();

class Connection {
public:
    // Connects (blocks up to a few seconds per address of an unreachable host). The library's notice between
    // connection attempts goes to standard error, so that standard output carries only data.
    explicit Connection(const std::string& host);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    const std::string& host() const { return _host; }

    oltbTraceBufferConfig_Struct getConfig();
    void setConfig(const oltbTraceBufferConfig_Struct& config);
    void setReadTimeout(int timeoutMs);
    void start();
    void stop();

    // The events available within the read timeout, at most `count`; 0 when none came.
    std::uint32_t tryRead(oltbTraceEvent* buffer, std::uint32_t count);

private:
    void check(int result, const char* action);

    std::string _host;
    int _handle = -1;
    bool _started = false;
};

}  // namespace oltb::cli
