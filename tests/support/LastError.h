// The calling thread's last error text of the library, fetched (and so consumed) as a string.
#pragma once

#include "api/oltb.h"

#include <string>

namespace oltb::testing {

inline std::string takeLastError() {
    char buffer[512];
    oltbGetLastError(buffer, static_cast<int>(sizeof buffer));
    return buffer;
}

}  // namespace oltb::testing
