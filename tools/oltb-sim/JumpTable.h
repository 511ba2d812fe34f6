// The card's variable jump delay: a table of jump lengths and delays, loaded from a text file. A jump of length L
// waits the delay of the first row whose length is L or more, and beyond the last row that row's delay. The file:
//   # comment lines and blank lines anywhere
//   LENGTH DELAY_US        one row a line, lengths in head units, strictly ascending, delays 0..100000 us
// at most 256 rows, at most 1 MiB.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

namespace oltb::sim {

struct JumpDelayRow {
    double lengthUnits = 0;
    double delayUs = 0;
};

// What is wrong with a table, with the place: "FILE:LINE: what" (or "FILE: what" for the file as a whole).
class JumpTableError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

std::vector<JumpDelayRow> parseJumpTable(const std::string& text, const std::string& source);
// Reads a regular file of at most 1 MiB and parses it.
std::vector<JumpDelayRow> readJumpTable(const std::string& path);

// The delay of a jump of `lengthUnits`: from the table, or `fixedDelayUs` when the table is empty.
double jumpDelayUs(const std::vector<JumpDelayRow>& table, double lengthUnits, double fixedDelayUs);

}  // namespace oltb::sim
