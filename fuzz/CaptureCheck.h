// What the fuzz targets of the capture readers share: a file holding the input, and the whole capture read as the
// tool reads it, held to the rule of every capture: finite times within 2^53 ticks, times and ticks that never go
// back, values their signals carry. A refusal must be one short printable line that names the file.
#pragma once

#include "fuzz/FuzzCheck.h"

#include "tools/oltb/CaptureReader.h"
#include "tools/oltb/Errors.h"
#include "tools/oltb/Signals.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <memory>
#include <set>
#include <string>
#include <tuple>
#include <vector>

// A file of this process named `name` that holds `bytes`; removed when the process ends.
inline std::string fuzzFile(const std::string& name, const std::string& bytes) {
    static struct Files {
        std::set<std::string> paths;
        ~Files() {
            for (const std::string& path : paths) std::remove(path.c_str());
        }
    } files;
    const std::string path = "/tmp/oltb-fuzz-" + std::to_string(::getpid()) + "-" + name;
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
    files.paths.insert(path);
    return path;
}

inline bool sameEvents(const std::vector<oltbTraceEvent>& first, const std::vector<oltbTraceEvent>& second) {
    const auto fields = [](const oltbTraceEvent& e) {
        return std::tuple(e.Timestamp, e.Time, e.Type, e.Overflow, e.Value);
    };
    return std::equal(first.begin(), first.end(), second.begin(), second.end(),
                      [&](const oltbTraceEvent& a, const oltbTraceEvent& b) { return fields(a) == fields(b); });
}

inline void checkRefusal(const std::string& message, const std::string& path) {
    FUZZ_CHECK(message.find(path) != std::string::npos && message.size() < path.size() + 400);
    for (const char c : message) FUZZ_CHECK(c >= 0x20 && c < 0x7F);
}

// The events of the capture at `path` (read from `source`, or as the tool reads it); false when it was refused,
// and then why in `refusal`.
template <typename Source>
bool readWholeCapture(const std::string& path, std::vector<oltbTraceEvent>& events, std::string& refusal, Source open) {
    using namespace oltb::cli;
    try {
        const auto reader = open(path);
        oltbTraceEvent batch[512];
        while (const std::size_t count = reader->read(batch, 512)) events.insert(events.end(), batch, batch + count);
    } catch (const UsageError& error) {
        refusal = error.what();
    } catch (const InputError& error) {
        refusal = error.what();
    }
    if (!refusal.empty()) {
        checkRefusal(refusal, path);
        return false;
    }
    for (std::size_t i = 0; i < events.size(); ++i) {
        const oltbTraceEvent& event = events[i];
        FUZZ_CHECK(std::isfinite(event.Time) && std::fabs(event.Time) <= 9007199254740992.0 / 64);
        FUZZ_CHECK(i == 0 || (event.Time >= events[i - 1].Time && event.Timestamp >= events[i - 1].Timestamp));
        const SignalInfo* signal = findSignalByType(event.Type);
        FUZZ_CHECK(signal != nullptr);
        if (isHeadPosition(event.Type)) {
            FUZZ_CHECK(event.Value >= -524288 && event.Value <= 1048575);
        } else if (signal->bitsPerSample < 32) {
            FUZZ_CHECK(event.Value >= 0 && event.Value < (1 << signal->bitsPerSample));
        }
    }
    return true;
}

inline bool readWholeCapture(const std::string& path, std::vector<oltbTraceEvent>& events) {
    std::string refusal;
    return readWholeCapture(path, events, refusal,
                            [](const std::string& name) { return std::make_unique<oltb::cli::CaptureReader>(name); });
}
