// Each signal's columns wait in memory until they fill their dataset up to the end of a chunk and are then
// appended, so that a chunk is mostly compressed and written once; the chunk cache is turned off, since chunks are
// never read back. Once a second everything waiting is appended and the file flushed, so that what is on disk is a
// whole series up to that moment: a chunk filled across a flush is then rewritten, which only slow signals' chunks
// are. Shuffle puts the bytes of equal significance together (the high bytes of times and counts barely change),
// which deflate then shrinks well at a low level that keeps up with the card's event rate.
#include "tools/oltb/H5Writer.h"

#include "tools/oltb/Errors.h"
#include "tools/oltb/H5Support.h"

#include <array>
#include <chrono>
#include <vector>

#ifndef OLTB_TOOL_VERSION
#define OLTB_TOOL_VERSION "unknown"
#endif

namespace oltb::cli {

namespace {

constexpr unsigned DeflateLevel = 4;
constexpr auto FlushInterval = std::chrono::seconds(1);

std::string signalList(const std::vector<const SignalInfo*>& signals) {
    std::string text;
    for (const SignalInfo* signal : signals) {
        text += (text.empty() ? "" : ",") + std::string(signal->name);
    }
    return text;
}

// One column of a signal: its dataset and the values not yet appended.
template <typename Value>
struct Column {
    h5::Handle dataset;
    std::vector<Value> pending;

    void create(hid_t group, const char* name, hid_t fileType, hid_t creation, hid_t access) {
        const hsize_t empty = 0;
        const hsize_t unlimited = H5S_UNLIMITED;
        const h5::Handle space = h5::checked(H5Screate_simple(1, &empty, &unlimited), H5Sclose, "dataspace");
        dataset = h5::checked(H5Dcreate2(group, name, fileType, space.get(), H5P_DEFAULT, creation, access), H5Dclose,
                              std::string("creating dataset ") + name);
        pending.reserve(H5Writer::ChunkEvents);
    }

    void append(hid_t memoryType, hsize_t written) {
        const hsize_t count = pending.size();
        const hsize_t size = written + count;
        h5::check(H5Dset_extent(dataset.get(), &size), "extending a dataset");
        const h5::Handle fileSpace = h5::checked(H5Dget_space(dataset.get()), H5Sclose, "dataspace");
        h5::check(H5Sselect_hyperslab(fileSpace.get(), H5S_SELECT_SET, &written, nullptr, &count, nullptr),
                  "selecting the new events");
        const h5::Handle memorySpace = h5::checked(H5Screate_simple(1, &count, nullptr), H5Sclose, "dataspace");
        h5::check(H5Dwrite(dataset.get(), memoryType, memorySpace.get(), fileSpace.get(), H5P_DEFAULT, pending.data()),
                  "writing events");
        pending.clear();
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
    hsize_t written = 0;

    void appendPending() {
        if (ticks.pending.empty()) {
            return;
        }
        ticks.append(H5T_NATIVE_UINT64, written);
        time.append(H5T_NATIVE_DOUBLE, written);
        value.append(H5T_NATIVE_INT32, written);
        overflow.append(H5T_NATIVE_UINT8, written);
        const hsize_t count = sequence.pending.size();
        sequence.append(H5T_NATIVE_UINT64, written);
        written += count;
    }
};

}  // namespace

struct H5Writer::State {
    std::string path;
    bool signedPositions = true;
    h5::Handle file;  // closed last: the groups below belong to it
    h5::Handle creation;
    h5::Handle access;
    std::vector<SignalGroup> groups;
    std::array<int, 128> groupOfType{};  // index into groups, -1 for none
    std::uint64_t nextSequence = 0;
    std::chrono::steady_clock::time_point lastFlush = std::chrono::steady_clock::now();

    SignalGroup& addGroup(const SignalInfo* signal) {
        SignalGroup& added = groups.emplace_back();
        added.signal = signal;
        added.group = h5::checked(H5Gcreate2(file.get(), signal->name, H5P_DEFAULT, H5P_DEFAULT, H5P_DEFAULT),
                                  H5Gclose, std::string("creating group ") + signal->name);
        const hid_t group = added.group.get();
        h5::writeAttribute(group, "event_type", H5T_STD_U8LE, static_cast<long long>(signal->type));
        h5::writeAttribute(group, "bits_per_sample", H5T_STD_U8LE, signal->bitsPerSample);
        h5::writeAttribute(group, "signed", H5T_STD_U8LE, signedPositions && isHeadPosition(signal->type) ? 1 : 0);
        added.ticks.create(group, "timestamp_ticks", H5T_STD_U64LE, creation.get(), access.get());
        added.time.create(group, "time_us", H5T_IEEE_F64LE, creation.get(), access.get());
        added.value.create(group, "value", H5T_STD_I32LE, creation.get(), access.get());
        added.overflow.create(group, "overflow", H5T_STD_U8LE, creation.get(), access.get());
        added.sequence.create(group, "sequence", H5T_STD_U64LE, creation.get(), access.get());
        groupOfType[static_cast<std::size_t>(signal->type)] = static_cast<int>(groups.size() - 1);
        return added;
    }

    [[noreturn]] void fail(const h5::Failure& failure) const {
        throw OutputError("cannot write " + path + ": " + failure.what());
    }
};

H5Writer::H5Writer(const std::string& path, const SeriesInfo& info) : _state(std::make_unique<State>()) {
    State& state = *_state;
    state.path = path;
    state.signedPositions = info.signedPositions;
    state.groupOfType.fill(-1);
    h5::silenceLibraryErrors();
    try {
        // Space that a rewritten chunk gives up is never reused: until the next flush the file on disk still points
        // at the old copy, so a capture killed in between leaves a file that reads as of the last flush. (A file
        // made so needs a reader with HDF5 1.10 or newer.)
        const h5::Handle fileCreation = h5::checked(H5Pcreate(H5P_FILE_CREATE), H5Pclose, "file properties");
        h5::check(H5Pset_file_space_strategy(fileCreation.get(), H5F_FSPACE_STRATEGY_NONE, false, 1), "file space");
        state.file = h5::checked(H5Fcreate(path.c_str(), H5F_ACC_TRUNC, fileCreation.get(),
                                             h5::boundedFileAccess().get()),
                                 H5Fclose, "creating the file");
        state.creation = h5::checked(H5Pcreate(H5P_DATASET_CREATE), H5Pclose, "dataset properties");
        const hsize_t chunk = ChunkEvents;
        h5::check(H5Pset_chunk(state.creation.get(), 1, &chunk), "chunking");
        h5::check(H5Pset_shuffle(state.creation.get()), "shuffle filter");
        h5::check(H5Pset_deflate(state.creation.get(), DeflateLevel), "deflate filter");
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

bool H5Writer::available() {
    return true;
}

void H5Writer::write(const oltbTraceEvent* events, std::size_t count) {
    State& state = *_state;
    try {
        for (const oltbTraceEvent* event = events; event != events + count; ++event) {
            const auto type = static_cast<std::size_t>(event->Type);
            SignalGroup* group = nullptr;
            if (type < state.groupOfType.size() && state.groupOfType[type] >= 0) {
                group = &state.groups[static_cast<std::size_t>(state.groupOfType[type])];
            } else if (const SignalInfo* signal = findSignalByType(event->Type)) {
                group = &state.addGroup(signal);
            } else {
                continue;
            }
            group->ticks.pending.push_back(event->Timestamp);
            group->time.pending.push_back(event->Time);
            group->value.pending.push_back(event->Value);
            group->overflow.pending.push_back(event->Overflow ? 1 : 0);
            group->sequence.pending.push_back(state.nextSequence++);
            if ((group->written + group->ticks.pending.size()) % ChunkEvents == 0) {
                group->appendPending();
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
        for (SignalGroup& group : state.groups) {
            group.appendPending();
        }
        h5::check(H5Fflush(state.file.get(), H5F_SCOPE_LOCAL), "flushing");
    } catch (const h5::Failure& failure) {
        state.fail(failure);
    }
}

void H5Writer::finish() {
    State& state = *_state;
    try {
        for (SignalGroup& group : state.groups) {
            group.appendPending();
        }
        state.groups.clear();
        state.creation.close();
        state.access.close();
        if (!state.file.close()) {
            throw h5::Failure("closing the file: the last writes failed");
        }
    } catch (const h5::Failure& failure) {
        state.fail(failure);
    }
}

}  // namespace oltb::cli
