#include "tools/oltb/Connection.h"

#include "tools/oltb/Errors.h"

#include <unistd.h>

#include <cstdio>
#include <iostream>

namespace oltb::cli {

namespace {

// Points standard output at standard error for its lifetime. The library prints "Connection failed, retry" on
// standard output between attempts, which would otherwise end up in CSV written there.
class StandardOutputToStandardError {
public:
    StandardOutputToStandardError() {
        std::cout.flush();
        std::fflush(stdout);
        _saved = dup(STDOUT_FILENO);
        if (_saved >= 0) {
            dup2(STDERR_FILENO, STDOUT_FILENO);
        }
    }
    ~StandardOutputToStandardError() {
        std::cout.flush();
        std::fflush(stdout);
        if (_saved >= 0) {
            dup2(_saved, STDOUT_FILENO);
            close(_saved);
        }
    }
    StandardOutputToStandardError(const StandardOutputToStandardError&) = delete;
    StandardOutputToStandardError& operator=(const StandardOutputToStandardError&) = delete;

private:
    int _saved = -1;
};

}  // namespace

std::string takeLibraryError() {
    const int length = oltbGetLastErrorLen();
    if (length <= 0) {
        return "unknown failure";
    }
    std::string text(static_cast<std::size_t>(length), '\0');
    oltbGetLastError(text.data(), length);
    text.resize(text.find('\0'));
    return text;
}

Connection::Connection(const std::string& host) : _host(host) {
    StandardOutputToStandardError redirect;
    _handle = oltbConnect(host.c_str());
    if (_handle < 0) {
        const std::string text = takeLibraryError();
        std::string hint;
        if (text.find("Unable to get address!") != std::string::npos && host.find(':') != std::string::npos) {
            hint =
                "\nthe port is always 9495: give the host alone, without ':" + host.substr(host.rfind(':') + 1) + "'";
        } else if (text.find("unable to create connectable socket!") != std::string::npos) {
            hint = "\nnothing listens at " + host + ":9495; is the trace buffer server (or oltb-sim) running?";
        }
        throw ServerError(text + hint);
    }
}

Connection::~Connection() {
    if (_started) {
        oltbStop(_handle);
    }
    oltbDisconnect(_handle);
}

void Connection::check(int result, const char* action) {
    if (result != 0) {
        throw ServerError(std::string(action) + " (" + _host + "): " + takeLibraryError());
    }
}

oltbTraceBufferConfig_Struct Connection::getConfig() {
    oltbTraceBufferConfig_Struct config;
    oltbInitConfig(&config);
    check(oltbGetConfig(_handle, &config), "reading the configuration");
    return config;
}

void Connection::setConfig(const oltbTraceBufferConfig_Struct& config) {
    check(oltbSetConfig(_handle, &config), "setting the configuration");
}

void Connection::setReadTimeout(int timeoutMs) {
    check(oltbSetReadTimeout(_handle, timeoutMs), "setting the read timeout");
}

void Connection::start() {
    check(oltbStart(_handle), "starting the trace");
    _started = true;
}

void Connection::stop() {
    _started = false;
    check(oltbStop(_handle), "stopping the trace");
}

std::uint32_t Connection::tryRead(oltbTraceEvent* buffer, std::uint32_t count) {
    std::uint32_t numberOfEvents = 0;
    check(oltbTryRead(_handle, buffer, 0, count, &numberOfEvents), "reading");
    return numberOfEvents;
}

}  // namespace oltb::cli
