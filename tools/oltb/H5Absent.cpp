// Built instead of the HDF5 files when HDF5 is not installed: .h5 files are refused as a usage error before anything
// is opened or a server is asked, so no writer is ever made.
#include "tools/oltb/CaptureReader.h"
#include "tools/oltb/Errors.h"
#include "tools/oltb/H5Writer.h"

namespace oltb::cli {

struct H5Writer::State {};

bool H5Writer::available() { return false; }

H5Writer::H5Writer(const std::string& path, const SeriesInfo&) {
    throw UsageError(path + ": this oltb was built without HDF5");
}

H5Writer::~H5Writer() = default;
void H5Writer::write(const oltbTraceEvent*, std::size_t) {}
void H5Writer::flushIfDue() {}
void H5Writer::finish() {}

std::unique_ptr<CaptureReader::Source> openH5Capture(const std::string& path) {
    throw UsageError(path + ": this oltb was built without HDF5 (install libhdf5-dev and build again)");
}

}  // namespace oltb::cli
