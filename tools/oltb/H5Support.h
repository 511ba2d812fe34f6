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

// Stops HDF5 from printing its error stacks on standard error: the tool reports failures itself.
void silenceLibraryErrors();

// File access properties whose metadata cache stays small: a capture's chunk indexes grow without end, and the
// default cache would grow with them up to 32 MiB.
Handle boundedFileAccess();

// Throws Failure("<action>: <reason>") when `id` is negative; otherwise it becomes a Handle.
Handle checked(hid_t id, Handle::Closer closer, const std::string& action);
// Throws Failure("<action>: <reason>") when `status` is negative.
void check(herr_t status, const std::string& action);

// Scalar attributes: strings are variable-length UTF-8 (Python reads them as str), numbers of the file type given.
void writeAttribute(hid_t object, const char* name, const std::string& value);
void writeAttribute(hid_t object, const char* name, hid_t fileType, long long value);

// The attribute's value, or nothing when the object has no such attribute. Throws Failure when it has one of
// another kind (a number where a string belongs, or the other way round).
std::optional<std::string> readStringAttribute(hid_t object, const char* name);
std::optional<long long> readIntegerAttribute(hid_t object, const char* name);

}  // namespace oltb::cli::h5
