// Fixed texts of the failures raised while decoding, reading and acquiring trace events. The exported functions
// hand them to the caller's error store unchanged.
#pragma once

namespace OLVEN::TALIX3::TraceBuffer::EventMessages {

// "TraceEventType <value in decimal> not supported!"
inline constexpr const char* UnsupportedTypePrefix = "TraceEventType ";
inline constexpr const char* UnsupportedTypeSuffix = " not supported!";
inline constexpr const char* NoConnection = "No connection to trace buffer server established.";
inline constexpr const char* NullBuffer = "buffer may not be null";
inline constexpr const char* NothingReceived = "Nothing received from trace buffer server within the specified timeout";
inline constexpr const char* EndLabelBeforeStart = "Expected start label but got end label!";

}  // namespace OLVEN::TALIX3::TraceBuffer::EventMessages
