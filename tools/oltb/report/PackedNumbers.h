// Arrays of numbers as the report page carries them: each value times a scale, rounded, as its difference from the
// value before, deflated (zlib) and in base64 text. Sampled positions and their times change by about the same
// step from one sample to the next, so they shrink to a fraction of a byte per value; the page undoes the steps
// with the browser's own inflater (DecompressionStream).
//
// As JSON: {"count": N, "scale": S, "offset": O, "data": "<base64>"}; the data inflates to N little-endian int32
// differences; value i = O + (d0 + ... + di) / S. The difference -2^31 is a gap (no value, NaN) and leaves the sum
// as it was. S is the scale asked for, halved until every difference fits.
#pragma once

#include <string>
#include <vector>

namespace oltb::report {

std::string packedNumbers(const std::vector<double>& values, double scale, double offset = 0);
std::string packedNumbers(const std::vector<float>& values, double scale, double offset = 0);

std::string base64(const unsigned char* bytes, std::size_t size);

}  // namespace oltb::report
