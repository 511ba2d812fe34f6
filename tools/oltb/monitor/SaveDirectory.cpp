#include "tools/oltb/monitor/SaveDirectory.h"

#include "tools/oltb/Errors.h"
#include "tools/oltb/H5Writer.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <system_error>

namespace oltb::monitor {

namespace fs = std::filesystem;

namespace {

constexpr const char* Extension = ".h5";

// "2024-05-01T12:34:56.789Z" -> "20240501T123456789Z"
std::string compactTime(const std::string& utc) {
    std::string text;
    for (const char c : utc) {
        if (std::isalnum(static_cast<unsigned char>(c))) {
            text += c;
        }
    }
    return text;
}

}  // namespace

SaveDirectory::SaveDirectory(std::string directory, const std::string& machine, std::uint64_t limitBytes)
    : _directory(std::move(directory)), _limitBytes(limitBytes) {
    for (const char c : machine) {
        const bool kept = std::isalnum(static_cast<unsigned char>(c)) || c == '.' || c == '_' || c == '-';
        _prefix += kept ? c : '_';
    }
    _prefix += '-';
    std::error_code error;
    fs::create_directories(_directory, error);
    if (error || !fs::is_directory(_directory)) {
        throw cli::OutputError("cannot create the save directory " + _directory + ": " +
                               (error ? error.message() : "a file of that name is in the way"));
    }
}

SaveOutcome SaveDirectory::save(const cli::SeriesInfo& info, const std::vector<oltbTraceEvent>& events,
                                std::uint64_t id, const std::string& endedUtc) {
    SaveOutcome outcome;
    const std::string name = _prefix + compactTime(endedUtc) + "-" + std::to_string(id) + Extension;
    const std::string path = (fs::path(_directory) / name).string();
    const std::string partial = path + ".part";
    try {
        cli::H5Writer writer(partial, info);
        writer.write(events.data(), events.size());
        writer.finish();
        fs::rename(partial, path);
        outcome.file = name;
    } catch (const std::exception& error) {
        std::error_code ignored;
        fs::remove(partial, ignored);
        outcome.failure = "job " + std::to_string(id) + " not saved: " + error.what();
    }
    outcome.bytes = removeOldest(outcome.file);
    return outcome;
}

std::uint64_t SaveDirectory::removeOldest(const std::string& newest) {
    struct Saved {
        std::string name;
        std::uint64_t bytes;
    };
    std::vector<Saved> saved;
    std::uint64_t total = 0;
    std::error_code error;
    for (const fs::directory_entry& entry : fs::directory_iterator(_directory, error)) {
        const std::string name = entry.path().filename().string();
        std::error_code sizeError;
        const std::uintmax_t bytes = entry.file_size(sizeError);
        if (name.rfind(_prefix, 0) == 0 && name.size() > 3 && name.compare(name.size() - 3, 3, Extension) == 0 &&
            !sizeError) {
            saved.push_back({name, bytes});
            total += bytes;
        }
    }
    // The names begin with the time the job ended, so the oldest sort first.
    std::sort(saved.begin(), saved.end(), [](const Saved& a, const Saved& b) { return a.name < b.name; });
    for (const Saved& file : saved) {
        if (total <= _limitBytes) {
            break;
        }
        if (file.name != newest && fs::remove(fs::path(_directory) / file.name, error)) {
            total -= file.bytes;
        }
    }
    return total;
}

}  // namespace oltb::monitor
