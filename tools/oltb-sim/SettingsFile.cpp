#include "tools/oltb-sim/SettingsFile.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <iterator>

#include <sys/stat.h>
#include <cstdio>
#include <utility>

namespace oltb::sim {
namespace {

constexpr std::size_t MaxFileBytes = 1 << 20;
constexpr double MaxDelayUs = 100000;

}  // namespace

void applySettings(const std::string& text, const std::string& source, CardTiming& timing) {
    const auto fail = [&source](const std::string& what) { throw SettingsFileError(source + ": " + what); };
    const nlohmann::json file = nlohmann::json::parse(text, nullptr, false);
    if (file.is_discarded() || !file.is_object() || file.value("settings_of", "") != "oltb analyze" ||
        !file.contains("settings") || !file["settings"].is_object()) {
        fail("not a settings file of oltb analyze (--settings-out)");
    }
    const std::pair<const char*, double CardTiming::*> known[] = {{"laser_on_delay_us", &CardTiming::laserOnDelayUs},
                                                                  {"laser_off_delay_us", &CardTiming::laserOffDelayUs},
                                                                  {"jump_delay_us", &CardTiming::jumpDelayUs},
                                                                  {"mark_delay_us", &CardTiming::markDelayUs},
                                                                  {"polygon_delay_us", &CardTiming::polygonDelayUs}};
    CardTiming changed = timing;
    for (const auto& [name, setting] : file["settings"].items()) {
        const auto* match =
            std::find_if(std::begin(known), std::end(known), [&name = name](const auto& k) { return name == k.first; });
        if (match == std::end(known)) {
            fail("unknown setting \"" + name.substr(0, 40) + "\"");
        }
        if (!setting.is_object() || !setting.contains("suggested")) {
            fail("setting \"" + name + "\" has no \"suggested\" value");
        }
        const nlohmann::json& suggested = setting["suggested"];
        if (suggested.is_null()) {
            continue;
        }
        if (!suggested.is_number() || !(suggested.get<double>() >= 0) || suggested.get<double>() > MaxDelayUs) {
            fail("setting \"" + name + "\": the suggested value must be a number of us from 0 to 100000");
        }
        changed.*(match->second) = suggested.get<double>();
    }
    timing = changed;
}

void applySettingsFile(const std::string& path, CardTiming& timing) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) {
        throw SettingsFileError(path + ": not a regular file that can be read");
    }
    std::FILE* file = std::fopen(path.c_str(), "rb");
    if (file == nullptr) {
        throw SettingsFileError(path + ": cannot be read");
    }
    std::string text(MaxFileBytes + 1, '\0');
    const std::size_t length = std::fread(text.data(), 1, text.size(), file);
    const bool failed = std::ferror(file) != 0;
    std::fclose(file);
    if (failed || length > MaxFileBytes) {
        throw SettingsFileError(path + (failed ? ": cannot be read" : ": larger than 1 MiB"));
    }
    text.resize(length);
    applySettings(text, path, timing);
}

}  // namespace oltb::sim
