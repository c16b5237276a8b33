// Small readings shared by the parts of the xmeml reader.
#pragma once

#include <climits>
#include <cstdint>

#include "host/XMLParser.h"
#include "import/Scan.h"

namespace XML::fcp5read {

// The text of the first element of that name, at any depth; empty when
// there is none. Empty text counts as absence throughout the reader.
inline LightweightString<char> leaf(const XMLParser& parser, const char* name) {
    return parser.getValue(name, 0).text;
}

inline bool present(const XMLParser& parser, const char* name) {
    return !leaf(parser, name).empty();
}

// A whole number as "%d" reads it; `fallback` when the element is missing or
// does not begin with a number.
inline int intOf(const XMLParser& parser, const char* name, int fallback) {
    int value = fallback;
    scanInt(leaf(parser, name), value);
    return value;
}

// A number as "%lf" reads it, likewise.
inline double doubleOf(const XMLParser& parser, const char* name, double fallback) {
    double value = fallback;
    scanDouble(leaf(parser, name), value);
    return value;
}

// The frames per second of the first `rate` element: its `timebase`, divided
// by 1.001 when `ntsc` is "TRUE". False when there is no rate or no timebase,
// and `value` is left alone.
inline bool readRate(const XMLParser& parser, double& value) {
    XMLParser::Value rate = parser.getValue("rate", 0);
    if (rate.text.empty()) return false;
    XMLParser rp(rate.text.c_str(), -1);
    LightweightString<char> timebase = leaf(rp, "timebase");
    if (timebase.empty()) return false;
    int frames = 0;
    scanInt(timebase, frames);
    value = static_cast<double>(frames);
    if (leaf(rp, "ntsc") == "TRUE") value /= 1.001;
    return true;
}

// Tick arithmetic is done in 64 bits and brought back into the 32-bit range,
// so that hostile frame numbers saturate instead of overflowing.
inline int toInt(long long value) {
    if (value > INT_MAX) return INT_MAX;
    if (value < INT_MIN) return INT_MIN;
    return static_cast<int>(value);
}

}  // namespace XML::fcp5read
