// The .h5 side of CaptureReader. Each signal's group is read a chunk at a time; the next event of the series is
// the one whose `sequence` is next, found with a heap over the signals' first unread events. Places may be missing
// (a capture killed between two flushes can keep a fast signal's last chunk but lose a slow one's last events);
// one that comes twice or backwards means a damaged file. A file without the root attribute tool = "oltb" is
// someone else's file (a usage error); one that has it but whose groups are not as H5Writer makes them is damaged
// (it cannot be read). The reading runs in a child process (H5ChildCapture, at the end).
#include "tools/oltb/CaptureReader.h"
#include "tools/oltb/Errors.h"
#include "tools/oltb/H5Support.h"
#include "tools/oltb/H5Writer.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <queue>
#include <vector>

namespace oltb::cli {

namespace {

// What a dataset of a group must hold: numbers of this class (of at most 64 bits; unsigned integers where the
// column cannot be negative).
struct ColumnKind {
    H5T_class_t kind;
    bool unsignedOnly;
};

template <typename Value>
struct ColumnReader {
    h5::Handle dataset;
    std::vector<Value> values;

    // Opens the group's dataset `name`, which must be a list of numbers of the kind given; returns its length. The
    // chunk cache holds one chunk of the dataset, so that a file stored in chunks larger than a batch (one chunk for
    // the whole dataset, say) decompresses each chunk once; a chunk far larger than the data the file stores is
    // refused, as no writer makes one and reading it would take memory the file does not justify.
    hsize_t open(hid_t group, const char* name, const ColumnKind& kind) {
        const std::string what = std::string("dataset ") + name;
        dataset = h5::checked(H5Dopen2(group, name, H5P_DEFAULT), H5Dclose, what);
        const h5::Handle type = h5::checked(H5Dget_type(dataset.get()), H5Tclose, what);
        const h5::Handle space = h5::checked(H5Dget_space(dataset.get()), H5Sclose, what);
        hsize_t size = 0;
        const bool wrongSign = kind.unsignedOnly && H5Tget_sign(type.get()) != H5T_SGN_NONE;
        if (H5Tget_class(type.get()) != kind.kind || H5Tget_size(type.get()) > 8 || wrongSign ||
            H5Sget_simple_extent_ndims(space.get()) != 1 ||
            H5Sget_simple_extent_dims(space.get(), &size, nullptr) != 1) {
            throw h5::Failure(what + " is not a list of the numbers it should hold");
        }
        const h5::Handle creation = h5::checked(H5Dget_create_plist(dataset.get()), H5Pclose, what);
        hsize_t chunk = 0;
        const H5D_layout_t layout = H5Pget_layout(creation.get());
        if (layout != H5D_CHUNKED && H5Dget_storage_size(dataset.get()) < size * H5Tget_size(type.get())) {
            // HDF5 would read its values past the end of what it holds.
            throw h5::Failure(what + " stores fewer bytes than its " + std::to_string(size) + " values need");
        }
        if (layout == H5D_CHUNKED && H5Pget_chunk(creation.get(), 1, &chunk) == 1) {
            const hsize_t chunkBytes = chunk * H5Tget_size(type.get());  // as the cache holds it, in the file's type
            if (chunk > (hsize_t{1} << 32) || chunkBytes > H5Dget_storage_size(dataset.get()) * 1100 + (1 << 20)) {
                throw h5::Failure(what + " has chunks of " + std::to_string(chunk) +
                                  " values, far more than the file stores");
            }
            const h5::Handle access = h5::checked(H5Dget_access_plist(dataset.get()), H5Pclose, what);
            h5::check(H5Pset_chunk_cache(access.get(), 101, chunkBytes + 4096, 1.0), "chunk cache");
            dataset.close();  // an open dataset keeps the cache it was opened with, also for a second open
            dataset = h5::checked(H5Dopen2(group, name, access.get()), H5Dclose, what);
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

// Integers are read as 64-bit numbers, so that a value stored wider than oltb stores it is seen as it is (and
// refused when its signal cannot carry it) rather than clamped by HDF5's conversion.
constexpr ColumnKind Ticks{H5T_INTEGER, true};
constexpr ColumnKind Times{H5T_FLOAT, false};
constexpr ColumnKind Values{H5T_INTEGER, false};
constexpr ColumnKind Sequence{H5T_INTEGER, true};

struct SignalReader {
    const SignalInfo* signal = nullptr;
    SeriesRule::Positions positions = SeriesRule::Positions::Either;
    h5::Handle group;
    ColumnReader<std::uint64_t> ticks;
    ColumnReader<double> time;
    ColumnReader<std::int64_t> value;
    ColumnReader<std::int64_t> overflow;
    ColumnReader<std::uint64_t> sequence;
    hsize_t size = 0;
    hsize_t loadedEnd = 0;     // events [loadedEnd - loaded, loadedEnd) are in memory
    std::size_t position = 0;  // the next of them

    void open(hid_t file, const SignalInfo* info) {
        signal = info;
        group = h5::checked(H5Gopen2(file, info->name, H5P_DEFAULT), H5Gclose, "opening the group");
        const hid_t id = group.get();
        size = ticks.open(id, "timestamp_ticks", Ticks);
        const hsize_t sizes[] = {time.open(id, "time_us", Times), value.open(id, "value", Values),
                                 overflow.open(id, "overflow", Values), sequence.open(id, "sequence", Sequence)};
        for (const hsize_t other : sizes) {
            if (other != size) {
                throw h5::Failure("its datasets differ in length");
            }
        }
    }

    bool hasUnread() const { return position < sequence.values.size(); }

    // Loads the next batch when every loaded event was taken; false at the end.
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
        value.load(H5T_NATIVE_INT64, loadedEnd, count);
        overflow.load(H5T_NATIVE_INT64, loadedEnd, count);
        sequence.load(H5T_NATIVE_UINT64, loadedEnd, count);
        loadedEnd += count;
        position = 0;
        return true;
    }

    // The next event; the reason in `problem` when its value or overflow flag is none the signal can carry.
    oltbTraceEvent take(std::string& problem) {
        const std::int64_t sample = value.values[position];
        const std::int64_t flag = overflow.values[position];
        problem = SeriesRule::valueProblem(*signal, sample, positions);
        if (problem.empty() && flag != 0 && flag != 1) {
            problem = "overflow " + std::to_string(flag) + " is neither 0 nor 1";
        }
        const oltbTraceEvent event{ticks.values[position], time.values[position], signal->type, flag != 0,
                                   static_cast<std::int32_t>(sample)};
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
            _file = h5::checked(H5Fopen(path.c_str(), H5F_ACC_RDONLY, h5::boundedFileAccess().get()), H5Fclose,
                                "opening the file");
            readAttributes();
            for (const SignalInfo& signal : allSignals()) {
                if (H5Lexists(_file.get(), signal.name, H5P_DEFAULT) > 0) {
                    openSignal(&signal);
                }
            }
        } catch (const h5::Failure& failure) {
            throw InputError("cannot read " + _path + ": " + failure.what());
        }
        if (_toolUnread && _signals.empty()) {
            throw UsageError(_path + ": an HDF5 file, but no capture written by oltb (no signal groups)");
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
                const hsize_t row = signal.loadedEnd - signal.sequence.values.size() + signal.position;
                std::string problem;
                events[count] = signal.take(problem);
                if (problem.empty()) {
                    problem = _rule.orderProblem(events[count]);
                }
                if (!problem.empty()) {
                    throw UsageError(_path + ": group " + signal.signal->name + ", event " + std::to_string(row) +
                                     ": not an event of an oltb capture: " + problem);
                }
                ++count;
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
        const h5::StringAttribute tool = h5::readStringAttribute(root, "tool");
        // The first versions of oltb wrote variable-length strings, whose text lies in the global heap. Reading it
        // is what a damaged file can crash or hang, so such a file is taken by its groups, and its texts are left.
        _toolUnread = tool.variableLength;
        if (!_toolUnread && tool.text != H5Writer::ToolName) {
            throw UsageError(_path + ": an HDF5 file, but no capture written by oltb (no attribute tool = \"oltb\")");
        }
        info.host = h5::readStringAttribute(root, "server").text;
        info.startTimeUtc = h5::readStringAttribute(root, "start_time_utc").text;
        const auto start = h5::readIntegerAttribute(root, "start_label");
        const auto end = h5::readIntegerAttribute(root, "end_label");
        if (start && end) {
            if (*start < 0 || *start > 65535 || *end < 0 || *end > 65535) {
                throw h5::Failure("the labels " + std::to_string(*start) + " and " + std::to_string(*end) +
                                  " are not both within 0..65535");
            }
            info.startLabel = static_cast<std::uint16_t>(*start);
            info.endLabel = static_cast<std::uint16_t>(*end);
        }
    }

    void openSignal(const SignalInfo* signal) {
        SignalReader& reader = _signals.emplace_back();
        try {
            reader.open(_file.get(), signal);
            if (isHeadPosition(signal->type)) {
                const bool raw = h5::readIntegerAttribute(reader.group.get(), "signed") == 0;
                reader.positions = raw ? SeriesRule::Positions::Raw : SeriesRule::Positions::Signed;
                if (_headGroups > 0 && info.signedPositions == raw) {
                    throw h5::Failure("its head positions are " + std::string(raw ? "raw" : "signed") +
                                      ", those of the groups before it are not");
                }
                info.signedPositions = !raw;
                ++_headGroups;
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
    bool _toolUnread = false;
    int _headGroups = 0;
    std::vector<SignalReader> _signals;
    // The signals' next events by their place in the series, the earliest on top.
    using Next = std::pair<std::uint64_t, std::size_t>;
    std::priority_queue<Next, std::vector<Next>, std::greater<Next>> _next;
    std::uint64_t _sequence = 0;  // the smallest place the next event may have
    SeriesRule _rule;
};

}  // namespace

namespace {

// HDF5 1.10 itself reads out of bounds, crashes or loops on some damaged files, wherever the damage lies (fuzzing
// found reads past its own buffers where a damaged chunk inflates to less than its size). So no HDF5 code runs in
// the reading process: a child process reads the file and hands the series over a pipe, and a child that crashes,
// ends without finishing or sends nothing for a minute has failed on a damaged file, which is the file's failure,
// not the tool's. Over the pipe go, in the machine's own layout: the outcome of opening (0, or 1 and 2 for a usage
// or an input error with its text), what the file tells about the series, then batches (a count, then so many
// events), a count of 0 at the end, or ErrorBatch, the kind and the text of an error met on the way.
constexpr std::uint32_t ErrorBatch = 0xFFFFFFFF;
constexpr int SilenceLimitMs = 60000;

class Pipe {
public:
    explicit Pipe(int descriptor) : _descriptor(descriptor) {}
    void put(const void* bytes, std::size_t size) {
        const auto* next = static_cast<const char*>(bytes);
        while (size > 0) {
            const ssize_t written = ::write(_descriptor, next, size);
            if (written <= 0 && errno != EINTR) std::_Exit(0);  // the reader has gone
            if (written > 0) next += written, size -= static_cast<std::size_t>(written);
        }
    }
    void putNumber(std::uint32_t number) { put(&number, sizeof number); }
    void putText(const std::string& text) {
        putNumber(static_cast<std::uint32_t>(text.size()));
        put(text.data(), text.size());
    }
    void putError(int kind, const char* text) {
        putNumber(static_cast<std::uint32_t>(kind));
        putText(text);
    }

private:
    int _descriptor;
};

[[noreturn]] void readForParent(const std::string& path, int descriptor) {
    Pipe out(descriptor);
    std::unique_ptr<H5Capture> capture;
    try {
        capture = std::make_unique<H5Capture>(path);
    } catch (const UsageError& error) {
        out.putError(1, error.what());
        std::_Exit(0);
    } catch (const std::exception& error) {
        out.putError(2, error.what());
        std::_Exit(0);
    }
    const SeriesInfo& info = capture->info;
    out.putNumber(0);
    out.putNumber(info.signedPositions ? 1 : 0);
    out.putNumber(static_cast<std::uint32_t>(info.signals.size()));
    for (const SignalInfo* signal : info.signals) out.putNumber(static_cast<std::uint32_t>(signal->type));
    out.putText(info.host);
    out.putText(info.startTimeUtc);
    out.putNumber(info.startLabel && info.endLabel ? 1 : 0);
    out.putNumber(info.startLabel.value_or(0));
    out.putNumber(info.endLabel.value_or(0));
    std::vector<oltbTraceEvent> batch(H5Writer::ChunkEvents);
    try {
        while (const std::size_t count = capture->read(batch.data(), batch.size())) {
            out.putNumber(static_cast<std::uint32_t>(count));
            out.put(batch.data(), count * sizeof(oltbTraceEvent));
        }
        out.putNumber(0);
    } catch (const UsageError& error) {
        out.putNumber(ErrorBatch);
        out.putError(1, error.what());
    } catch (const std::exception& error) {
        out.putNumber(ErrorBatch);
        out.putError(2, error.what());
    }
    std::_Exit(0);
}

class H5ChildCapture : public CaptureReader::Source {
public:
    explicit H5ChildCapture(const std::string& path) : _path(path) {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0) {
            throw InputError("cannot read " + path + ": " + std::strerror(errno));
        }
        _child = ::fork();  // the child ends with _Exit: what waits in the parent's stdio buffers is not doubled
        if (_child == 0) {
            // The child keeps only the pipe (and the standard streams): a client's socket of the simulator, say,
            // must close when the simulator closes it, not when the child ends.
            ::close_range(3, static_cast<unsigned>(ends[1]) - 1, 0);
            ::close_range(static_cast<unsigned>(ends[1]) + 1, ~0U, 0);
            readForParent(path, ends[1]);
        }
        ::close(ends[1]);
        _descriptor = ends[0];
        if (_child < 0) {
            ::close(_descriptor);
            throw InputError("cannot read " + path +
                             ": cannot start the process that reads it: " + std::strerror(errno));
        }
        try {
            readDescription();
        } catch (...) {
            stopChild();
            throw;
        }
    }

    ~H5ChildCapture() override { stopChild(); }

    std::size_t read(oltbTraceEvent* events, std::size_t capacity) override {
        std::size_t count = 0;
        while (count < capacity && !_ended) {
            if (_next == _batch.size()) {
                const std::uint32_t size = number();
                if (size == ErrorBatch) {
                    takeOutcome();
                }
                if (size > H5Writer::ChunkEvents) {
                    failed("a batch of " + std::to_string(size) + " events");
                }
                _ended = size == 0;
                _batch.resize(size);
                _next = 0;
                take(_batch.data(), size * sizeof(oltbTraceEvent));
                continue;
            }
            const std::size_t taken = std::min(capacity - count, _batch.size() - _next);
            std::copy_n(_batch.data() + _next, taken, events + count);
            _next += taken;
            count += taken;
        }
        if (_ended && count == 0) {
            finishChild();
        }
        return count;
    }

private:
    void readDescription() {
        takeOutcome();
        info.signedPositions = number() != 0;
        for (std::uint32_t count = number(), i = 0; i < count; ++i) {
            const SignalInfo* signal = findSignalByType(static_cast<int>(number()));
            if (signal == nullptr) failed("an unknown signal");
            info.signals.push_back(signal);
        }
        info.host = text();
        info.startTimeUtc = text();
        const bool labels = number() != 0;
        const auto start = static_cast<std::uint16_t>(number());
        const auto end = static_cast<std::uint16_t>(number());
        if (labels) {
            info.startLabel = start;
            info.endLabel = end;
        }
    }

    // The child's end: one that crashed or failed otherwise (a sanitizer's exit) failed on a damaged file.
    void finishChild() {
        if (_child <= 0) return;
        int status = 0;
        ::waitpid(_child, &status, 0);
        _child = -1;
        if (WIFSIGNALED(status) || WEXITSTATUS(status) != 0) {
            failed(WIFSIGNALED(status) ? strsignal(WTERMSIG(status))
                                       : "exit code " + std::to_string(WEXITSTATUS(status)));
        }
    }

    // Ends the child, if it still runs: it may wait to hand over events that are no longer wanted. Returns how it
    // ended ("Segmentation fault", "exit code 1"); empty when it had been ended before, or ended well.
    std::string stopChild() {
        if (_descriptor >= 0) {
            ::close(_descriptor);
            _descriptor = -1;
        }
        if (_child <= 0) return {};
        ::kill(_child, SIGKILL);
        int status = 0;
        ::waitpid(_child, &status, 0);
        _child = -1;
        if (WIFSIGNALED(status) && WTERMSIG(status) != SIGKILL) return strsignal(WTERMSIG(status));
        return WIFEXITED(status) && WEXITSTATUS(status) != 0 ? "exit code " + std::to_string(WEXITSTATUS(status)) : "";
    }

    // `how` the child failed; when not known, how it ended tells.
    [[noreturn]] void failed(std::string how) {
        const std::string ended = stopChild();
        if (how.empty()) how = ended.empty() ? "it ended early" : ended;
        throw InputError("cannot read " + _path + ": HDF5 failed on it (" + how + "), a damaged file");
    }

    // Opening's outcome, or an error met on the way: thrown as the child met it.
    void takeOutcome() {
        const std::uint32_t kind = number();
        if (kind == 1) throw UsageError(text());
        if (kind == 2) throw InputError(text());
        if (kind != 0) failed("an unknown answer");
    }

    void take(void* bytes, std::size_t size) {
        auto* next = static_cast<char*>(bytes);
        while (size > 0) {
            pollfd readable{_descriptor, POLLIN, 0};
            const int ready = ::poll(&readable, 1, SilenceLimitMs);
            if (ready < 0 && errno == EINTR) continue;
            if (ready <= 0) failed(ready == 0 ? "nothing for " + std::to_string(SilenceLimitMs / 1000) + " s" : "");
            const ssize_t got = ::read(_descriptor, next, size);
            if (got < 0 && errno == EINTR) continue;
            if (got <= 0) failed("");  // the child ended before it finished: how, its status tells
            next += got;
            size -= static_cast<std::size_t>(got);
        }
    }
    std::uint32_t number() {
        std::uint32_t value = 0;
        take(&value, sizeof value);
        return value;
    }
    std::string text() {
        const std::uint32_t size = number();
        if (size > (1U << 20)) failed("an overlong text");
        std::string value(size, '\0');
        take(value.data(), size);
        return value;
    }

    std::string _path;
    pid_t _child = -1;
    int _descriptor = -1;
    std::vector<oltbTraceEvent> _batch;
    std::size_t _next = 0;
    bool _ended = false;
};

}  // namespace

std::unique_ptr<CaptureReader::Source> openH5Capture(const std::string& path) {
    return std::make_unique<H5ChildCapture>(path);
}

std::unique_ptr<CaptureReader::Source> openH5CaptureInThisProcess(const std::string& path) {
    return std::make_unique<H5Capture>(path);
}

}  // namespace oltb::cli
