// The files a command writes, each in the format its name's extension says (.csv, .vcd or .h5); "-" or no file
// at all means CSV on standard output. One series of events goes to every file; a .vcd gets the view file that
// GTKWave opens it with beside it (GtkwaveView.h).
#pragma once

#include "api/oltb.h"
#include "tools/oltb/CaptureWriter.h"
#include "tools/oltb/SeriesInfo.h"

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace oltb::cli {

enum class OutputFormat { Csv, Vcd, H5 };

// The format of a file name by its extension (any case): .csv, .vcd, .h5; nothing for any other name.
std::optional<OutputFormat> formatOfFileName(const std::string& path);

// The format of an output by its name; "-" is CSV. Throws UsageError for anything else, and for a format this oltb
// was built without (.h5 without HDF5).
const WriterFormat& outputFormatOf(const std::string& path);

// Whether two names (or "-", standard output) lead to one file: the same device and inode for files that exist
// (also through symbolic or hard links), the same resolved path for names of files still to be made.
bool sameFile(const std::string& first, const std::string& second);

class Outputs {
public:
    // Checks the names (formats, no file twice under any name); throws UsageError. Opens nothing yet.
    explicit Outputs(std::vector<std::string> paths);
    ~Outputs();
    Outputs(const Outputs&) = delete;
    Outputs& operator=(const Outputs&) = delete;

    // Throws UsageError when one of the outputs (standard output included) is the file `input`, which the command
    // reads: writing it would destroy what is read.
    void refuseInput(const std::string& input) const;

    // Creates the files, so that an unwritable path fails before the server is asked for anything. Throws
    // OutputError, or UsageError for two names of one file that only showed once created; the files this call
    // created are removed then.
    void open();

    bool csvOnStandardOutput() const;

    // Starts every file: its header, variables or groups, and what an HDF5 file keeps of `info`. Throws
    // OutputError.
    void begin(const SeriesInfo& info);

    // Throws OutputError once a file can no longer be written; the other files are written all the same.
    void write(const oltbTraceEvent* events, std::size_t count);

    // Completes, flushes and closes every file, also after one of them failed. Throws OutputError if one did.
    void finish();

    // Removes the files created by open() when nothing was begun (the command failed before it had events).
    void discardUnbegun();

    // Closes and removes every file created by open(), whatever was written (a conversion that failed); files
    // not created yet are left alone.
    void discard();

    // Warnings of the writers (events a format moved or left out), empty when there are none.
    std::vector<std::string> warnings() const;

    // The outputs written completely: "out/demo.csv, out/demo.vcd" or "standard output"; empty when none was.
    std::string describeComplete() const;

private:
    struct Output {
        std::string path;
        const WriterFormat* format = nullptr;
        int descriptor = -1;   // of a created file; -1 for standard output, and for a format that writes by name
        bool created = false;  // by open(): removed by discard()
        std::unique_ptr<CaptureWriter> writer;
        std::string failure;  // why it can no longer be written; empty while it can
    };

    static int descriptorOf(const Output& output);
    void checkWritten(Output& output);
    static void close(Output& output);
    void fail(Output& output, const std::string& failure);
    void throwIfFailed() const;

    std::vector<Output> _outputs;
    bool _begun = false;
    std::string _firstFailure;
    bool _standardOutputClosed = false;
};

}  // namespace oltb::cli
