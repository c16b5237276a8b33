// Frame rates, mediums and the conversions between them.
//
// Qv::FrameRate is the host's enumeration of frame rates. Cel time (the time
// of all records) is a double that counts seconds; frames exist in documents
// only. A rate's "ticks per second" is its whole-number timebase: 30 for both
// 30 and 29.97, so that an NTSC cel second holds 30 frames.
#pragma once

#include <cmath>
#include <cstdint>

#include "host/LightweightString.h"

namespace Qv {

enum FrameRate : std::int32_t {
    eFrameRateNone = 0,
    eFrameRate24 = 1,
    eFrameRate23_976 = 2,
    eFrameRate25 = 3,
    eFrameRate30 = 4,
    eFrameRate29_97 = 5,
    eFrameRate48 = 6,
    eFrameRate47_952 = 7,
    eFrameRate50 = 8,
    eFrameRate60 = 9,
    eFrameRate59_94 = 10,
    eFrameRate12 = 35,
    eFrameRate11_988 = 36,
    eFrameRate12_5 = 37,
    eFrameRate15 = 38,
    eFrameRate14_985 = 39,
    eFrameRate20 = 40,
    eFrameRate80 = 41,
    eFrameRate90 = 42,
    eFrameRate100 = 43,
    eFrameRate120 = 44,
    eFrameRate119_88 = 45,
    eFrameRate240 = 46,
    eFrameRate239_76 = 47,
};

// True for the values that name a rate; every other value is "none".
bool isKnownFrameRate(FrameRate rate);
unsigned char getTicksPerSecond(FrameRate rate);
double getFramesPerSecond(FrameRate rate);
bool has1001Factor(FrameRate rate);
// The rate for a frames-per-second value (a timebase, or a timebase divided
// by 1.001); none when no rate is within a hundredth of a frame.
FrameRate getEquivalentQvFrameRate(double fps);
// The rate to count a shot's cels in: the nearest rate within 5 percent, and
// none when no rate fits.
FrameRate getCelQVFrameRateFromFrameRateDouble(double fps);
// "25", "29.97", "23.98", ...; empty for none.
LightweightString<wchar_t> getPlainString(FrameRate rate);
// The exact rational of a rate ("30000", "1001"), "???" for none.
void frameRateRational(FrameRate rate, LightweightString<wchar_t>& num,
                       LightweightString<wchar_t>& den);
// All rates that have a value, in enumeration order.
const FrameRate* allFrameRates(int& count);

namespace Image {
// 1 and 2 are interlaced (upper and lower field first), 3 progressive, 4
// progressive segmented frames.
enum ScanMode : std::int32_t {
    eScanUnknown = 0,
    eScanInterlacedUpper = 1,
    eScanInterlacedLower = 2,
    eScanProgressive = 3,
    eScanProgressiveSegmented = 4
};
// 2 is square pixels.
enum AspectRatio : std::int32_t {
    eAspectUnknown = 0,
    eAspect4x3 = 1,
    eAspectSquare = 2,
    eAspect16x9 = 3
};
}  // namespace Image

}  // namespace Qv

// A medium: what positions on a roll are counted in. 12 is real time; a video
// medium is 100 plus its frame rate.
using MediumRollMedium = std::int32_t;
inline constexpr MediumRollMedium kMediumNone = 0;
inline constexpr MediumRollMedium kMediumRealTime = 12;
inline constexpr MediumRollMedium kMediumVideoBase = 100;

Qv::FrameRate getFrameRatefromMedium(MediumRollMedium medium);
MediumRollMedium getMediumRollfromInputDetails(Qv::Image::ScanMode scan, Qv::FrameRate rate);
MediumRollMedium getMediumRollfromOutputDetails(Qv::Image::ScanMode scan, Qv::FrameRate rate);

// Label types are timecode format numbers. 7 (30 drop frame) and 33 (60 drop
// frame) are the drop-frame ones.
using LabelType = std::int32_t;
LabelType timecodeFormatFor(Qv::FrameRate rate, bool dropFrame);
bool isDropFrameFormat(LabelType format);
LabelType getDefaultLabelTypeforFrameRate(Qv::FrameRate rate);

struct MPosn_Xlate_Params {
    MPosn_Xlate_Params(Qv::FrameRate from, Qv::FrameRate to) : fromRate(from), toRate(to) {}
    Qv::FrameRate fromRate, toRate;
};
// Moves a position from one medium to another. Positions are cel time in every
// medium; a video medium holds whole frames, so a position moved into one is
// brought to the nearest frame of its rate.
double mPosn_Xlate(double position, MediumRollMedium from, MediumRollMedium to,
                   const MPosn_Xlate_Params& params);

// Frame rounding: one rule for each purpose. nearestFrame and nearestCount
// leave NaN and infinities as they are; truncateToInt32/64 below make whole
// numbers of them.
//
// A position in frames (a time times a rate) to the nearest whole frame. A
// half goes to the later frame, before zero as after it, so that positions a
// whole number of frames apart round alike, and a length (out minus in)
// does not depend on where it lies.
inline double nearestFrame(double frames) {
    return std::floor(frames + 0.5);
}
// A count of frames (a start or a length, read from a document or brought
// from another rate) to the nearest whole count. A half goes away from zero,
// so that a count and its negative round alike.
inline double nearestCount(double frames) {
    return std::round(frames);
}
// The whole number of frames a second that a rate is counted in: 30 for
// 29.97, 24 for 23.976.
inline double timebaseOf(double framesPerSecond) {
    return std::round(framesPerSecond);
}

// Double to 32- and 64-bit integers, cut toward zero, defined for every input:
// NaN gives 0 and values out of range give the nearest end of the range.
std::int32_t truncateToInt32(double value);
std::int64_t truncateToInt64(double value);
// A position in frames as xmeml counts it when written: the nearest frame
// after zero, and toward zero before it (-2.75 gives -2). What describes an
// edit as it will be written (info, draw, the loss report) counts so, to
// agree with the file. NaN gives 0, values out of range the nearest end.
inline std::int64_t frameAsWritten(double frames) {
    return truncateToInt64(frames + 0.5);
}
// Double to float, with values beyond float's range going to infinity, as the
// hardware does, rather than being undefined.
float narrowToFloat(double value);
