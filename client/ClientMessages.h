// Fixed texts of the client: failures of the socket layer, the connection, the commands and the configuration
// (thrown as std::runtime_error), and the three diagnostic lines written to standard output and standard error.
#pragma once

namespace OLVEN::TALIX3::TraceBuffer::ClientMessages {

// ---- socket layer -----------------------------------------------------------------------------------------
inline constexpr const char* UnableToGetAddress = "Unable to get address!";
inline constexpr const char* EndpointFamilyNotSupported =
    "Trying to construct an endpoint for a protocol familly that is neither AF_INET or AF_INET6";
inline constexpr const char* EndpointWithoutAddress = "Couldn't construct endpoint from sockaddr(_storage) struct";
inline constexpr const char* GetaddrinfoFailed = "getaddrinfo failed!";
inline constexpr const char* UnableToCreateSocket = "unable to create socket!";
inline constexpr const char* SetNonBlockFailed = "setting socket to nonblock returned an error";
inline constexpr const char* GetSocketErrorFailed = "getting socket error returned an error";
inline constexpr const char* UnableToConnect = "unable to create connectable socket!";

// ---- connection and reader thread -------------------------------------------------------------------------
// Followed by the address as the caller gave it, ". " and the cause.
inline constexpr const char* ConnectFailedPrefix = "Could not connect to the tracebuffer server on address ";
// Thrown as a bare string, not an exception object, when construction fails with a non-standard exception.
inline constexpr const char* InitializationUnexpectedError =
    "TraceBufferClient initialization failed with unexpected error!";
inline constexpr const char* ConnectionFailedRetry = "Connection failed, retry";
// Followed by the exception's text.
inline constexpr const char* ReaderCrashedWithException = "Reader thread crashed with exception ";
inline constexpr const char* ReaderCrashedUnknown = "Reader thread crashed with unknown exception.";
inline constexpr const char* ReadFailed = "Read failed because of an socket error!";

// ---- commands and configuration ---------------------------------------------------------------------------
inline constexpr const char* IllegalPayloadLength = "Illegal number of payload bytes!";
inline constexpr const char* ResponseTimeout =
    "Could not receive a response from the trace buffer server within 3000ms";
inline constexpr const char* EmptyResponse = "Expected a response message but received nothing!";
inline constexpr const char* NotConnected = "Connection to trace buffer server not established!";
inline constexpr const char* IllegalMessageLength = "Illegal message length";

}  // namespace OLVEN::TALIX3::TraceBuffer::ClientMessages
