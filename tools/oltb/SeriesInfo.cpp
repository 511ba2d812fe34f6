#include "tools/oltb/SeriesInfo.h"

#include <chrono>
#include <cstdio>
#include <ctime>

namespace oltb::cli {

std::string utcNowIso8601() {
    const auto now = std::chrono::system_clock::now();
    const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    const auto milliseconds =
        std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char text[40];
    const std::size_t length = std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%S", &utc);
    std::snprintf(text + length, sizeof(text) - length, ".%03dZ", static_cast<int>(milliseconds));
    return text;
}

}  // namespace oltb::cli
