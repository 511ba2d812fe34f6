// The card's delays from a settings file that oltb analyze wrote (--settings-out): the "suggested" value of each
// setting that has one replaces the simulator's; a setting without a suggestion keeps its value.
#pragma once

#include "tools/oltb-sim/CardTiming.h"

#include <stdexcept>
#include <string>

namespace oltb::sim {

// What is wrong with a settings file: "FILE: what".
class SettingsFileError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The settings of `text` (read from `source`) into `timing`. Throws SettingsFileError for a file that is not a
// settings file of oltb, names a setting the card does not have, or holds a value out of range; `timing` is then
// unchanged.
void applySettings(const std::string& text, const std::string& source, CardTiming& timing);
// Reads a regular file of at most 1 MiB and applies it.
void applySettingsFile(const std::string& path, CardTiming& timing);

}  // namespace oltb::sim
