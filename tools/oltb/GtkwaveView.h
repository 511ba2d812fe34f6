// The view file that GTKWave opens a dump with, NAME.gtkw beside NAME.vcd, so that `gtkwave NAME.gtkw` shows the
// capture ready to read: every signal of the dump, head positions as signed decimals drawn as curves, laser power
// and DACs as steps, the rest as numbers or lines, zoomed to the whole capture.
#pragma once

#include "tools/oltb/Signals.h"
#include "tools/oltb/VcdWriter.h"

#include <cstdint>
#include <string>
#include <vector>

namespace oltb::cli {

// NAME.gtkw for NAME.vcd (the extension in any case), NAME.gtkw beside any other name.
std::string viewPathOf(const std::string& dumpPath);

// The view's text for the dump at `dumpPath` with these variables (in the dump's order), its time unit and its last
// time stamp. The dump is named by its absolute path and so is the view itself: GTKWave finds a dump that moved
// together with its view by their places relative to each other. `signedPositions`: head positions are signed
// numbers (otherwise raw, shown unsigned).
std::string gtkwaveView(const std::string& dumpPath, const std::vector<const SignalInfo*>& signals,
                        bool signedPositions, std::uint64_t timescalePs, std::uint64_t endTime);

// Writes the view of a finished dump beside it. Throws OutputError.
void writeGtkwaveView(const std::string& dumpPath, const VcdWriter& dump);

}  // namespace oltb::cli
