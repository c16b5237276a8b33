// Time as the OpenTimelineIO bridge counts it, both ways.
//
// The host's cel time counts seconds at an edit's whole-number timebase (a
// 29.97 cel second holds 30 frames). In a document, every position of an
// edit is a RationalTime at the edit's true rate (29.97002997002997) whose
// value is a frame count: cel time x ticks. A value at another rate is moved
// through real time.
#pragma once

#include <cmath>

#include "host/FrameRate.h"

namespace QvOtio {

struct TimeBase {
    Qv::FrameRate rate = Qv::eFrameRateNone;
    double fps = 0;    // the true rate: 30000/1001 for 29.97
    double ticks = 0;  // the whole-number timebase: 30 for 29.97

    static TimeBase of(Qv::FrameRate r) {
        TimeBase b;
        b.rate = r;
        b.fps = Qv::getFramesPerSecond(r);
        b.ticks = static_cast<double>(Qv::getTicksPerSecond(r));
        return b;
    }
    bool valid() const { return fps > 0 && ticks > 0; }

    // Cel time to the nearest whole frame, halves up, before zero as after
    // it, so that a position read back from its frames gives those frames.
    double frames(double cel) const { return nearestFrame(cel * ticks); }
    double cel(double frames) const { return frames / ticks; }
};

// Two rates that are one: OpenTimelineIO writes 30000/1001 as the nearest
// double, and files may round it further.
inline bool sameRate(double a, double b) {
    return std::fabs(a - b) <= 1e-9 * std::fabs(b);
}

// A frame count at one rate as a frame count at another, through real time.
inline double rescale(double value, double fromRate, double toRate) {
    if (sameRate(fromRate, toRate)) return value;
    return value / fromRate * toRate;
}

// A value that is not a whole frame, kept to a millionth of a frame so that a
// value written, read and written again comes out as the same text.
inline double tidyFrames(double frames) {
    double whole = std::round(frames);
    if (std::fabs(frames - whole) < 1e-6) return whole;
    return std::round(frames * 1e6) / 1e6;
}

}  // namespace QvOtio
