// A small reader of value change dumps, strict where waveform viewers are: declarations before
// $enddefinitions, a timescale, known identifiers, time stamps that never go back, values no wider than their
// variables.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace oltb::testing {

struct VcdVariable {
    std::string type; // "wire", "integer", ...
    unsigned size = 0;
    std::string identifier;
    std::string name;
};

struct VcdChange {
    std::uint64_t time = 0; // in timescale units
    std::string identifier;
    std::string value; // "0", "1", "x" or the binary digits of a vector
};

struct VcdDump {
    std::string timescale; // e.g. "1 ps"
    std::vector<VcdVariable> variables;
    std::vector<VcdChange> changes;
    std::uint64_t lastTime = 0;

    const VcdVariable* variableNamed(const std::string& name) const;
    std::vector<VcdChange> changesOf(const std::string& name) const; // in order
};

// Parses `text`; on a violation returns false with a description in `error`.
bool parseVcd(const std::string& text, VcdDump& dump, std::string& error);

// The value of binary digits as a two's-complement number of `size` bits.
std::int64_t signedValueOf(const std::string& binary, unsigned size);

}  // namespace oltb::testing
