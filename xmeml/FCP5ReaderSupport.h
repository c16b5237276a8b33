// Small readings shared by the parts of the xmeml reader.
#pragma once

#include <climits>
#include <cmath>
#include <cstdint>
#include <memory>

#include "host/FrameRate.h"
#include "host/XMLParser.h"
#include "import/Scan.h"

namespace XML::fcp5read {

// The text of the first element of that name, at any depth; empty when
// there is none. Empty text counts as absence throughout the reader.
inline LightweightString<char> leaf(const XMLParser& parser, const char* name) {
    return parser.getText(name, 0);
}

inline bool present(const XMLParser& parser, const char* name) {
    return !leaf(parser, name).empty();
}

// A parser that answers nothing: what the reader reads an element with no
// text through.
inline const XMLParser& emptyParser() {
    static const XMLParser empty("", -1);
    return empty;
}

// The index-th element of that name, read through a section of the
// document's index; null when it has no text, that is where the reader
// counts it as absent.
inline std::unique_ptr<XMLParser> inside(const XMLParser& parser, const char* name,
                                         unsigned index = 0) {
    std::unique_ptr<XMLParser> section = parser.section(name, index);
    if (section && !section->hasText()) section.reset();
    return section;
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
    std::unique_ptr<XMLParser> rate = inside(parser, "rate");
    if (!rate) return false;
    LightweightString<char> timebase = leaf(*rate, "timebase");
    if (timebase.empty()) return false;
    int frames = 0;
    scanInt(timebase, frames);
    value = static_cast<double>(frames);
    if (leaf(*rate, "ntsc") == "TRUE") value /= 1.001;
    return true;
}

// A `rate` element as the document counts it, and the host's rate for it.
struct DocRate {
    bool present = false;  // a rate with a timebase
    int timebase = 0;
    bool ntsc = false;
    double fps = 0;                            // timebase, over 1.001 when ntsc
    Qv::FrameRate exact = Qv::eFrameRateNone;  // the host's rate of exactly that value
};

// The first `rate` element, read as readRate reads it.
inline DocRate docRateOf(const XMLParser& parser) {
    DocRate r;
    std::unique_ptr<XMLParser> rate = inside(parser, "rate");
    if (!rate) return r;
    LightweightString<char> timebase = leaf(*rate, "timebase");
    if (timebase.empty()) return r;
    r.present = true;
    scanInt(timebase, r.timebase);
    r.ntsc = leaf(*rate, "ntsc") == "TRUE";
    r.fps = static_cast<double>(r.timebase);
    if (r.ntsc) r.fps /= 1.001;
    r.exact = Qv::getEquivalentQvFrameRate(r.fps);
    return r;
}

// The host's rate nearest to a number of frames a second; none for a number
// that is not above zero.
inline Qv::FrameRate nearestKnownRate(double fps) {
    Qv::FrameRate best = Qv::eFrameRateNone;
    if (!(fps > 0) || !std::isfinite(fps)) return best;
    int count = 0;
    const Qv::FrameRate* rates = Qv::allFrameRates(count);
    double distance = 0;
    for (int i = 0; i < count; ++i) {
        double d = std::fabs(Qv::getFramesPerSecond(rates[i]) - fps);
        if (best == Qv::eFrameRateNone || d < distance) {
            best = rates[i];
            distance = d;
        }
    }
    return best;
}

// The `id` attribute of an element read through a section; empty if none.
inline LightweightString<char> idOf(const XMLParser& element) {
    for (const XMLParser::Tag& a : element.attributes())
        if (a.name == "id") return a.value;
    return {};
}

// How losses name a clip item: "name" (clipitem-5).
inline LightweightString<char> itemText(const LightweightString<char>& name,
                                        const LightweightString<char>& id) {
    LightweightString<char> out = "\"" + name + "\"";
    if (!id.empty()) out += " (" + id + ")";
    return out;
}

// An item switched off in its editor: its own `enabled` is "FALSE".
inline bool disabled(const XMLParser& item) {
    std::vector<XMLParser::Value> enabled = item.getSections_TopLevel("enabled");
    return !enabled.empty() && enabled[0].text == "FALSE";
}

// Tick arithmetic is done in 64 bits and brought back into the 32-bit range,
// so that hostile frame numbers saturate instead of overflowing.
inline int toInt(long long value) {
    if (value > INT_MAX) return INT_MAX;
    if (value < INT_MIN) return INT_MIN;
    return static_cast<int>(value);
}

}  // namespace XML::fcp5read
