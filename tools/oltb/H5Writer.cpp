// Each signal keeps the chunk it is filling, one array per column. A full chunk is shuffled and deflated here and
// stored with a direct chunk write, which is what HDF5's own filter pipeline would store, at a fraction of its cost.
// The chunk cache is turned off, since chunks are never read back. Once a second every chunk being filled is stored
// as far as it goes (the rest of the chunk zero, the dataset's extent at its last event) and the file flushed, so
// that what is on disk is a whole series up to that moment: a chunk filled across a flush is then stored again,
// which only slow signals' chunks are. Shuffle puts the bytes of equal significance together (the high bytes of
// times and counts barely change), which deflate then shrinks well even at its fastest level.
#include "tools/oltb/H5Writer.h"

#include "tools/oltb/Errors.h"
#include "tools/oltb/H5Support.h"

#include <libdeflate.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <vector>

#ifndef OLTB_TOOL_VERSION
#define OLTB_TOOL_VERSION "unknown"
#endif

namespace oltb::cli {

namespace {

constexpr int DeflateLevel = 1;
constexpr auto FlushInterval = std::chrono::seconds(1);

std::string signalList(const std::vector<const SignalInfo*>& signals) {
    std::string text;
    for (const SignalInfo* signal : signals) {
        text += (text.empty() ? "" : ",") + std::string(signal->name);
    }
    return text;
}

// Shuffles and deflates chunks as HDF5's shuffle and deflate filters do: the bytes of each significance together,
// then a zlib stream. libdeflate compresses a whole buffer at once about three times faster than zlib's streams.
class ChunkCompressor {
public:
    ChunkCompressor() : _compressor(libdeflate_alloc_compressor(DeflateLevel)) {
        if (_compressor == nullptr) {
            throw h5::Failure("deflate: cannot start the compressor");
        }
        _compressed.resize(libdeflate_zlib_compress_bound(_compressor, H5Writer::ChunkEvents * 8));
    }
    ~ChunkCompressor() { libdeflate_free_compressor(_compressor); }
    ChunkCompressor(const ChunkCompressor&) = delete;
    ChunkCompressor& operator=(const ChunkCompressor&) = delete;

    // The stored form of a chunk of H5Writer::ChunkEvents values of `valueBytes` bytes each; valid until the next
    // call.
    std::pair<const unsigned char*, std::size_t> compress(const void* values, std::size_t valueBytes) {
        const std::size_t count = H5Writer::ChunkEvents;
        const auto* bytes = static_cast<const unsigned char*>(values);
        const unsigned char* input = bytes;
        if (valueBytes > 1) {
            _shuffled.resize(count * valueBytes);
            for (std::size_t significance = 0; significance < valueBytes; ++significance) {
                unsigned char* out = _shuffled.data() + significance * count;
                for (std::size_t index = 0; index < count; ++index)
                    out[index] = bytes[index * valueBytes + significance];
            }
            input = _shuffled.data();
        }
        const std::size_t length =
            libdeflate_zlib_compress(_compressor, input, count * valueBytes, _compressed.data(), _compressed.size());
        if (length == 0) throw h5::Failure("deflate: a chunk did not fit");
        return {_compressed.data(), length};
    }

private:
    libdeflate_compressor* _compressor;
    std::vector<unsigned char> _shuffled;
    std::vector<unsigned char> _compressed;
};

// One column of a signal: its dataset and the chunk being filled.
template <typename Value>
struct Column {
    h5::Handle dataset;
    std::array<Value, H5Writer::ChunkEvents> chunk{};

    void create(hid_t group, const char* name, hid_t fileType, hid_t creation, hid_t access) {
        const hsize_t empty = 0;
        const hsize_t unlimited = H5S_UNLIMITED;
        const h5::Handle space = h5::checked(H5Screate_simple(1, &empty, &unlimited), H5Sclose, "dataspace");
        dataset = h5::checked(H5Dcreate2(group, name, fileType, space.get(), H5P_DEFAULT, creation, access), H5Dclose,
                              std::string("creating dataset ") + name);
    }

    // Stores the chunk that begins at event `first`, with the dataset's extent at `size` events.
    void store(ChunkCompressor& compressor, hsize_t first, hsize_t size) {
        h5::check(H5Dset_extent(dataset.get(), &size), "extending a dataset");
        const auto [bytes, length] = compressor.compress(chunk.data(), sizeof(Value));
        h5::check(H5Dwrite_chunk(dataset.get(), H5P_DEFAULT, 0, &first, length, bytes), "writing events");
    }
};

struct SignalGroup {
    const SignalInfo* signal;
    h5::Handle group;
    Column<std::uint64_t> ticks;
    Column<double> time;
    Column<std::int32_t> value;
    Column<std::uint8_t> overflow;
    Column<std::uint64_t> sequence;
    hsize_t firstOfChunk = 0;  // the event at which the chunk being filled begins
    std::size_t filled = 0;    // events in the chunk being filled
    std::size_t stored = 0;    // of which the file holds so many

    // Stores the chunk being filled as far as it goes; a full one is done with and the next one begins.
    void storeChunk(ChunkCompressor& compressor) {
        if (filled == stored) {
            return;
        }
        if (filled < H5Writer::ChunkEvents) {
            // The part of the chunk past the dataset's end is never read; zero, it compresses to nothing.
            const std::size_t rest = H5Writer::ChunkEvents - filled;
            std::fill_n(ticks.chunk.begin() + filled, rest, 0);
            std::fill_n(time.chunk.begin() + filled, rest, 0.0);
            std::fill_n(value.chunk.begin() + filled, rest, 0);
            std::fill_n(overflow.chunk.begin() + filled, rest, 0);
            std::fill_n(sequence.chunk.begin() + filled, rest, 0);
        }
        const hsize_t size = firstOfChunk + filled;
        ticks.store(compressor, firstOfChunk, size);
        time.store(compressor, firstOfChunk, size);
        value.store(compressor, firstOfChunk, size);
        overflow.store(compressor, firstOfChunk, size);
        sequence.store(compressor, firstOfChunk, size);
        stored = filled;
        if (filled == H5Writer::ChunkEvents) {
            firstOfChunk += H5Writer::ChunkEvents;
            filled = 0;
            stored = 0;
        }
    }
};

}  // namespace

struct H5Writer::State {
    std::string path;
    bool signedPositions = true;
    h5::Handle file;  // closed last: the groups below belong to it
    h5::Handle creation;
    h5::Handle access;
    std::vector<std::unique_ptr<SignalGroup>> groups;
    std::array<SignalGroup*, 128> groupOfType{};  // null for none
    ChunkCompressor compressor;
    std::uint64_t nextSequence = 0;
    std::chrono::steady_clock::time_point lastFlush = std::chrono::steady_clock::now();

    SignalGroup& addGroup(const SignalInfo* signal) {
        SignalGroup& added = *groups.emplace_back(std::make_unique<SignalGroup>());
        added.signal = signal;
        added.group = h5::checked(H5Gcreate2(file.get(), signal->name, H5P_DEFAULT, H5P_DEFAULT, H5P_DEFAULT), H5Gclose,
                                  std::string("creating group ") + signal->name);
        const hid_t group = added.group.get();
        h5::writeAttribute(group, "event_type", H5T_STD_U8LE, static_cast<long long>(signal->type));
        h5::writeAttribute(group, "bits_per_sample", H5T_STD_U8LE, signal->bitsPerSample);
        h5::writeAttribute(group, "signed", H5T_STD_U8LE, signedPositions && isHeadPosition(signal->type) ? 1 : 0);
        added.ticks.create(group, "timestamp_ticks", H5T_STD_U64LE, creation.get(), access.get());
        added.time.create(group, "time_us", H5T_IEEE_F64LE, creation.get(), access.get());
        added.value.create(group, "value", H5T_STD_I32LE, creation.get(), access.get());
        added.overflow.create(group, "overflow", H5T_STD_U8LE, creation.get(), access.get());
        added.sequence.create(group, "sequence", H5T_STD_U64LE, creation.get(), access.get());
        groupOfType[static_cast<std::size_t>(signal->type)] = &added;
        return added;
    }

    // Closes everything and removes the file: after a failed write HDF5 does not promise a readable file, and a
    // file that reads as no capture at all would only mislead.
    [[noreturn]] void fail(const h5::Failure& failure) {
        groupOfType.fill(nullptr);
        groups.clear();
        creation.close();
        access.close();
        file.close();
        std::remove(path.c_str());
        throw OutputError("cannot write " + path + ": " + failure.what() + "; the incomplete file is removed");
    }
};

H5Writer::H5Writer(const std::string& path, const SeriesInfo& info) : _state(std::make_unique<State>()) {
    State& state = *_state;
    state.path = path;
    state.signedPositions = info.signedPositions;
    state.groupOfType.fill(nullptr);
    h5::silenceLibraryErrors();
    try {
        // Space that a rewritten chunk gives up is never reused: until the next flush the file on disk still points
        // at the old copy, so a capture killed in between leaves a file that reads as of the last flush. (A file
        // made so needs a reader with HDF5 1.10 or newer.)
        const h5::Handle fileCreation = h5::checked(H5Pcreate(H5P_FILE_CREATE), H5Pclose, "file properties");
        h5::check(H5Pset_file_space_strategy(fileCreation.get(), H5F_FSPACE_STRATEGY_NONE, false, 1), "file space");
        state.file =
            h5::checked(H5Fcreate(path.c_str(), H5F_ACC_TRUNC, fileCreation.get(), h5::boundedFileAccess().get()),
                        H5Fclose, "creating the file");
        state.creation = h5::checked(H5Pcreate(H5P_DATASET_CREATE), H5Pclose, "dataset properties");
        const hsize_t chunk = ChunkEvents;
        h5::check(H5Pset_chunk(state.creation.get(), 1, &chunk), "chunking");
        h5::check(H5Pset_shuffle(state.creation.get()), "shuffle filter");
        h5::check(H5Pset_deflate(state.creation.get(), static_cast<unsigned>(DeflateLevel)), "deflate filter");
        state.access = h5::checked(H5Pcreate(H5P_DATASET_ACCESS), H5Pclose, "dataset properties");
        h5::check(H5Pset_chunk_cache(state.access.get(), 0, 0, 1.0), "chunk cache");

        const hid_t root = state.file.get();
        h5::writeAttribute(root, "tool", ToolName);
        h5::writeAttribute(root, "tool_version", OLTB_TOOL_VERSION);
        if (!info.host.empty()) {
            h5::writeAttribute(root, "server", info.host);
        }
        h5::writeAttribute(root, "traced_signals", signalList(info.signals));
        if (!info.startTimeUtc.empty()) {
            h5::writeAttribute(root, "start_time_utc", info.startTimeUtc);
        }
        if (info.startLabel && info.endLabel) {
            h5::writeAttribute(root, "start_label", H5T_STD_U16LE, *info.startLabel);
            h5::writeAttribute(root, "end_label", H5T_STD_U16LE, *info.endLabel);
        }
        for (const SignalInfo* signal : info.signals) {
            state.addGroup(signal);
        }
    } catch (const h5::Failure& failure) {
        state.fail(failure);
    }
}

H5Writer::~H5Writer() = default;

bool H5Writer::available() { return true; }

void H5Writer::write(const oltbTraceEvent* events, std::size_t count) {
    State& state = *_state;
    try {
        for (const oltbTraceEvent* event = events; event != events + count; ++event) {
            const auto type = static_cast<std::size_t>(event->Type);
            SignalGroup* group = type < state.groupOfType.size() ? state.groupOfType[type] : nullptr;
            if (group == nullptr) {
                const SignalInfo* signal = findSignalByType(event->Type);
                if (signal == nullptr) {
                    continue;
                }
                group = &state.addGroup(signal);
            }
            const std::size_t slot = group->filled++;
            group->ticks.chunk[slot] = event->Timestamp;
            group->time.chunk[slot] = event->Time;
            group->value.chunk[slot] = event->Value;
            group->overflow.chunk[slot] = event->Overflow ? 1 : 0;
            group->sequence.chunk[slot] = state.nextSequence++;
            if (group->filled == ChunkEvents) {
                group->storeChunk(state.compressor);
            }
        }
    } catch (const h5::Failure& failure) {
        state.fail(failure);
    }
}

void H5Writer::flushIfDue() {
    State& state = *_state;
    const auto now = std::chrono::steady_clock::now();
    if (now - state.lastFlush < FlushInterval) {
        return;
    }
    state.lastFlush = now;
    try {
        for (const std::unique_ptr<SignalGroup>& group : state.groups) {
            group->storeChunk(state.compressor);
        }
        h5::check(H5Fflush(state.file.get(), H5F_SCOPE_LOCAL), "flushing");
    } catch (const h5::Failure& failure) {
        state.fail(failure);
    }
}

void H5Writer::finish() {
    State& state = *_state;
    try {
        for (const std::unique_ptr<SignalGroup>& group : state.groups) {
            group->storeChunk(state.compressor);
        }
        state.groups.clear();
        state.creation.close();
        state.access.close();
        h5::check(state.file.close() ? 0 : -1, "closing the file");
    } catch (const h5::Failure& failure) {
        state.fail(failure);
    }
}

}  // namespace oltb::cli
