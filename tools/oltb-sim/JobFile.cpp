// Reading job text line by line: each line is checked on its own (words, numbers, ranges), so an error names the
// line it is on. What depends on the path (an arc leaving the field) is checked where the job is laid out.
#include "tools/oltb-sim/JobFile.h"

#include "tools/oltb/Excerpt.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace oltb::sim {
namespace {

constexpr double MaxWaitUs = 10e6;
// Far more than any job needs (a line of 30 bytes makes it 140,000 lines); a larger file is refused unread.
constexpr std::size_t MaxJobFileBytes = 4 << 20;
constexpr double MinSpeedUnitsPerMs = 10;
constexpr double MaxSpeedUnitsPerMs = 1e6;
constexpr double MaxArcDegrees = 3600;
// A client looks for a response frame from the first of its 0x4D bytes on. A trace word whose payload starts with
// that byte, sent right before a response, would hide the response from it: label numbers and laser levels keep
// their upper byte clear of it.
constexpr std::uint32_t ResponseMarkByte = 0x4D;

const char* const BuiltInJob =
    R"(# oltb-sim's built-in marking job (oltb-sim --print-job prints it). The job file format is in oltb-sim --help.
# Head 0 marks a line, a square, a circle and a half arc; the card's speeds and delays come from the options.
label 1                     # job start
power 0x4000
jump -300000 -250000        # shape 0: a line along +X
label 10
mark 300000 -250000
label 11
power 0x6000
jump -100000 -100000        # shape 1: a square, one polyline with four corners
label 12
mark 100000 -100000
mark 100000 100000
mark -100000 100000
mark -100000 -100000
label 13
power 0x8000
jump 350000 250000          # shape 2: a circle of radius 100000, once counterclockwise
label 14
arc 250000 250000 360
label 15
power 0xC000
jump -150000 250000         # shape 3: half a circle counterclockwise, ending at (-350000, 250000)
label 16
arc -250000 250000 180
label 17
jump 0 0
label 2                     # job end
)";

// A whole word as a finite number: decimal, with a fraction or exponent, or 0x hexadecimal.
bool parseNumber(const std::string& word, double& value) {
    if (word.empty()) {
        return false;
    }
    errno = 0;
    char* end = nullptr;
    value = std::strtod(word.c_str(), &end);
    return errno == 0 && end == word.c_str() + word.size() && std::isfinite(value);
}

class LineParser {
public:
    LineParser(const std::string& source, int line, std::vector<std::string> words)
        : _source(source), _line(line), _words(std::move(words)) {}

    [[noreturn]] void fail(const std::string& what) const { throw JobFileError(_source, _line, what); }

    void expectArguments(const std::size_t count, const char* usage) const {
        if (_words.size() != count + 1) {
            fail(quoted(0) + " takes " + std::to_string(count) + " argument" + (count == 1 ? "" : "s") + " (" + usage +
                 "), got " + std::to_string(_words.size() - 1));
        }
    }

    double number(const std::size_t index, const char* name) const {
        double value = 0;
        if (!parseNumber(_words[index], value)) {
            fail(std::string(name) + " is not a number: " + quoted(index));
        }
        return value;
    }

    std::int64_t position(const std::size_t index, const char* name) const {
        const double value = number(index, name);
        if (value != std::floor(value)) {
            fail(std::string(name) + " must be a whole number of head units: " + shown(index));
        }
        if (std::fabs(value) > static_cast<double>(FieldLimitUnits)) {
            fail(std::string(name) + " " + shown(index) + " lies outside the field (-524287..524287)");
        }
        return static_cast<std::int64_t>(value);
    }

    std::uint32_t whole(const std::size_t index, const char* name, const std::uint32_t largest) const {
        const double value = number(index, name);
        if (value != std::floor(value) || value < 0 || value > largest) {
            fail(std::string(name) + " must be a whole number from 0 to " + std::to_string(largest) + ": " +
                 shown(index));
        }
        return static_cast<std::uint32_t>(value);
    }

    double inRange(const std::size_t index, const char* name, const double lowest, const double highest,
                   const char* unit) const {
        const double value = number(index, name);
        if (value < lowest || value > highest) {
            std::ostringstream text;
            text << name << " must lie from " << lowest << " to " << highest << " " << unit << ": " << shown(index);
            fail(text.str());
        }
        return value;
    }

    const std::vector<std::string>& words() const { return _words; }

    // A word for a message: as it is when short and printable, otherwise a short excerpt, so that a 10 MB word or
    // binary bytes never reach the terminal.
    std::string shown(const std::size_t index) const {
        const std::string& word = _words[index];
        const std::string quoted = oltb::cli::excerpt(word);
        return quoted.size() == word.size() + 2 ? word : quoted;
    }
    std::string quoted(const std::size_t index) const { return oltb::cli::excerpt(_words[index]); }

private:
    const std::string& _source;
    int _line;
    std::vector<std::string> _words;
};

bool powerHidesResponses(const std::uint32_t power16) {
    for (const std::uint32_t level : {power16, power16 / 2}) {  // laser 0 has the power, laser 1 half of it
        if (level >> 8 == ResponseMarkByte || scalePower(level, 8) == ResponseMarkByte) {
            return true;
        }
    }
    return false;
}

JobCommand parseCommand(const LineParser& parser) {
    const std::string& name = parser.words()[0];
    JobCommand command;
    if (name == "jump" || name == "mark") {
        parser.expectArguments(2, "X Y");
        command.kind = name == "jump" ? JobCommandKind::jump : JobCommandKind::mark;
        command.x = parser.position(1, "X");
        command.y = parser.position(2, "Y");
    } else if (name == "arc") {
        parser.expectArguments(3, "CX CY DEGREES");
        command.kind = JobCommandKind::arc;
        command.x = parser.position(1, "CX");
        command.y = parser.position(2, "CY");
        command.value = parser.inRange(3, "DEGREES", -MaxArcDegrees, MaxArcDegrees, "degrees");
        if (command.value == 0) {
            parser.fail("an arc of 0 degrees marks nothing");
        }
    } else if (name == "label") {
        parser.expectArguments(1, "N");
        command.kind = JobCommandKind::label;
        command.number = parser.whole(1, "the label", 65535);
        if (command.number >> 8 == ResponseMarkByte) {
            parser.fail(
                "labels 19712 to 19967 (0x4D00..0x4DFF) are not used: the upper byte 0x4D would hide a "
                "response from the client");
        }
    } else if (name == "power") {
        parser.expectArguments(1, "P");
        command.kind = JobCommandKind::power;
        command.number = parser.whole(1, "the power", 65535);
        if (powerHidesResponses(command.number)) {
            parser.fail("power " + parser.shown(1) +
                        " is not used: a laser level with the byte 0x4D would hide "
                        "a response from the client; take a power a little higher or lower");
        }
    } else if (name == "wait") {
        parser.expectArguments(1, "US");
        command.kind = JobCommandKind::wait;
        command.value = parser.inRange(1, "the wait", 0, MaxWaitUs, "us");
    } else if (name == "speed") {
        parser.expectArguments(2, "jump|mark V");
        const std::string& which = parser.words()[1];
        if (which != "jump" && which != "mark") {
            parser.fail("'speed' sets 'jump' or 'mark', not " + parser.quoted(1));
        }
        command.kind = which == "jump" ? JobCommandKind::jumpSpeed : JobCommandKind::markSpeed;
        command.value = parser.inRange(2, "the speed", MinSpeedUnitsPerMs, MaxSpeedUnitsPerMs, "units/ms");
    } else {
        parser.fail("unknown command " + parser.quoted(0) + " (jump, mark, arc, label, power, wait, speed)");
    }
    return command;
}

}  // namespace

JobFileError::JobFileError(const std::string& source, const int line, const std::string& what)
    : std::runtime_error(source + (line > 0 ? ":" + std::to_string(line) : std::string()) + ": " + what) {}

std::uint32_t scalePower(const std::uint32_t power16, const unsigned widthBits) noexcept {
    const std::uint64_t fullScale = (std::uint64_t{1} << widthBits) - 1;
    return static_cast<std::uint32_t>((power16 * fullScale + 65534) / 65535);
}

JobProgram parseJob(const std::string& text, const std::string& source) {
    JobProgram program;
    program.source = source;
    program.text = text;
    // A UTF-8 byte-order mark (as some editors save text) is no part of the first command; CR LF line ends are
    // blanks to the word splitting anyway.
    const bool byteOrderMark = text.rfind("\xEF\xBB\xBF", 0) == 0;
    std::istringstream lines(byteOrderMark ? text.substr(3) : text);
    int lineNumber = 0;
    for (std::string line; std::getline(lines, line);) {
        ++lineNumber;
        const std::string code = line.substr(0, line.find('#'));
        std::istringstream wordStream(code);
        std::vector<std::string> words;
        for (std::string word; wordStream >> word;) {
            words.push_back(word);
        }
        if (words.empty()) {
            continue;
        }
        JobCommand command = parseCommand(LineParser(source, lineNumber, std::move(words)));
        command.line = lineNumber;
        program.commands.push_back(command);
    }
    if (program.commands.empty()) {
        throw JobFileError(source, 0, "the job has no commands");
    }
    return program;
}

JobProgram readJobFile(const std::string& path) {
    std::error_code error;
    if (!std::filesystem::is_regular_file(path, error)) {
        throw JobFileError(path, 0, "not a regular file, so no job file");
    }
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        throw JobFileError(path, 0, "cannot read the job file");
    }
    std::string text(MaxJobFileBytes + 1, '\0');
    file.read(text.data(), static_cast<std::streamsize>(text.size()));
    if (file.bad()) {
        throw JobFileError(path, 0, "cannot read the job file");
    }
    text.resize(static_cast<std::size_t>(file.gcount()));
    if (text.size() > MaxJobFileBytes) {
        throw JobFileError(path, 0, "larger than 4 MiB, far more than a job needs");
    }
    return parseJob(text, path);
}

const std::string& builtInJobText() {
    static const std::string text = BuiltInJob;
    return text;
}

JobProgram builtInJob() { return parseJob(builtInJobText(), "built-in job"); }

}  // namespace oltb::sim
