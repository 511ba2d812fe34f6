// A marking job as the card's list of commands, read from text: one command a line, `#` starts a comment.
//   jump X Y            jump (laser off) to X Y at the jump speed
//   mark X Y            mark a straight line to X Y at the mark speed
//   arc CX CY DEGREES   mark around the centre CX CY from the current position, positive = counterclockwise
//   label N             put label N (0..65535) into the trace at this point of the job
//   power P             laser power of the following marks, 0..65535 (16 bits; 0x hex allowed)
//   wait US             stand still for US microseconds, laser off
//   speed jump|mark V   the speed of the following jumps or marks, units/ms
// Positions are head units of head 0 (the 20-bit field, -524287..524287). Consecutive mark and arc lines (blank
// and comment lines between them do not count) form one polyline marked with the laser kept on.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace oltb::sim {

enum class JobCommandKind { jump, mark, arc, label, power, wait, jumpSpeed, markSpeed };

struct JobCommand {
    JobCommandKind kind = JobCommandKind::wait;
    int line = 0;        // in the job's text, from 1
    std::int64_t x = 0;  // jump, mark: the target; arc: the centre
    std::int64_t y = 0;
    double value = 0;          // arc: degrees; wait: microseconds; speeds: units/ms
    std::uint32_t number = 0;  // label number, power
};

struct JobProgram {
    std::string source;  // the file name, or "built-in job"
    std::string text;
    std::vector<JobCommand> commands;
};

// What is wrong with a job, with the place: "SOURCE:LINE: what" (or "SOURCE: what" for the job as a whole).
class JobFileError : public std::runtime_error {
public:
    JobFileError(const std::string& source, int line, const std::string& what);
};

constexpr std::int64_t FieldLimitUnits = 524287;  // the largest position a 20-bit head channel carries

JobProgram parseJob(const std::string& text, const std::string& source);
// The level of a 16-bit laser power on a power line of `widthBits` bits, rounded up so that any power shows.
std::uint32_t scalePower(std::uint32_t power16, unsigned widthBits) noexcept;

// Reads and parses a job file; an unreadable file is a JobFileError too.
JobProgram readJobFile(const std::string& path);
// The simulator's own marking job, written in the same format (oltb-sim --print-job).
const std::string& builtInJobText();
JobProgram builtInJob();

}  // namespace oltb::sim
