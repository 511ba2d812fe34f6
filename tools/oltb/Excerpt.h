// Text from outside (a line of a file, a word of a job) quoted in a message: short and printable whatever the file
// holds, so that a 10 MB word or binary bytes never reach the terminal as they are.
#pragma once

#include <cstddef>
#include <cstdio>
#include <string>
#include <string_view>

namespace oltb::cli {

// 'text' in quotes: its start, at most `limit` characters once bytes outside printable ASCII are written as \xNN,
// and "..." where it was cut.
inline std::string excerpt(std::string_view text, std::size_t limit = 40) {
    std::string quoted = "'";
    std::size_t i = 0;
    for (; i < text.size() && quoted.size() <= limit; ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if (byte >= 0x20 && byte < 0x7F && byte != '\\') {
            quoted += static_cast<char>(byte);
        } else {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\x%02X", byte);
            quoted += escaped;
        }
    }
    return quoted + (i < text.size() ? "'..." : "'");
}

}  // namespace oltb::cli
