// The formats oltb writes: each writer behind the one interface of an output file.
#include "tools/oltb/CaptureWriter.h"

#include "tools/oltb/CsvWriter.h"
#include "tools/oltb/GtkwaveView.h"
#include "tools/oltb/H5Writer.h"
#include "tools/oltb/VcdWriter.h"

#include <algorithm>
#include <cctype>

namespace oltb::cli {

namespace {

class CsvFile final : public CaptureWriter {
public:
    explicit CsvFile(int descriptor) : _csv(descriptor) {}
    void write(const oltbTraceEvent* events, std::size_t count) override { _csv.write(events, count); }
    void finish() override { _csv.flush(); }
    int error() const override { return _csv.error(); }

private:
    CsvWriter _csv;
};

// A dump, and the view file GTKWave opens it with beside it.
class VcdFile final : public CaptureWriter {
public:
    VcdFile(int descriptor, const std::string& path, const SeriesInfo& info)
        : _vcd(descriptor, info.signals, info.signedPositions, info.timeZero, info.vcd, info.valuesAtZero),
          _path(path) {}
    void write(const oltbTraceEvent* events, std::size_t count) override { _vcd.write(events, count); }
    void finish() override {
        _vcd.finish();
        if (_vcd.error() == 0) {
            writeGtkwaveView(_path, _vcd);
        }
    }
    int error() const override { return _vcd.error(); }
    std::vector<std::string> warnings(const std::string& path) const override {
        std::vector<std::string> texts;
        if (_vcd.eventsMovedForward() > 0) {
            texts.push_back(path + ": " + std::to_string(_vcd.eventsMovedForward()) +
                            " events earlier than their predecessors were written at the predecessor's time");
        }
        if (_vcd.eventsSkipped() > 0) {
            texts.push_back(path + ": " + std::to_string(_vcd.eventsSkipped()) +
                            " events of signals that are not traced were left out");
        }
        return texts;
    }

private:
    VcdWriter _vcd;
    std::string _path;
};

class H5File final : public CaptureWriter {
public:
    H5File(const std::string& path, const SeriesInfo& info) : _h5(path, info) {}
    void write(const oltbTraceEvent* events, std::size_t count) override {
        _h5.write(events, count);
        _h5.flushIfDue();
    }
    void finish() override { _h5.finish(); }

private:
    H5Writer _h5;
};

bool always() { return true; }

}  // namespace

const std::vector<WriterFormat>& writerFormats() {
    static const std::vector<WriterFormat> formats = {
        {".csv", false, always, "",
         [](int descriptor, const std::string&, const SeriesInfo&) -> std::unique_ptr<CaptureWriter> {
             return std::make_unique<CsvFile>(descriptor);
         }},
        {".vcd", false, always, "",
         [](int descriptor, const std::string& path, const SeriesInfo& info) -> std::unique_ptr<CaptureWriter> {
             return std::make_unique<VcdFile>(descriptor, path, info);
         }},
        {".h5", true, H5Writer::available, "HDF5",
         [](int, const std::string& path, const SeriesInfo& info) -> std::unique_ptr<CaptureWriter> {
             return std::make_unique<H5File>(path, info);
         }},
    };
    return formats;
}

const WriterFormat* writerFormatOf(const std::string& path) {
    if (path == "-") {
        return &writerFormats().front();
    }
    std::string lower = path;
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    for (const WriterFormat& format : writerFormats()) {
        const std::string extension = format.extension;
        if (lower.size() > extension.size() &&
            lower.compare(lower.size() - extension.size(), extension.size(), extension) == 0) {
            return &format;
        }
    }
    return nullptr;
}

}  // namespace oltb::cli
