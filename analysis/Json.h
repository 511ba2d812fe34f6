// The one way JSON is written here: by the analysis, the report and comparison pages' data, and the simulator's
// account of what it did. Numbers to a millionth (times come in 1/64 us, so they stay exact; positions are whole
// units), in plain notation below 1e15; what is missing or not finite is null. Texts may stand inside an HTML
// <script> element: '<', '>' and '&' are escaped too, so that no "</script>" or comment opener can form.
#pragma once

#include <charconv>
#include <cmath>
#include <cstdio>
#include <optional>
#include <string>

namespace oltb::analysis {

inline std::string jsonNumber(std::optional<double> value) {
    if (!value || !std::isfinite(*value)) {
        return "null";
    }
    double rounded = std::round(*value * 1e6) / 1e6;
    if (!std::isfinite(rounded) || std::abs(*value) >= 1e15) {
        rounded = *value;
    }
    if (rounded == 0) {
        rounded = 0;  // no "-0"
    }
    char text[64];
    const auto written = std::abs(rounded) < 1e15
                             ? std::to_chars(text, text + sizeof(text), rounded, std::chars_format::fixed)
                             : std::to_chars(text, text + sizeof(text), rounded);
    return std::string(text, written.ptr);
}

inline std::string jsonString(const std::string& text) {
    std::string out = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (c == '<' || c == '>' || c == '&' || static_cast<unsigned char>(c) < 0x20) {
            char escape[8];
            std::snprintf(escape, sizeof(escape), "\\u%04x", static_cast<unsigned>(static_cast<unsigned char>(c)));
            out += escape;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

inline std::string jsonBool(bool value) { return value ? "true" : "false"; }

}  // namespace oltb::analysis
