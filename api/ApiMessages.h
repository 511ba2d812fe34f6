// Fixed texts that the exported functions leave in the caller's error store.
#pragma once

namespace OLVEN::TALIX3::TraceBuffer::ApiMessages {

inline constexpr const char* NullOutParameter = "Out parameter is a null pointer!";
inline constexpr const char* NegativeHandle = "Illegal handle.";
inline constexpr const char* UnknownHandle = "Illegal handle!";
inline constexpr const char* NoSuchConnection = "There is no connection corresponding to this handle.";
inline constexpr const char* Unexpected = "Unexpected error!";
inline constexpr const char* ErrorBufferTooSmall = "Error buffer too small";
inline constexpr const char* NullAddress = "basic_string::_M_construct null not valid";
inline constexpr const char* TooManyHandles =
    "Maximum number of handles created. Disconnect has to be called to remove previous connections.";
inline constexpr const char* NoAcquiredElements = "No acquired elements available!";

}  // namespace OLVEN::TALIX3::TraceBuffer::ApiMessages
