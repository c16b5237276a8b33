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

// The most sound channels a file is taken to have. Recorders write up to a
// few dozen and object-audio masters 128; a count or a channel number beyond
// this is damage, and taking it would make that many channels.
constexpr int kMostChannels = 1024;

// Where the reader tells of a time or rate whose text it cannot use (see
// Damage): the element is `name` within `parser`. `places` when the value
// places material on a timeline (a clip's, a sequence's), not when it only
// gives a file's own length, a marker or a keyframe.
class ValueCheck {
  public:
    virtual void unusable(const XMLParser& parser, const char* name,
                          const LightweightString<char>& text, Damage why, bool places) = 0;

  protected:
    ~ValueCheck() = default;
};

// A time of the document as scanInt reads it, told to `check` when its text
// is none the field can use.
inline Scanned scanTime(const XMLParser& parser, const char* name, int& value, ValueCheck* check,
                        bool places = true) {
    LightweightString<char> text = leaf(parser, name);
    Scanned s = scanInt(text, value);
    if (!s.usable() && check) check->unusable(parser, name, text, s.damage, places);
    return s;
}

// As intOf, for a time.
inline int timeOf(const XMLParser& parser, const char* name, int fallback, ValueCheck* check,
                  bool places = true) {
    int value = fallback;
    scanTime(parser, name, value, check, places);
    return value;
}

// As doubleOf, for the time of a keyframe, in frames that may have a
// fraction: a 32-bit frame count bounds it.
inline double fractionalTimeOf(const XMLParser& parser, const char* name, double fallback,
                               ValueCheck* check) {
    double value = fallback;
    LightweightString<char> text = leaf(parser, name);
    Scanned s = scanDouble(text, value, static_cast<double>(INT_MAX));
    if (!s.usable() && check) check->unusable(parser, name, text, s.damage, false);
    return value;
}

// The timebase of a rate as scanInt reads it, told to `check` when it is no
// count of frames a second: at least one (sound's rates count samples, 48000).
inline void scanTimebase(const XMLParser& rate, const LightweightString<char>& timebase, int& value,
                         ValueCheck* check) {
    Scanned s = scanInt(timebase, value, 1);
    if (!s.usable() && check) check->unusable(rate, "timebase", timebase, s.damage, true);
}

// The frames per second of the first `rate` element: its `timebase`, divided
// by 1.001 when `ntsc` is "TRUE". False when there is no rate or no timebase,
// and `value` is left alone.
inline bool readRate(const XMLParser& parser, double& value, ValueCheck* check = nullptr) {
    std::unique_ptr<XMLParser> rate = inside(parser, "rate");
    if (!rate) return false;
    LightweightString<char> timebase = leaf(*rate, "timebase");
    if (timebase.empty()) return false;
    int frames = 0;
    scanTimebase(*rate, timebase, frames, check);
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
inline DocRate docRateOf(const XMLParser& parser, ValueCheck* check = nullptr) {
    DocRate r;
    std::unique_ptr<XMLParser> rate = inside(parser, "rate");
    if (!rate) return r;
    LightweightString<char> timebase = leaf(*rate, "timebase");
    if (timebase.empty()) return r;
    r.present = true;
    scanTimebase(*rate, timebase, r.timebase, check);
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
