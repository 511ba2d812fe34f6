// Each job's capture kept as an HDF5 file (as oltb acquire writes it) in a directory, named after the machine, the
// time the job ended and its number, so that names sort by age. Beyond a size limit the oldest of the machine's
// files are removed. A file is written beside its name and renamed into place, so a save that fails (a full disk,
// a file size limit) leaves no broken file behind and touches none of the files saved before.
#pragma once

#include "api/oltb.h"
#include "tools/oltb/SeriesInfo.h"

#include <cstdint>
#include <string>
#include <vector>

namespace oltb::monitor {

struct SaveOutcome {
    std::string file;         // the name saved, or empty
    std::string failure;      // why it could not be saved, or empty
    std::uint64_t bytes = 0;  // of the machine's files in the directory afterwards
};

class SaveDirectory {
public:
    // Creates the directory if it does not exist. Throws OutputError when it cannot be.
    SaveDirectory(std::string directory, const std::string& machine, std::uint64_t limitBytes);

    // Events: signed positions, time from the start label. endedUtc as cli::utcNowIso8601 gives it.
    SaveOutcome save(const cli::SeriesInfo& info, const std::vector<oltbTraceEvent>& events, std::uint64_t id,
                     const std::string& endedUtc);

private:
    // Removes the oldest files of the machine, never `newest`, until the rest fits the limit; their bytes then.
    std::uint64_t removeOldest(const std::string& newest);

    const std::string _directory;
    std::string _prefix;  // the machine's name as a file name can hold it, and "-"
    const std::uint64_t _limitBytes;
};

}  // namespace oltb::monitor
