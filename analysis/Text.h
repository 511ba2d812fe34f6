// Texts of the analysis' summaries and advice: printf-style formatting into a string.
#pragma once

#include <cstdarg>
#include <cstdio>
#include <string>

namespace oltb::analysis {

inline std::string format(const char* pattern, ...) __attribute__((format(printf, 1, 2)));
inline std::string format(const char* pattern, ...) {
    char text[512];
    va_list arguments;
    va_start(arguments, pattern);
    std::vsnprintf(text, sizeof(text), pattern, arguments);
    va_end(arguments);
    return text;
}

}  // namespace oltb::analysis
