// The .h5 side of CaptureReader. Each signal's group is read a chunk at a time; the next event of the series is
// the one whose `sequence` is next, found with a heap over the signals' first unread events. Places may be missing
// (a capture killed between two flushes can keep a fast signal's last chunk but lose a slow one's last events);
// one that comes twice or backwards means a damaged file. A file without the root attribute tool = "oltb" is
// someone else's file (a usage error); one that has it but whose groups are not as H5Writer makes them is damaged
// (it cannot be read).
#include "tools/oltb/CaptureReader.h"
#include "tools/oltb/Errors.h"
#include "tools/oltb/H5Support.h"
#include "tools/oltb/H5Writer.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <functional>
#include <queue>
#include <vector>

namespace oltb::cli {

namespace {

template <typename Value>
struct ColumnReader {
    h5::Handle dataset;
    std::vector<Value> values;

    // Opens the group's dataset `name`, which must be a list of numbers of the kind given; returns its length.
    hsize_t open(hid_t group, const char* name, H5T_class_t kind, hid_t access) {
        dataset = h5::checked(H5Dopen2(group, name, access), H5Dclose, std::string("dataset ") + name);
        const h5::Handle type = h5::checked(H5Dget_type(dataset.get()), H5Tclose, std::string("dataset ") + name);
        const h5::Handle space = h5::checked(H5Dget_space(dataset.get()), H5Sclose, std::string("dataset ") + name);
        hsize_t size = 0;
        if (H5Tget_class(type.get()) != kind || H5Sget_simple_extent_ndims(space.get()) != 1 ||
            H5Sget_simple_extent_dims(space.get(), &size, nullptr) != 1) {
            throw h5::Failure(std::string("dataset ") + name + " is not a list of the numbers it should hold");
        }
        return size;
    }

    void load(hid_t memoryType, hsize_t start, hsize_t count) {
        values.resize(count);
        const h5::Handle fileSpace = h5::checked(H5Dget_space(dataset.get()), H5Sclose, "dataspace");
        h5::check(H5Sselect_hyperslab(fileSpace.get(), H5S_SELECT_SET, &start, nullptr, &count, nullptr), "selecting");
        const h5::Handle memorySpace = h5::checked(H5Screate_simple(1, &count, nullptr), H5Sclose, "dataspace");
        h5::check(H5Dread(dataset.get(), memoryType, memorySpace.get(), fileSpace.get(), H5P_DEFAULT, values.data()),
                  "reading events");
    }
};

struct SignalReader {
    const SignalInfo* signal = nullptr;
    h5::Handle group;
    ColumnReader<std::uint64_t> ticks;
    ColumnReader<double> time;
    ColumnReader<std::int32_t> value;
    ColumnReader<std::uint8_t> overflow;
    ColumnReader<std::uint64_t> sequence;
    hsize_t size = 0;
    hsize_t loadedEnd = 0;      // events [loadedEnd - loaded, loadedEnd) are in memory
    std::size_t position = 0;   // the next of them

    // `access` turns the chunk cache off: each chunk is read once, and 5 caches per signal would hold megabytes.
    void open(hid_t file, const SignalInfo* info, hid_t access) {
        signal = info;
        group = h5::checked(H5Gopen2(file, info->name, H5P_DEFAULT), H5Gclose, "opening the group");
        const hid_t id = group.get();
        size = ticks.open(id, "timestamp_ticks", H5T_INTEGER, access);
        const hsize_t sizes[] = {time.open(id, "time_us", H5T_FLOAT, access),
                                 value.open(id, "value", H5T_INTEGER, access),
                                 overflow.open(id, "overflow", H5T_INTEGER, access),
                                 sequence.open(id, "sequence", H5T_INTEGER, access)};
        for (const hsize_t other : sizes) {
            if (other != size) {
                throw h5::Failure("its datasets differ in length");
            }
        }
    }

    bool hasUnread() const { return position < sequence.values.size(); }

    // Loads the next chunk when every loaded event was taken; false at the end.
    bool loadIfTaken() {
        if (hasUnread()) {
            return true;
        }
        if (loadedEnd == size) {
            return false;
        }
        const hsize_t count = std::min<hsize_t>(H5Writer::ChunkEvents, size - loadedEnd);
        ticks.load(H5T_NATIVE_UINT64, loadedEnd, count);
        time.load(H5T_NATIVE_DOUBLE, loadedEnd, count);
        value.load(H5T_NATIVE_INT32, loadedEnd, count);
        overflow.load(H5T_NATIVE_UINT8, loadedEnd, count);
        sequence.load(H5T_NATIVE_UINT64, loadedEnd, count);
        loadedEnd += count;
        position = 0;
        return true;
    }

    oltbTraceEvent take() {
        const oltbTraceEvent event{ticks.values[position], time.values[position], signal->type,
                                   overflow.values[position] != 0, value.values[position]};
        ++position;
        return event;
    }
};

class H5Capture : public CaptureReader::Source {
public:
    explicit H5Capture(const std::string& path) : _path(path) {
        if (!std::ifstream(path, std::ios::binary)) {
            throw InputError("cannot read " + path + ": " + std::strerror(errno));
        }
        h5::silenceLibraryErrors();
        if (H5Fis_hdf5(path.c_str()) == 0) {
            throw UsageError(path + ": not an HDF5 file, so no capture written by oltb");
        }
        try {
            _file = h5::checked(H5Fopen(path.c_str(), H5F_ACC_RDONLY, h5::boundedFileAccess().get()), H5Fclose, "opening the file");
            _access = h5::checked(H5Pcreate(H5P_DATASET_ACCESS), H5Pclose, "dataset properties");
            h5::check(H5Pset_chunk_cache(_access.get(), 0, 0, 1.0), "chunk cache");
            readAttributes();
            for (const SignalInfo& signal : allSignals()) {
                if (H5Lexists(_file.get(), signal.name, H5P_DEFAULT) > 0) {
                    openSignal(&signal);
                }
            }
        } catch (const h5::Failure& failure) {
            throw InputError("cannot read " + _path + ": " + failure.what());
        }
    }

    std::size_t read(oltbTraceEvent* events, std::size_t capacity) override {
        std::size_t count = 0;
        try {
            while (count < capacity && !_next.empty()) {
                const auto [sequence, index] = _next.top();
                _next.pop();
                SignalReader& signal = _signals[index];
                if (sequence < _sequence) {
                    throw h5::Failure(std::string("group ") + signal.signal->name + ": event " +
                                      std::to_string(sequence) + " of the series comes twice or out of order");
                }
                events[count++] = signal.take();
                _sequence = sequence + 1;
                queueNext(index);
            }
        } catch (const h5::Failure& failure) {
            throw InputError("cannot read " + _path + ": " + failure.what());
        }
        return count;
    }

private:
    void readAttributes() {
        const hid_t root = _file.get();
        if (h5::readStringAttribute(root, "tool").value_or("") != H5Writer::ToolName) {
            throw UsageError(_path + ": an HDF5 file, but no capture written by oltb (no attribute tool = \"oltb\")");
        }
        info.host = h5::readStringAttribute(root, "server").value_or("");
        info.startTimeUtc = h5::readStringAttribute(root, "start_time_utc").value_or("");
        const auto start = h5::readIntegerAttribute(root, "start_label");
        const auto end = h5::readIntegerAttribute(root, "end_label");
        if (start && end) {
            info.startLabel = static_cast<std::uint16_t>(*start);
            info.endLabel = static_cast<std::uint16_t>(*end);
        }
    }

    void openSignal(const SignalInfo* signal) {
        SignalReader& reader = _signals.emplace_back();
        try {
            reader.open(_file.get(), signal, _access.get());
            if (isHeadPosition(signal->type) && h5::readIntegerAttribute(reader.group.get(), "signed") == 0) {
                info.signedPositions = false;
            }
        } catch (const h5::Failure& failure) {
            throw h5::Failure(std::string("group ") + signal->name + ": " + failure.what());
        }
        info.signals.push_back(signal);
        queueNext(_signals.size() - 1);
    }

    void queueNext(std::size_t index) {
        SignalReader& signal = _signals[index];
        if (signal.loadIfTaken()) {
            _next.emplace(signal.sequence.values[signal.position], index);
        }
    }

    std::string _path;
    h5::Handle _file;
    h5::Handle _access;
    std::vector<SignalReader> _signals;
    // The signals' next events by their place in the series, the earliest on top.
    using Next = std::pair<std::uint64_t, std::size_t>;
    std::priority_queue<Next, std::vector<Next>, std::greater<Next>> _next;
    std::uint64_t _sequence = 0;  // the smallest place the next event may have
};

}  // namespace

std::unique_ptr<CaptureReader::Source> openH5Capture(const std::string& path) {
    return std::make_unique<H5Capture>(path);
}

}  // namespace oltb::cli
