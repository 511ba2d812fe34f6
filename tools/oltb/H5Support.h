// A thin C++ layer over HDF5's C interface for the capture files: identifiers that close themselves, checked
// calls that throw with HDF5's own reason, and the scalar attributes the files carry.
#pragma once

#include <hdf5.h>

#include <optional>
#include <stdexcept>
#include <string>

namespace oltb::cli::h5 {

// A failed HDF5 call: what was attempted and HDF5's most specific reason. The writer and the reader turn it into
// the tool's OutputError or InputError, naming the file.
class Failure : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class Handle {
public:
    using Closer = herr_t (*)(hid_t);

    Handle() = default;
    Handle(hid_t id, Closer closer) : _id(id), _closer(closer) {}
    ~Handle() { close(); }
    Handle(Handle&& other) noexcept : _id(other._id), _closer(other._closer) { other._id = -1; }
    Handle& operator=(Handle&& other) noexcept;
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;

    hid_t get() const { return _id; }
    // Closes now; false when HDF5 reports a failure (for a file: its last writes did not succeed).
    bool close();

private:
    hid_t _id = -1;
    Closer _closer = nullptr;
};

// Stops HDF5 from printing its error stacks on standard error (the tool reports failures itself) and from closing
// files at exit. Called before any other use of HDF5.
void silenceLibraryErrors();

// File access properties whose metadata cache stays small: a capture's chunk indexes grow without end, and the
// default cache would grow with them up to 32 MiB.
Handle boundedFileAccess();

// Throws Failure("<action>: <reason>") when `id` is negative; otherwise it becomes a Handle.
Handle checked(hid_t id, Handle::Closer closer, const std::string& action);
// Throws Failure("<action>: <reason>") when `status` is negative.
void check(herr_t status, const std::string& action);

// Scalar attributes: strings are fixed-length UTF-8, stored in the attribute itself (a variable-length string
// lives in the file's global heap, which a damaged file can turn into a crash or an endless loop of HDF5's
// reading code); numbers of the file type given.
void writeAttribute(hid_t object, const char* name, const std::string& value);
void writeAttribute(hid_t object, const char* name, hid_t fileType, long long value);

// A string attribute as found: absent, a fixed-length string with its text, or a variable-length string (as the
// first versions of oltb wrote them), whose text is not read.
struct StringAttribute {
    bool present = false;
    bool variableLength = false;
    std::string text;  // of a fixed-length string
};

// Throws Failure when the object has an attribute of that name of another kind (a number where a string belongs,
// or the other way round), or one longer than 64 KiB.
StringAttribute readStringAttribute(hid_t object, const char* name);
// The attribute's value, or nothing when the object has no such attribute. Throws Failure as above.
std::optional<long long> readIntegerAttribute(hid_t object, const char* name);

}  // namespace oltb::cli::h5
