// GTKWave's save file: "[key] value" lines for the window and the files, "*ZOOM MARKER ..." for the zoom, then the
// traces, each as "@FLAGS" (hexadecimal display flags, kept until the next "@") and the variable's name. A trace
// drawn as a curve takes the rows of the blank traces ("-") behind it that carry the flag of an analog extension.
#include "tools/oltb/GtkwaveView.h"

#include "tools/oltb/Errors.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <sstream>

namespace oltb::cli {

namespace {

// Display flags of a trace (GTKWave's TR_* bits).
constexpr unsigned Hexadecimal = 0x2;
constexpr unsigned Decimal = 0x4;
constexpr unsigned Binary = 0x8;
constexpr unsigned RightJustified = 0x20;
constexpr unsigned Signed = 0x400;
constexpr unsigned AnalogStep = 0x8000;
constexpr unsigned AnalogInterpolated = 0x10000;
constexpr unsigned AnalogExtension = 0x20000;

// The window the view asks for, and the width of its wave pane that the zoom fills: the window less the signal
// names (160) and GTKWave's borders, with some room to spare at the right.
constexpr int WindowWidth = 1200;
constexpr int WindowHeight = 700;
constexpr double FilledPixels = 900.0;
// GTKWave shows 2^-zoom / 200 time units per pixel.
constexpr double UnitsPerPixelAtZoomZero = 1.0 / 200.0;

bool startsWith(const char* text, const char* prefix) { return std::strncmp(text, prefix, std::strlen(prefix)) == 0; }

// How a signal is shown, and how many rows a curve takes beyond its own.
struct Look {
    unsigned flags;
    int extraRows;
};

Look lookOf(const SignalInfo& signal, bool signedPositions) {
    if (signal.bitsPerSample == 1) {
        return {Binary | RightJustified, 0};
    }
    if (isHeadPosition(signal.type)) {
        return {(signedPositions ? Signed : Decimal) | RightJustified | AnalogInterpolated, 4};
    }
    if (startsWith(signal.name, "LaserPower") || startsWith(signal.name, "Dac")) {
        return {Decimal | RightJustified | AnalogStep, 2};
    }
    if (startsWith(signal.name, "Port")) {
        return {Hexadecimal | RightJustified, 0};
    }
    return {Decimal | RightJustified, 0};
}

std::string absolutePath(const std::string& path) {
    std::error_code error;
    const std::filesystem::path absolute = std::filesystem::absolute(path, error);
    return error ? path : absolute.lexically_normal().string();
}

}  // namespace

std::string viewPathOf(const std::string& dumpPath) {
    const std::size_t dot = dumpPath.size() >= 4 ? dumpPath.size() - 4 : std::string::npos;
    std::string extension = dot == std::string::npos ? "" : dumpPath.substr(dot);
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return (extension == ".vcd" ? dumpPath.substr(0, dot) : dumpPath) + ".gtkw";
}

std::string gtkwaveView(const std::string& dumpPath, const std::vector<const SignalInfo*>& signals,
                        bool signedPositions, std::uint64_t timescalePs, std::uint64_t endTime) {
    std::ostringstream view;
    view << "[*] oltb: the view of " << std::filesystem::path(dumpPath).filename().string() << " for GTKWave (gtkwave "
         << std::filesystem::path(viewPathOf(dumpPath)).filename().string() << ")\n";
    view << "[*] time unit " << timescalePs << " ps; the whole capture is " << endTime << " units\n";
    view << "[dumpfile] \"" << absolutePath(dumpPath) << "\"\n";
    view << "[savefile] \"" << absolutePath(viewPathOf(dumpPath)) << "\"\n";
    view << "[timestart] 0\n";
    view << "[size] " << WindowWidth << ' ' << WindowHeight << "\n[pos] -1 -1\n";
    // GTKWave counts time in the dump's unit without its factor (10 ns as 1 ns times 10).
    std::uint64_t factor = timescalePs;
    while (factor % 1000 == 0) {
        factor /= 1000;
    }
    const double unitsPerPixel = std::max(1.0, static_cast<double>(endTime * factor)) / FilledPixels;
    char zoom[48];
    std::snprintf(zoom, sizeof zoom, "*%.6f -1", -std::log2(unitsPerPixel / UnitsPerPixelAtZoomZero));
    view << zoom;
    for (int marker = 0; marker < 26; ++marker) {
        view << " -1";  // the named markers A to Z, none set
    }
    view << "\n[sst_expanded] 0\n[signals_width] 160\n";
    for (const SignalInfo* signal : signals) {
        const Look look = lookOf(*signal, signedPositions);
        view << '@' << std::hex << look.flags << std::dec << "\noltb." << signal->name;
        if (signal->bitsPerSample > 1) {
            view << '[' << signal->bitsPerSample - 1 << ":0]";
        }
        view << '\n';
        if (look.extraRows > 0) {
            view << '@' << std::hex << AnalogExtension << std::dec << '\n';
            for (int row = 0; row < look.extraRows; ++row) {
                view << "-\n";
            }
        }
    }
    return view.str();
}

void writeGtkwaveView(const std::string& dumpPath, const VcdWriter& dump) {
    const std::string path = viewPathOf(dumpPath);
    const std::string text =
        gtkwaveView(dumpPath, dump.variableSignals(), dump.signedPositions(), dump.timescalePs(), dump.endTime());
    std::FILE* file = std::fopen(path.c_str(), "wb");
    bool written = file != nullptr && std::fwrite(text.data(), 1, text.size(), file) == text.size();
    int error = errno;
    if (file != nullptr && std::fclose(file) != 0 && written) {
        written = false;
        error = errno;
    }
    if (!written) {
        if (file != nullptr) {
            std::remove(path.c_str());
        }
        throw OutputError("cannot write " + path + ", the view of " + dumpPath +
                          " for GTKWave: " + std::strerror(error));
    }
}

}  // namespace oltb::cli
