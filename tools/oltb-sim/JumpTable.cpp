// Reading the jump delay table line by line; each error names its line.
#include "tools/oltb-sim/JumpTable.h"

#include <sys/stat.h>
#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <sstream>

namespace oltb::sim {
namespace {

constexpr std::size_t MaxRows = 256;
constexpr std::size_t MaxFileBytes = 1 << 20;
constexpr double MaxDelayUs = 100000;

bool parseNumber(const std::string& word, double& value) {
    errno = 0;
    char* end = nullptr;
    value = std::strtod(word.c_str(), &end);
    return !word.empty() && errno == 0 && end == word.c_str() + word.size() && std::isfinite(value);
}

}  // namespace

std::vector<JumpDelayRow> parseJumpTable(const std::string& text, const std::string& source) {
    std::vector<JumpDelayRow> rows;
    std::istringstream lines(text);
    std::string line;
    for (int number = 1; std::getline(lines, line); ++number) {
        const auto fail = [&](const std::string& what) {
            throw JumpTableError(source + ":" + std::to_string(number) + ": " + what);
        };
        std::istringstream words(line);
        std::vector<std::string> fields;
        for (std::string word; words >> word && fields.size() < 3;) {
            fields.push_back(word);
        }
        if (fields.empty() || fields[0][0] == '#') {
            continue;
        }
        if (fields.size() != 2) {
            fail("a row is 'LENGTH DELAY_US', two numbers");
        }
        JumpDelayRow row;
        if (!parseNumber(fields[0], row.lengthUnits) || row.lengthUnits < 0) {
            fail("the length is not a number of units from 0 on: '" + fields[0] + "'");
        }
        if (!parseNumber(fields[1], row.delayUs) || row.delayUs < 0 || row.delayUs > MaxDelayUs) {
            fail("the delay is not a number of us from 0 to 100000: '" + fields[1] + "'");
        }
        if (!rows.empty() && row.lengthUnits <= rows.back().lengthUnits) {
            char previous[32];
            std::snprintf(previous, sizeof previous, "%g", rows.back().lengthUnits);
            fail("the lengths must ascend: " + fields[0] + " follows " + previous);
        }
        if (rows.size() == MaxRows) {
            fail("more than 256 rows");
        }
        rows.push_back(row);
    }
    if (rows.empty()) {
        throw JumpTableError(source + ": the table has no rows");
    }
    return rows;
}

std::vector<JumpDelayRow> readJumpTable(const std::string& path) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) {
        throw JumpTableError(path + ": cannot be read");
    }
    if (!S_ISREG(info.st_mode)) {
        throw JumpTableError(path + ": not a regular file");
    }
    std::FILE* file = std::fopen(path.c_str(), "rb");
    if (file == nullptr) {
        throw JumpTableError(path + ": cannot be read");
    }
    std::string text(MaxFileBytes + 1, '\0');
    const std::size_t length = std::fread(text.data(), 1, text.size(), file);
    const bool failed = std::ferror(file) != 0;
    std::fclose(file);
    if (failed) {
        throw JumpTableError(path + ": cannot be read");
    }
    if (length > MaxFileBytes) {
        throw JumpTableError(path + ": larger than 1 MiB");
    }
    text.resize(length);
    return parseJumpTable(text, path);
}

double jumpDelayUs(const std::vector<JumpDelayRow>& table, const double lengthUnits, const double fixedDelayUs) {
    if (table.empty()) {
        return fixedDelayUs;
    }
    const auto row = std::find_if(table.begin(), table.end(),
                                  [lengthUnits](const JumpDelayRow& r) { return r.lengthUnits >= lengthUnits; });
    return row == table.end() ? table.back().delayUs : row->delayUs;
}

}  // namespace oltb::sim
