#include "tools/oltb/H5Support.h"

#include <algorithm>
#include <utility>

namespace oltb::cli::h5 {

namespace {

// HDF5 keeps a stack of errors from the function called down to the one that failed first; the innermost one
// says what went wrong ("file signature not found", "truncated file: eof = ...").
herr_t takeInnermost(unsigned position, const H5E_error2_t* error, void* text) {
    if (position == 0 && error->desc != nullptr) {
        *static_cast<std::string*>(text) = error->desc;
    }
    return 0;
}

// The reason on one short line: of a failed system call ("file write failed: time = ..., error message = 'No
// space left on device', ...") the system's own text.
std::string reasonOfLastFailure() {
    std::string text;
    H5Ewalk2(H5E_DEFAULT, H5E_WALK_UPWARD, takeInnermost, &text);
    H5Eclear2(H5E_DEFAULT);
    const std::string systemText = "error message = '";
    const std::size_t quoted = text.find(systemText);
    if (quoted != std::string::npos) {
        const std::size_t begin = quoted + systemText.size();
        text = text.substr(begin, text.find('\'', begin) - begin);
    }
    std::replace(text.begin(), text.end(), '\n', ' ');
    if (text.size() > 160) {
        text = text.substr(0, 160) + "...";
    }
    return text.empty() ? "HDF5 gave no reason" : text;
}

constexpr std::size_t LongestText = 65536;

// A fixed-length UTF-8 string type of `size` bytes (at least 1), null-terminated.
Handle fixedLengthString(std::size_t size) {
    Handle type = checked(H5Tcopy(H5T_C_S1), H5Tclose, "string type");
    check(H5Tset_size(type.get(), size > 0 ? size : 1), "string type");
    check(H5Tset_strpad(type.get(), H5T_STR_NULLTERM), "string type");
    check(H5Tset_cset(type.get(), H5T_CSET_UTF8), "string type");
    return type;
}

// An attribute holding one value of the class expected (reading a list into one value would overrun it), and its
// type.
std::pair<Handle, Handle> openSingleAttribute(hid_t object, const char* name, H5T_class_t expected, const char* kind) {
    const std::string what = std::string("attribute ") + name;
    Handle attribute = checked(H5Aopen(object, name, H5P_DEFAULT), H5Aclose, what);
    Handle type = checked(H5Aget_type(attribute.get()), H5Tclose, what);
    const Handle space = checked(H5Aget_space(attribute.get()), H5Sclose, what);
    if (H5Tget_class(type.get()) != expected || H5Sget_simple_extent_npoints(space.get()) != 1) {
        throw Failure(what + " is not " + kind);
    }
    return {std::move(attribute), std::move(type)};
}

}  // namespace

Handle& Handle::operator=(Handle&& other) noexcept {
    if (this != &other) {
        close();
        _id = other._id;
        _closer = other._closer;
        other._id = -1;
    }
    return *this;
}

bool Handle::close() {
    if (_id < 0) {
        return true;
    }
    const herr_t status = _closer(_id);
    _id = -1;
    return status >= 0;
}

void silenceLibraryErrors() {
    // HDF5's handler at exit closes the files still open; one whose last writes failed (a full disk) stays open
    // after H5Fclose failed, and closing it again at exit crashes. Files are closed by their owners, so the handler
    // has nothing to do. It must be turned off before anything else of HDF5 runs.
    static const bool once = [] {
        H5dont_atexit();
        return true;
    }();
    (void)once;
    H5Eset_auto2(H5E_DEFAULT, nullptr, nullptr);
}

Handle boundedFileAccess() {
    Handle access = checked(H5Pcreate(H5P_FILE_ACCESS), H5Pclose, "file access properties");
    H5AC_cache_config_t config{};
    config.version = H5AC__CURR_CACHE_CONFIG_VERSION;
    check(H5Pget_mdc_config(access.get(), &config), "metadata cache");
    config.set_initial_size = true;
    config.initial_size = 1 << 20;
    config.min_size = 1 << 20;
    config.max_size = 2 << 20;
    check(H5Pset_mdc_config(access.get(), &config), "metadata cache");
    return access;
}

Handle checked(hid_t id, Handle::Closer closer, const std::string& action) {
    if (id < 0) {
        throw Failure(action + ": " + reasonOfLastFailure());
    }
    return Handle(id, closer);
}

void check(herr_t status, const std::string& action) {
    if (status < 0) {
        throw Failure(action + ": " + reasonOfLastFailure());
    }
}

void writeAttribute(hid_t object, const char* name, const std::string& value) {
    const Handle type = fixedLengthString(value.size());
    const Handle space = checked(H5Screate(H5S_SCALAR), H5Sclose, "attribute space");
    const Handle attribute = checked(H5Acreate2(object, name, type.get(), space.get(), H5P_DEFAULT, H5P_DEFAULT),
                                     H5Aclose, std::string("attribute ") + name);
    std::string stored = value;
    stored.resize(std::max<std::size_t>(value.size(), 1), '\0');
    check(H5Awrite(attribute.get(), type.get(), stored.data()), std::string("attribute ") + name);
}

void writeAttribute(hid_t object, const char* name, hid_t fileType, long long value) {
    const Handle space = checked(H5Screate(H5S_SCALAR), H5Sclose, "attribute space");
    const Handle attribute = checked(H5Acreate2(object, name, fileType, space.get(), H5P_DEFAULT, H5P_DEFAULT),
                                     H5Aclose, std::string("attribute ") + name);
    check(H5Awrite(attribute.get(), H5T_NATIVE_LLONG, &value), std::string("attribute ") + name);
}

StringAttribute readStringAttribute(hid_t object, const char* name) {
    StringAttribute found;
    if (H5Aexists(object, name) <= 0) {
        return found;
    }
    found.present = true;
    const auto [attribute, type] = openSingleAttribute(object, name, H5T_STRING, "one text");
    if (H5Tis_variable_str(type.get()) != 0) {
        found.variableLength = true;
        return found;
    }
    const std::size_t size = H5Tget_size(type.get());
    if (size == 0 || size > LongestText) {
        throw Failure(std::string("attribute ") + name + " is not a text of at most 64 KiB");
    }
    // The text as stored (ASCII or UTF-8: HDF5 converts between neither), with room for the terminating zero.
    const Handle memoryType = checked(H5Tcopy(type.get()), H5Tclose, "string type");
    check(H5Tset_size(memoryType.get(), size + 1), "string type");
    check(H5Tset_strpad(memoryType.get(), H5T_STR_NULLTERM), "string type");
    std::string text(size + 1, '\0');
    check(H5Aread(attribute.get(), memoryType.get(), text.data()), std::string("attribute ") + name);
    text.resize(text.find('\0'));
    found.text = text;
    return found;
}

std::optional<long long> readIntegerAttribute(hid_t object, const char* name) {
    if (H5Aexists(object, name) <= 0) {
        return std::nullopt;
    }
    const auto [attribute, type] = openSingleAttribute(object, name, H5T_INTEGER, "one whole number");
    if (H5Tget_size(type.get()) > sizeof(long long)) {
        throw Failure(std::string("attribute ") + name + " is wider than 64 bits");
    }
    long long value = 0;
    check(H5Aread(attribute.get(), H5T_NATIVE_LLONG, &value), std::string("attribute ") + name);
    return value;
}

}  // namespace oltb::cli::h5
