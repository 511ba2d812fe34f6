#include "tools/oltb/report/PackedNumbers.h"

#include <zlib.h>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <stdexcept>
#include <string>

namespace oltb::report {

namespace {

constexpr std::int32_t GapMark = std::numeric_limits<std::int32_t>::min();
constexpr double LargestDifference = std::numeric_limits<std::int32_t>::max();

template <typename Number>
std::string pack(const std::vector<Number>& values, double scale, double offset) {
    std::vector<std::int32_t> differences(values.size());
    for (;; scale /= 2) {
        double sum = 0;  // whole numbers, exact in a double up to 2^53
        bool fits = true;
        for (std::size_t i = 0; i < values.size(); ++i) {
            const double value = static_cast<double>(values[i]);
            const double whole = std::round((value - offset) * scale);
            if (!std::isfinite(whole) || !(std::abs(whole - sum) <= LargestDifference)) {
                // No value; or one too far from the one before at this scale, a gap if no scale fits it.
                fits = fits && !std::isfinite(value);
                differences[i] = GapMark;
                continue;
            }
            differences[i] = static_cast<std::int32_t>(whole - sum);
            sum = whole;
        }
        if (fits || scale < 1e-9) {
            break;
        }
    }
    const auto* bytes = reinterpret_cast<const Bytef*>(differences.data());
    const uLong size = static_cast<uLong>(differences.size() * sizeof(std::int32_t));
    uLongf packedSize = compressBound(size);
    std::vector<unsigned char> packed(packedSize);
    if (compress2(packed.data(), &packedSize, bytes, size, 6) != Z_OK) {
        throw std::runtime_error("deflating the report's numbers failed");
    }
    char number[64];
    std::snprintf(number, sizeof(number), "%.17g, \"offset\": %.17g", scale, offset);
    return "{\"count\": " + std::to_string(values.size()) + ", \"scale\": " + number + ", \"data\": \"" +
           base64(packed.data(), packedSize) + "\"}";
}

}  // namespace

std::string packedNumbers(const std::vector<double>& values, double scale, double offset) {
    return pack(values, scale, offset);
}

std::string packedNumbers(const std::vector<float>& values, double scale, double offset) {
    return pack(values, scale, offset);
}

std::string base64(const unsigned char* bytes, std::size_t size) {
    static const char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    out.reserve((size + 2) / 3 * 4);
    std::size_t i = 0;
    for (; i + 2 < size; i += 3) {
        const unsigned word = bytes[i] << 16 | bytes[i + 1] << 8 | bytes[i + 2];
        for (const int shift : {18, 12, 6, 0}) {
            out += alphabet[(word >> shift) & 63];
        }
    }
    if (i < size) {
        const unsigned word = bytes[i] << 16 | (i + 1 < size ? bytes[i + 1] << 8 : 0);
        out += alphabet[(word >> 18) & 63];
        out += alphabet[(word >> 12) & 63];
        out += i + 1 < size ? alphabet[(word >> 6) & 63] : '=';
        out += '=';
    }
    return out;
}

}  // namespace oltb::report
